#!/usr/bin/python3
"""soak.py BUILD MINUTES: good and bad peers together, an InfluxDB that fails now and then, and a
quiet node and a quiet local peer that watch. Every 10 seconds a line; at the end a table, and
status 1 if the daemon grew, kept a descriptor or kept a quiet peer waiting."""

import itertools
import os
from pathlib import Path
import socket
import sys
import tempfile
import time

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))
import harness  # noqa: E402

harness.use_build(sys.argv[1])

from harness.daemon import AUTH, WWW_KEY, Pelorus  # noqa: E402
from harness.http_server import (NO_CONTENT, HTTPServer, WebServer, answering, ending,  # noqa: E402
                                 hanging, status)
from harness.ledger import account  # noqa: E402
from harness.process import Process, in_thread, wait_until  # noqa: E402
from tests.end_to_end.bystander import Bystander  # noqa: E402

PERIOD = 10         # seconds between two lines
WORST_DELAY = 250   # milliseconds
MOST_GROWTH = 0.25  # MiB a minute after the warm-up, of which an hour would make 15
MOST_MEMORY = 400   # MiB
KEPT_DESCRIPTORS = 12  # most that the daemon keeps open for later: to the web server, and for a write
KEYS = [f"key-{number:04}" for number in range(200)]
QUIET_KEY = "quiet-0000-1111"


class Sampler:
    """What the daemon takes, as the kernel tells it."""

    def __init__(self, daemon, bystander):
        self._daemon, self._bystander = daemon, bystander
        self._processor, self._moment = daemon.processor_seconds(), time.monotonic()
        self.rows = []  # seconds, MiB, descriptors, share of a processor, worst delay in ms

    def sample(self, begin):
        processor, now = self._daemon.processor_seconds(), time.monotonic()
        share = (processor - self._processor) / (now - self._moment)
        self._processor, self._moment = processor, now
        looked = self._bystander.look()
        row = (now - begin, self._daemon.memory("VmRSS"), self.descriptors(), share,
               max(looked["node"], looked["local"]))
        self.rows.append(row)
        print("%6.0f s  RSS %6.1f MiB  %5d descriptors  %3.0f %% of a processor  "
              "worst delay %6.1f ms" % (row[0], row[1], row[2], row[3] * 100, row[4]), flush=True)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self._daemon.pid}/fd")) if os.geteuid() == 0 else -1


def growth(rows):
    """MiB a minute, behind the warm-up, which is the first third: between the smallest sizes of the two others. A
    bomb that is just being served is no growth."""
    third = len(rows) // 3
    smallest = [min(row[1] for row in rows[at:at + third + 1]) for at in (third, 2 * third)]
    return (smallest[1] - smallest[0]) / (third + 1) / PERIOD * 60


def slow(client):
    client.stream.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
    time.sleep(1)
    answering(NO_CONTENT)(client)


# What InfluxDB does, and for how many seconds.
WELL = (answering(NO_CONTENT), 20)
MOODS = [WELL, (answering(status(500)), 3), WELL, (ending(), 3), WELL, (slow, 8), WELL, (hanging, 25),
         WELL, (answering(b"rubbish\r\n\r\n"), 3)]


def change_moods(influx):
    for influx.conduct, seconds in itertools.cycle(MOODS):
        time.sleep(seconds)


def in_buffers(daemon):
    return sum(account(daemon.socket, database)[amount] for database in ("tidewell", "bonding")
               for amount in ("queued", "in_flight"))


class Report:
    """The rows of the table at the end."""

    def __init__(self):
        self.failed = 0

    def add(self, name, wanted, seen, ok=True):
        self.failed += not ok
        print(f"| {name} | {wanted} | {'' if ok else '**FAILED** '}{seen} |", flush=True)


def soak(folder, minutes, report):
    influx = HTTPServer(keeps=False)
    in_thread(change_moods, influx)
    web = WebServer([QUIET_KEY, *KEYS], seconds=0.005)
    (folder / "daemon").mkdir()
    daemon = Pelorus(folder / "daemon", {
        "PELORUS_BUFFER_TIME": 1, "PELORUS_IDEAL_QUEUED_MESSAGES": 200,
        "PELORUS_MAX_BATCH_SIZE": 500, "PELORUS_MAX_PENDING_MESSAGES": 2000,
        "PELORUS_DISCARD_SIZE": 200, "INFLUX_HTTP_CONNECTION": influx.address})
    daemon.wait_ready()
    bystander = Bystander(daemon, QUIET_KEY)
    sampler = Sampler(daemon, bystander)
    begin = time.monotonic()
    bystander.look()
    descriptors = sampler.descriptors()
    crowd = Process(["/usr/bin/python3", "-m", "tests.end_to_end.crowd", *daemon.node_address, daemon.socket,
                     ",".join(KEYS)], folder / "crowd.log", cwd=harness.REPOSITORY)
    while time.monotonic() - begin < minutes * 60:
        time.sleep(PERIOD)
        daemon.expect_running()
        crowd.expect_running()
        sampler.sample(begin)
    crowd.stop()
    wait_until(lambda: in_buffers(daemon) < 50, "the queues to empty", 60, pause=0.5)
    wait_until(lambda: sampler.descriptors() <= descriptors + KEPT_DESCRIPTORS,
               "the descriptors to be closed", 60, pause=0.5)
    judge(report, daemon, sampler, descriptors, crowd)
    bystander.close()
    code = daemon.stop()
    text = daemon.text()
    shown = [name for name, secret in (("INFLUX_AUTH", AUTH), ("LOCAL_WWW_KEY", WWW_KEY),
                                       ("a key", QUIET_KEY), ("a key", QUIET_KEY.replace("-", "")),
                                       *(("a key", key) for key in KEYS)) if secret in text]
    report.add("secrets in the log", "none", shown or "none", not shown)
    report.add("exit status", "0", code, code == 0)
    web.close()
    influx.close()


def judge(report, daemon, sampler, descriptors, crowd):
    rows, peak = sampler.rows, daemon.memory("VmHWM")
    grown, worst = growth(rows), max(row[4] for row in rows)
    report.add("memory after the warm-up", f"grows by less than {MOST_GROWTH} MiB a minute",
               f"{grown:+.3f} MiB a minute, {rows[0][1]:.1f} at first, {rows[-1][1]:.1f} MiB at "
               "the end", grown < MOST_GROWTH or len(rows) < 12)
    report.add("peak memory", f"below {MOST_MEMORY} MiB", f"{peak:.0f} MiB",
               peak < MOST_MEMORY)
    report.add("descriptors", f"at most {KEPT_DESCRIPTORS} more at the end",
               f"{descriptors} at the start, most {max(row[2] for row in rows)}, "
               f"{sampler.descriptors()} at the end", sampler.descriptors() <= descriptors + KEPT_DESCRIPTORS)
    report.add("worst delay of a quiet peer", f"below {WORST_DELAY} ms", f"{worst:.0f} ms",
               worst < WORST_DELAY)
    report.add("processor", "", f"{sum(row[3] for row in rows) / len(rows) * 100:.0f} % of one")
    sums = account(daemon.socket, "bonding")
    report.add("messages", "sent, failed, discarded or queued", sums, sums["sent"] > 0)
    report.add("what the bad peers did", "", crowd.text().splitlines()[-1:])


def main():
    report = Report()
    with tempfile.TemporaryDirectory(prefix="pelorus-soak-") as folder:
        soak(Path(folder), float(sys.argv[2]), report)
    return 1 if report.failed else 0


if __name__ == "__main__":
    sys.exit(main())
