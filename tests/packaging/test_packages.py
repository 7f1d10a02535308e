"""The Debian packages, unpacked into a folder: what lies in them, and the service's command lines
with its user, limits and folders, as the service manager would run them."""

import json
import os
from pathlib import Path
import re
import resource
import shlex
import shutil
import subprocess
import tempfile
import unittest

from harness import BUILD, REPOSITORY
from harness.daemon import ERROR, NotifySocket, journal_stream
from harness.process import Process, free_port, wait_until
from harness.real_servers import Collectd
from harness.http_server import HTTPServer

APPLICATION = Path(__file__).parent / "application"
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

    def test_service_runs_and_the_plugin_delivers(self):
        service = Service(self.unit)
        self.addCleanup(service.end)
        influx = HTTPServer()
        self.addCleanup(influx.close)
        service.install_application(influx.address)
        for command in self.unit.commands("ExecStartPre"):
            service.run(command)
        [command] = self.unit.commands("ExecStart")
        daemon = service.start(command)
        self.addCleanup(daemon.stop)
        wait_until(lambda: daemon.expect_running() and
                   service.notify.receive() == b"READY=1", "readiness")
        self.check_process(daemon.pid, service)

        collectd = Collectd(self.root / "collectd", self.root / "usr/lib/collectd/write_skein.so",
                            service.socket)
        self.addCleanup(collectd.stop)
        wait_until(lambda: collectd.expect_running() and
                   any(b"\nload " in b"\n" + body for body in influx.written()), "collectd's values", 30)
        status = json.loads(run(self.root / "usr/bin/pelorusctl", "--socket", service.socket,
                                "status", "--json"))
        self.assertIn("tidewell", json.dumps(status))
        self.assertFalse([line for line in daemon.text().splitlines()
                          if line.startswith(f"<{ERROR}>")], daemon.text())

    def check_process(self, number, service):
        """The daemon runs as what the unit says, and its socket is for its account alone."""
        if os.geteuid() == 0:
            status = Path(f"/proc/{number}/status").read_text()
            self.assertIn(f"Uid:\t{service.uid}\t{service.uid}", status)
        limits = Path(f"/proc/{number}/limits").read_text()
        self.assertRegex(limits, r"Max core file size +0 +0 ")
        self.assertEqual(service.socket.stat().st_mode & 0o777, 0o700)
        self.assertEqual(service.socket.stat().st_uid, service.uid)
        self.assertEqual(service.settings.stat().st_mode & 0o777, 0o600)


class Service:
    """What the service manager does around the unit's command lines."""

    def __init__(self, unit):
        self.unit = unit
        run("systemd-sysusers", f"--root={unit.root}", "pelorus.conf")
        account = next(line.split(":") for line in
                       (unit.root / "etc/passwd").read_text().splitlines()
                       if line.startswith(unit.value("User") + ":"))
        self.switches = os.geteuid() == 0
        self.uid, self.gid = (map(int, account[2:4]) if self.switches else
                              (os.geteuid(), os.getegid()))
        self.runtime = self._folder("run", unit.value("RuntimeDirectory"),
                                    unit.value("RuntimeDirectoryMode"))
        self.state = self._folder("var/lib", unit.value("StateDirectory"),
                                  unit.value("StateDirectoryMode"))
        self.settings = Path(unit.environment()["PELORUS_SETTINGS"])
        self.socket = self.runtime / "collectd.sock"
        self.notify = NotifySocket(unit.root / "notify")
        os.chown(unit.root / "notify", self.uid, self.gid)

    def _folder(self, parent, name, mode):
        folder = self.unit.root / parent / name
        folder.mkdir(parents=True)
        folder.chmod(int(mode, 8))
        os.chown(folder, self.uid, self.gid)
        return folder

    def install_application(self, influx_address):
        """The application, where the export looks for it, with this run's ports and paths."""
        place = self.unit.root / "usr/lib/tidewell"
        shutil.copytree(APPLICATION, place)
        settings = place / "tidewell" / "settings.py"
        settings.write_text(settings.read_text() + f"\nPELORUS_PORT = {free_port()}\n"
                            f"INFLUX_UNIX_SOCKET = {str(self.socket)!r}\nPELORUS_BUFFER_TIME = 0.5\n"
                            "PELORUS_SERVER = '127.0.0.1'\n")
        module = place / "tidewell" / "influx.py"
        module.write_text(f"{module.read_text()}INFLUX_HTTP_CONNECTION = {influx_address!r}\n")
        self.activation = self.unit.root / "var/lib/tidewell/environment/bin/activate_this.py"
        self.activation.parent.mkdir(parents=True)
        self.activation.write_text("import sys, types\n"
                                   "made = types.ModuleType('environment_of_the_application')\n"
                                   "made.WWW_KEY = 'key of the web server'\n"
                                   "sys.modules[made.__name__] = made\n")

    def _surroundings(self, command):
        """The command as the service's account, within its limits; and its environment."""
        if command[0].endswith("pelorus-export-settings"):
            command = [*command, "--application", self.unit.root / "usr/lib/tidewell",
                       "--activation", self.activation]
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        files = int(self.unit.value("LimitNOFILE"))
        if hard != resource.RLIM_INFINITY:
            files = min(files, hard)
        prefix = ["prlimit", f"--nofile={files}", f"--core={self.unit.value('LimitCORE')}", "--"]
        if self.switches:
            prefix += ["setpriv", "--reuid", self.uid, "--regid", self.gid, "--clear-groups",
                       "--no-new-privs", "--inh-caps=-all", "--bounding-set=-all",
                       "--pdeathsig", "KILL", "--"]
        log = self.unit.root / "pelorus.log"
        log.touch()
        environment = {"PATH": os.environ["PATH"], "NOTIFY_SOCKET": self.notify.name,
                       "JOURNAL_STREAM": journal_stream(log), "PYTHONDONTWRITEBYTECODE": "1",
                       **self.unit.environment()}
        folder = self.unit.moved(self.unit.value("WorkingDirectory"))
        return [*prefix, *command], {"cwd": folder, "env": environment}

    def run(self, command):
        command, options = self._surroundings(command)
        return run(*command, umask=int(self.unit.value("UMask"), 8), **options)

    def start(self, command):
        command, options = self._surroundings(command)
        return Process(command, self.unit.root / "pelorus.log",
                       umask=int(self.unit.value("UMask"), 8), **options)

    def end(self):
        self.notify.close()
