"""Programs that run beside this one: ports for them, waits that end, and their own end."""

import contextlib
from pathlib import Path
import random
import re
import signal
import socket
import subprocess
import threading
import time


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


def listens(port):
    try:
        socket.create_connection(("127.0.0.1", port)).close()
        return True
    except OSError:
        return False


def wait_until(condition, what, seconds=15, pause=0.01):
    """The first true value of `condition()`, looked at every `pause` for at most `seconds`."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s in vain: {what}")
        time.sleep(pause)
    return value


def in_thread(function, *arguments):
    thread = threading.Thread(target=function, args=arguments, daemon=True)
    thread.start()
    return thread


class Repeated:
    """Does `act` over and over in a thread of its own, with a pause in between, until it is stopped. A
    connection that breaks ends a round, which is not counted then."""

    def __init__(self, act, pause=0.0):
        self.rounds = 0
        self._act, self._pause, self._end = act, pause, threading.Event()
        self._thread = in_thread(self._run)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self._end.set()
        self._thread.join(30)

    def _run(self):
        while not self._end.wait(self._pause):
            with contextlib.suppress(OSError):
                self._act()
                self.rounds += 1


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

    def memory(self, what):
        """MiB: "VmRSS" now, "VmHWM" the most that it ever was."""
        status = Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(rf"{what}:\s+(\d+) kB", status)[1]) / 1024

    def processor_seconds(self):
        """User and system time of all its threads, to the nanosecond."""
        return time.clock_gettime((~self.pid << 3) | 2)  # clock_getcpuclockid() of Linux

    def text(self):
        return self.output.read_text(errors="backslashreplace")


def end_with_cleanup(seconds):
    """Turns SIGTERM, and the passing of `seconds`, into an ordinary end of the interpreter, so that
    everything that was started is stopped and removed."""
    def leave(number, _):
        raise SystemExit(128 + number)

    signal.signal(signal.SIGTERM, leave)
    signal.signal(signal.SIGALRM, leave)
    signal.alarm(seconds)
