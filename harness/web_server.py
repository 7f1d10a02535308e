"""The administration web server's stand-in, where the build under test looks for it."""

import json
from pathlib import Path
import re
import socket

from harness import BUILD
from harness.daemon import WWW_KEY
from harness.process import Process, wait_until

ORIGIN = re.search(r"^PELORUS_TIDEWELL_ORIGIN:\w+=https://127\.0\.0\.1:(\d+)$",
                   (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)
_held = []


def hold_origin():
    """Keeps every other process that uses the same build's web server waiting until this one ends:
    the port stands in the program, and there is only one of it on a machine."""
    def bind():
        try:
            lock.bind(f"\0pelorus-origin-{ORIGIN[1]}")  # an abstract name: no file is left behind
            return True
        except OSError:
            return False

    if ORIGIN is None:
        raise AssertionError(f"{BUILD} asks no port of this machine about keys; "
                             "configure it with PELORUS_TIDEWELL_ORIGIN=https://127.0.0.1:PORT")
    if _held:
        return
    lock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    wait_until(bind, f"port {ORIGIN[1]}, which another run uses", 100, pause=0.1)
    _held.append(lock)


class WebServer(Process):
    """Confirms `keys`; never answers about the keys of `hang`; takes `seconds` for each answer."""

    def __init__(self, folder, keys=(), hang=(), seconds=0):
        hold_origin()
        folder = Path(folder)
        folder.mkdir(exist_ok=True)
        self._file = folder / "keys.json"
        self.know(keys, hang, seconds)
        super().__init__(["/usr/bin/python3", Path(__file__).with_name("tidewell_stand_in.py"), ORIGIN[1],
                          self._file], folder / "web_server.log")
        wait_until(lambda: self.expect_running() and "listening" in self.text(),
                   "the web server to listen")

    def know(self, keys=(), hang=(), seconds=0):
        """From now on."""
        self._file.write_text(json.dumps({"token": WWW_KEY, "keys": list(keys),
                                          "hang": list(hang), "seconds": seconds}))

    def answers(self):
        """One line for each question that was answered."""
        return [line for line in self.text().splitlines() if line.startswith("key ending")]
