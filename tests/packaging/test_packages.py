"""The Debian packages, unpacked into a folder: what lies in them, and the service's command lines
with its user and folders, as the service manager would run them."""

import json
import os
from pathlib import Path
import re
import shlex
import subprocess
import tempfile
import unittest

from harness import BUILD, REPOSITORY
from harness.daemon import ERROR, NotifySocket, journal_stream
from harness.process import Process, free_port, wait_until

EXPOSURE = 15  # tenths


def run(*command, **options):
    """What the program said; fails unless it ends with status 0."""
    done = subprocess.run([str(word) for word in command], timeout=600, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
    return done.stdout


class Unit:
    """The unit file of the service, its paths turned into those below the folder `root`."""

    def __init__(self, file, root):
        self.text = file.read_text()
        self.root = Path(root)

    def values(self, key):
        return re.findall(rf"(?m)^{key}=(.*)$", self.text)

    def value(self, key):
        [value] = self.values(key)
        return value

    def moved(self, text):
        """Specifiers put in, and every path below the root."""
        text = text.replace("%t", "/run").replace("%S", "/var/lib")
        return re.sub(r"(?<![\w/.])/(?=(?:usr|etc|run|var)/)", f"{self.root}/", text)

    def environment(self):
        return dict(self.moved(line).split("=", 1) for line in self.values("Environment"))

    def commands(self, key):
        for line in self.values(key):
            for name, value in self.environment().items():
                line = line.replace(f"${{{name}}}", value)
            yield shlex.split(self.moved(line))


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        """Packages out of what has been built; lintian has its say at the end."""
        holder = tempfile.TemporaryDirectory(prefix="pelorus-packages-")
        cls.addClassCleanup(holder.cleanup)
        folder = Path(holder.name)
        folder.chmod(0o755)  # the service's account has to get in
        run(REPOSITORY / "scripts" / "build-packages", folder / "deb", BUILD,
            env={**os.environ, "DEB_BUILD_OPTIONS": "noautodbgsym"})
        cls.root = folder / "root"
        for package in (folder / "deb").glob("*.deb"):
            run("dpkg-deb", "-x", package, cls.root)
        [cls.unit_file] = cls.root.glob("**/systemd/system/pelorus.service")
        cls.unit = Unit(cls.unit_file, cls.root)

    def test_unit_is_well_formed_and_hardly_exposed(self):
        # As a user's units: for the system's it makes folders in /run, which takes root.
        def analyze(*arguments):
            return run("systemd-analyze", "--user", *arguments,
                       env={**os.environ, "XDG_RUNTIME_DIR": str(self.root)})
        analyze("security", "--offline=true", f"--threshold={EXPOSURE}", self.unit_file)
        # With programs where they can be found here; it names keys and values that it doesn't know.
        for name in ("pelorus.service", "pelorus.path"):
            unit = Unit(self.unit_file.with_name(name), self.root)
            (self.root / name).write_text(unit.moved(unit.text))
        self.assertEqual(analyze("verify", "--man=no", self.root / "pelorus.service",
                                 self.root / "pelorus.path"), "")

    def test_completion_offers_what_the_program_has(self):
        script = self.root / "usr/share/bash-completion/completions/pelorusctl"
        for line, word, expected in [("pelorusctl st", "st", "stats"), ("pelorusctl --", "--", "--socket"),
                                     ("pelorusctl send --", "--", "--key-file")]:
            words = shlex.join([*line.split()[:-1], word])
            offered = run("bash", "-c", f". '{script}'; COMP_WORDS=({words}); "
                          "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _pelorusctl "
                          f"'{self.root}/usr/bin/pelorusctl'; echo \"${{COMPREPLY[@]}}\"").split()
            self.assertIn(expected, offered, line)
            self.assertTrue(all(each.startswith(word) for each in offered), offered)

    def test_service_starts_as_its_account_in_its_folders(self):
        """The unit's command lines, with settings by hand."""
        unit, switches = self.unit, os.geteuid() == 0
        run("systemd-sysusers", f"--root={self.root}", "pelorus.conf")
        [account] = [line.split(":") for line in (self.root / "etc/passwd").read_text().splitlines()
                     if line.startswith(unit.value("User") + ":")]
        uid, gid = map(int, account[2:4]) if switches else (os.geteuid(), os.getegid())
        folders = [self.root / "run" / unit.value("RuntimeDirectory"),
                   self.root / "var/lib" / unit.value("StateDirectory")]
        for folder, mode in zip(folders, ("RuntimeDirectoryMode", "StateDirectoryMode")):
            folder.mkdir(parents=True)
            folder.chmod(int(unit.value(mode), 8))
            os.chown(folder, uid, gid)
        local_socket = folders[0] / "collectd.sock"
        example = json.loads((REPOSITORY / "packaging" / "settings.example.json").read_text())
        by_hand = self.root / "etc/pelorus/settings.json"
        by_hand.write_text(json.dumps({**example, "PELORUS_PORT": free_port(),
                                       "INFLUX_UNIX_SOCKET": str(local_socket)}))
        notify, log = NotifySocket(self.root / "notify"), self.root / "pelorus.log"
        self.addCleanup(notify.close)
        os.chown(notify.name, uid, gid)
        log.touch()
        account = ["setpriv", "--reuid", uid, "--regid", gid, "--clear-groups", "--no-new-privs",
                   "--inh-caps=-all", "--bounding-set=-all", "--"] if switches else []
        options = {"cwd": unit.moved(unit.value("WorkingDirectory")), "umask": int(unit.value("UMask"), 8),
                   "env": {"PATH": os.environ["PATH"], "NOTIFY_SOCKET": notify.name,
                           "JOURNAL_STREAM": journal_stream(log), **unit.environment()}}
        for command in unit.commands("ExecStartPre"):
            run(*account, *command, **options)
        [command] = unit.commands("ExecStart")
        daemon = Process([*account, *command], log, **options)
        self.addCleanup(daemon.stop)
        wait_until(lambda: daemon.expect_running() and notify.receive() == b"READY=1", "readiness")
        if switches:
            self.assertIn(f"Uid:\t{uid}\t{uid}", Path(f"/proc/{daemon.pid}/status").read_text())
        run(self.root / "usr/bin/pelorusctl", "--socket", local_socket, "status")
        about = local_socket.stat()
        self.assertEqual((about.st_mode & 0o777, about.st_uid), (0o700, uid))
        self.assertNotIn(f"<{ERROR}>", daemon.text())
