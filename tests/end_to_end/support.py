"""What the end-to-end suites and the demonstration stand on: ports, bounded waiting, processes and
the daemon itself."""

import json
import os
from pathlib import Path
import random
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

REPOSITORY = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("PELORUS_BUILD", REPOSITORY / "build" / "dev"))
PLUGIN = BUILD / "lib" / "collectd" / "write_skein.so"

AUTH = "ZGVtbzpub3QtdG8tYmUtbG9nZ2Vk"
WWW_KEY = "www-key-that-must-not-be-logged"
ERROR, WARNING, INFO = 3, 4, 6  # priorities of the journal


def free_port():
    """A TCP port that is free now. Outside the range from which the system serves port 0, so that
    nobody is given it by chance before it is bound."""
    while True:
        port = random.randrange(15000, 32000)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue


def wait_until(condition, what, seconds=15, pause=0.01):
    """The first true value of `condition()`, looked at every `pause` for at most `seconds`."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s in vain: {what}")
        time.sleep(pause)
    return value


class Process:
    """A running program; its output goes to a file. It is killed when this interpreter ends,
    however that happens, and a Ctrl-C at the terminal does not reach it."""

    def __init__(self, command, output, **options):
        self.output = Path(output)
        with self.output.open("ab") as stream:
            self._child = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", *map(str, command)],
                stdin=subprocess.DEVNULL, stdout=stream, stderr=subprocess.STDOUT,
                start_new_session=True, **options)

    @property
    def pid(self):
        return self._child.pid

    def running(self):
        return self._child.poll() is None

    def expect_running(self):
        """True; fails with what the program has said when it has ended."""
        if not self.running():
            raise AssertionError(f"{self.output.stem} ended early:\n{self.text()}")
        return True

    def send_signal(self, number):
        self._child.send_signal(number)

    def wait(self, seconds=15):
        """Exit status; fails when the process is still there after `seconds`."""
        return self._child.wait(seconds)

    def stop(self, seconds=15):
        """Exit status after SIGTERM. A process that does not heed it is killed, and that fails."""
        if self.running():
            self._child.terminate()
        try:
            return self._child.wait(seconds)
        except subprocess.TimeoutExpired:
            self._child.kill()
            self._child.wait()
            raise

    def text(self):
        return self.output.read_text(errors="backslashreplace")


class NotifySocket:
    """Stands in for the service manager: receives what a service says about its state."""

    def __init__(self, name):
        """`name`: a path, or "@" and an abstract name."""
        self.name = str(name)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setblocking(False)
        self._socket.bind(self.name.replace("@", "\0", 1) if self.name[0] == "@" else self.name)

    def receive(self):
        """The next datagram; None when there is none."""
        try:
            return self._socket.recv(4096)
        except BlockingIOError:
            return None

    def close(self):
        self._socket.close()


class Pelorus(Process):
    """The daemon with settings of its own. Unless told otherwise its log lines carry the journal's
    priorities and every message is written at once."""

    def __init__(self, folder, settings=None, arguments=(), environment=None, wrapper=(),
                 **options):
        """`settings` and `environment` are put over the usual ones; None removes an entry.
        `wrapper`: a command that changes its own surroundings and then becomes the daemon.
        `options` are those of subprocess.Popen."""
        self.folder = Path(folder)
        self.socket = self.folder / "local.socket"
        settings_file = self.folder / "settings.json"
        settings = _overlay(self._settings(), settings)
        settings_file.write_text(json.dumps(settings))
        self.node_address = (settings.get("PELORUS_SERVER"), settings.get("PELORUS_PORT"))
        self.notify = NotifySocket(self.folder / "notify")
        surroundings = {"PELORUS_SETTINGS": str(settings_file), "JOURNAL_STREAM": "1:1",
                        "NOTIFY_SOCKET": self.notify.name, "PELORUS_LOG_LEVEL": None}
        super().__init__([*wrapper, BUILD / "bin" / "pelorus", *arguments],
                         self.folder / "pelorus.log", cwd=self.folder,
                         env=_overlay({**os.environ, **surroundings}, environment), **options)

    def _settings(self):
        return {
            "PELORUS_MAX_PENDING_MESSAGES": 1000, "PELORUS_BUFFER_TIME": 0,
            "PELORUS_IDEAL_QUEUED_MESSAGES": 1, "PELORUS_MAX_BATCH_SIZE": 100,
            "PELORUS_DISCARD_SIZE": 10,
            "INFLUX_DATABASES": [{"name": "tidewell"}, {"name": "bonding"}],
            "INFLUX_UNIX_SOCKET": str(self.socket),
            "PELORUS_SERVER": "127.0.0.1", "PELORUS_PORT": free_port(),
            "LOCAL_WWW_KEY": WWW_KEY,
            "INFLUX_AUTH": AUTH, "INFLUX_HTTP_CONNECTION": f"127.0.0.1:{free_port()}"}

    def wait_ready(self):
        state = wait_until(lambda: self.expect_running() and self.notify.receive(),
                           "readiness of the daemon", 30)
        if state != b"READY=1":
            raise AssertionError(f"unexpected notice {state!r}")

    def lines(self, priority=None):
        """The log's (priority, text) pairs so far, or the texts of one priority."""
        pairs = [(int(line[1]), line[3:]) if line[:1] == "<" else (None, line)
                 for line in self.text().splitlines()]
        return pairs if priority is None else [text for level, text in pairs if level == priority]

    def wait_log(self, text, seconds=15):
        """Waits until a log line is `text`."""
        wait_until(lambda: text in (line for _, line in self.lines()), f"log line {text!r}",
                   seconds)

    def stop(self, seconds=15):
        try:
            return super().stop(seconds)
        finally:
            self.notify.close()


def _overlay(base, changes):
    merged = {**base, **(changes or {})}
    return {key: value for key, value in merged.items() if value is not None}


class FolderTest(unittest.TestCase):
    """A case with a temporary folder and with processes that end with the case. The daemons' logs
    are shown when it fails."""

    def run(self, result=None):
        self._logs = []
        before = len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > before:
            for log in self._logs:
                print(f"--- end of a daemon's log\n{log[-4000:]}---", file=sys.stderr, flush=True)
        return result

    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="pelorus-")
        self.addCleanup(holder.cleanup)
        self.folder = Path(holder.name)

    def start_pelorus(self, *arguments, ready=True, **options):
        """A daemon in a folder of its own, by default after it has reported to be ready."""
        daemon = Pelorus(tempfile.mkdtemp(dir=self.folder), *arguments, **options)
        self.addCleanup(self._end_pelorus, daemon, ready)
        if ready:
            daemon.wait_ready()
        return daemon

    def _end_pelorus(self, daemon, ready):
        status = daemon.stop()
        self._logs.append(daemon.text())
        if ready:
            self.assertEqual(status, 0, "exit status of the daemon")


def end_with_cleanup(seconds):
    """Turns SIGTERM, and the passing of `seconds`, into an ordinary end of the interpreter, so that
    everything that was started is stopped and removed."""
    def leave(number, _):
        raise SystemExit(128 + number)

    signal.signal(signal.SIGTERM, leave)
    signal.signal(signal.SIGALRM, leave)
    signal.alarm(seconds)
