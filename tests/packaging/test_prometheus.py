"""The alert rules of Prometheus: promtool tries them, and every metric in them is one that is written."""

import re
import shutil
import subprocess
import unittest

from harness import REPOSITORY

FOLDER = REPOSITORY / "packaging" / "prometheus"


class Prometheus(unittest.TestCase):
    def test_rules_name_metrics_that_are_written(self):
        written = re.findall(r'"(pelorus_\w+)"', (REPOSITORY / "pelorus/ctl/stats.cc").read_text())
        expressions = re.sub(r"(?m)^ *#.*|summary:.*", "", (FOLDER / "pelorus.rules.yml").read_text())
        named = set(re.findall(r"pelorus_\w+", expressions))
        self.assertGreater(len(named), 7)
        self.assertLessEqual(named, set(written))

    @unittest.skipUnless(shutil.which("promtool"), "no promtool")
    def test_promtool_accepts_and_tries_the_rules(self):
        for words in (["check", "rules", "pelorus.rules.yml"], ["test", "rules", "pelorus.test.yml"]):
            run = subprocess.run(["promtool", *words], cwd=FOLDER, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True, timeout=60)
            self.assertEqual(run.returncode, 0, run.stdout)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd-analyze")
    def test_units_are_well_formed(self):
        run = subprocess.run(["systemd-analyze", "verify", FOLDER / "pelorus-metrics.timer",
                              FOLDER / "pelorus-metrics.service"], stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, timeout=60)
        self.assertNotIn("pelorus-metrics", run.stdout)
