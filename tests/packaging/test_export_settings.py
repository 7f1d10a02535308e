"""The export of the administration application's settings, with a real Django and a small
application of that name."""

import base64
import json
from pathlib import Path
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

REPOSITORY = Path(__file__).resolve().parents[2]
PROGRAM = REPOSITORY / "packaging" / "pelorus-export-settings"
APPLICATION = Path(__file__).parent / "application"

WWW_KEY = "www-key-of-the-application"
ENVIRONMENT = """
import os, sys
here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "site-packages"))
"""


class ExportSettings(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="pelorus-export-")
        self.addCleanup(holder.cleanup)
        self.folder = Path(holder.name)
        self.application = self.folder / "application"
        shutil.copytree(APPLICATION, self.application)
        self.environment = self.folder / "environment" / "activate_this.py"
        packages = self.environment.parent / "site-packages"
        packages.mkdir(parents=True)
        self.environment.write_text(ENVIRONMENT)
        (packages / "environment_of_the_application.py").write_text(f"WWW_KEY = {WWW_KEY!r}\n")
        self.output = self.folder / "run" / "settings.json"
        self.output.parent.mkdir()
        self.by_hand = self.folder / "by-hand.json"

    def export(self, status=0):
        """What it said."""
        done = subprocess.run(
            [sys.executable, "-B", PROGRAM, "--application", self.application, "--activation",
             self.environment, "--otherwise", self.by_hand, self.output],
            timeout=60, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(done.returncode, status, done.stdout)
        self.assertNotIn(WWW_KEY, done.stdout)
        left = [path.name for path in self.output.parent.iterdir()]
        self.assertIn(left, ([], [self.output.name]), "something is left behind")
        return done.stdout

    def change(self, module, **lines):
        """Replaces what the application's module assigns to these names; None takes it out."""
        file = self.application / "tidewell" / f"{module}.py"
        for name, value in lines.items():
            line = f"del {name}" if value is None else f"{name} = {value}"
            file.write_text(f"{file.read_text()}{line}\n")

    def test_every_key_is_written_as_the_daemon_reads_it(self):
        self.output.write_text("of the last start")
        self.export()
        self.assertEqual(json.loads(self.output.read_text()), {
            "PELORUS_MAX_PENDING_MESSAGES": 10000, "PELORUS_BUFFER_TIME": 2.5,
            "PELORUS_IDEAL_QUEUED_MESSAGES": 500, "PELORUS_MAX_BATCH_SIZE": 1000,
            "PELORUS_DISCARD_SIZE": 1000,
            "INFLUX_DATABASES": [{"name": "tidewell"}, {"name": "bonding"}],
            "INFLUX_UNIX_SOCKET": "/run/pelorus/collectd.sock",
            "PELORUS_SERVER": "::", "PELORUS_PORT": 8995, "LOCAL_WWW_KEY": WWW_KEY,
            "INFLUX_AUTH": base64.b64encode(b"pelorus:of no interest to the daemon").decode(),
            "INFLUX_HTTP_CONNECTION": "127.0.0.1:8086"})
        self.assertEqual(stat.S_IMODE(self.output.stat().st_mode), 0o600)

    def test_every_fault_is_named_and_nothing_written(self):
        self.output.write_text("of the last start")
        self.change("settings", PELORUS_PORT=None, INFLUX_DATABASES="[{}]",
                    PELORUS_BUFFER_TIME="float('nan')", LOCAL_WWW_KEY=f"{{'{WWW_KEY}'}}")
        self.change("influx", INFLUX_AUTH=None)
        said = self.export(status=1)
        for key in ("PELORUS_PORT", "INFLUX_AUTH"):
            self.assertIn(f"{key} is missing in tidewell.", said)
        for key in ("INFLUX_DATABASES", "PELORUS_BUFFER_TIME", "LOCAL_WWW_KEY"):
            self.assertIn(f"{key} in tidewell.settings is of a type", said)
        self.assertEqual(self.output.read_text(), "of the last start")

    def test_an_application_that_fails_is_named_without_its_values(self):
        self.change("settings", SECRET_KEY=f"int('{WWW_KEY}')")
        self.assertRegex(self.export(status=1), r"ValueError at .*tidewell/settings\.py:\d+")
        shutil.rmtree(self.environment.parent)
        self.assertIn("No module named 'environment_of_the_application'", self.export(status=1))
        self.assertFalse(self.output.exists())

    def test_without_the_application_settings_by_hand_are_linked(self):
        shutil.rmtree(self.application)
        self.assertIn(str(self.by_hand), self.export(status=1))
        self.by_hand.write_text("{}")
        self.export()
        self.assertEqual(self.output.readlink(), self.by_hand)
        self.assertEqual(self.output.read_text(), "{}")
