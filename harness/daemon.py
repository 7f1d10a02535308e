"""The daemon itself, with settings of its own and with what the service manager gives it."""

import json
import os
from pathlib import Path
import socket

from harness import BUILD
from harness.http_server import WWW_KEY
from harness.process import Process, free_port, wait_until

PLUGIN = BUILD / "lib" / "collectd" / "write_skein.so"

AUTH = "ZGVtbzpub3QtdG8tYmUtbG9nZ2Vk"
ERROR, WARNING, INFO = 3, 4, 6  # priorities of the journal


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


def journal_stream(file):
    """How the service manager names an open file or a path as the journal's stream."""
    about = os.stat(file)
    return f"{about.st_dev}:{about.st_ino}"


class Pelorus(Process):
    """The daemon with settings of its own. Unless told otherwise its log lines carry the journal's
    priorities and every message is written at once."""

    def __init__(self, folder, settings=None, arguments=(), environment=None, wrapper=(),
                 program=None, **options):
        """`settings` and `environment` are put over the usual ones; None removes an entry.
        `wrapper`: a command that changes its own surroundings and then becomes the daemon.
        `program`: an installed daemon, instead of the build's.
        `options` are those of subprocess.Popen."""
        self.folder = Path(folder)
        self.socket = self.folder / "local.socket"
        settings_file = self.folder / "settings.json"
        settings = _overlay(self._settings(), settings)
        settings_file.write_text(json.dumps(settings))
        self.node_address = (settings.get("PELORUS_SERVER"), settings.get("PELORUS_PORT"))
        self.notify = NotifySocket(self.folder / "notify")
        log = self.folder / "pelorus.log"
        log.touch()
        surroundings = {"PELORUS_SETTINGS": str(settings_file),
                        "JOURNAL_STREAM": journal_stream(log),
                        "NOTIFY_SOCKET": self.notify.name, "PELORUS_LOG_LEVEL": None}
        super().__init__([*wrapper, program or BUILD / "bin" / "pelorus", *arguments],
                         log, cwd=self.folder,
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

    def stop(self, seconds=15):
        try:
            return super().stop(seconds)
        finally:
            self.notify.close()


def _overlay(base, changes):
    merged = {**base, **(changes or {})}
    return {key: value for key, value in merged.items() if value is not None}
