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


def descriptors(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd")) if os.geteuid() == 0 else -1


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
MOODS = [WELL, (answering(status(500)), 3), WELL, (ending, 3), WELL, (slow, 8), WELL, (hanging, 25),
         WELL, (answering(b"rubbish\r\n\r\n"), 3)]


def change_moods(influx):
    for influx.conduct, seconds in itertools.cycle(MOODS):
        time.sleep(seconds)


def in_buffers(daemon):
    return sum(account(daemon.socket, database)[amount] for database in ("tidewell", "bonding")
               for amount in ("queued", "in_flight"))


def soak(folder, minutes):
    """Rows of what was looked at: name, what is wanted, what was seen, and whether that is good."""
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
    bystander.look()
    begin, open_before = time.monotonic(), descriptors(daemon)
    crowd = Process(["/usr/bin/python3", "-m", "tests.end_to_end.crowd", *daemon.node_address, daemon.socket,
                     ",".join(KEYS)], folder / "crowd.log", cwd=harness.REPOSITORY)
    rows = []  # seconds, MiB, descriptors, worst delay in ms
    while time.monotonic() - begin < minutes * 60:
        time.sleep(PERIOD)
        daemon.expect_running()
        crowd.expect_running()
        looked = bystander.look()
        rows.append((time.monotonic() - begin, daemon.memory("VmRSS"), descriptors(daemon),
                     max(looked["node"], looked["local"])))
        print("%6.0f s  RSS %6.1f MiB  %5d descriptors  worst delay %6.1f ms" % rows[-1], flush=True)
    crowd.stop()
    wait_until(lambda: in_buffers(daemon) < 50, "the queues to empty", 60, pause=0.5)
    wait_until(lambda: descriptors(daemon) <= open_before + KEPT_DESCRIPTORS,
               "the descriptors to be closed", 60, pause=0.5)
    peak, grown, worst = daemon.memory("VmHWM"), growth(rows), max(row[3] for row in rows)
    sums, open_after = account(daemon.socket, "bonding"), descriptors(daemon)
    bystander.close()
    code, text = daemon.stop(), daemon.text()
    shown = [secret for secret in (AUTH, WWW_KEY, QUIET_KEY, QUIET_KEY.replace("-", ""), *KEYS)
             if secret in text]
    web.close()
    influx.close()
    return [
        ("memory after the warm-up", f"grows by less than {MOST_GROWTH} MiB a minute",
         f"{grown:+.3f} MiB a minute, {rows[0][1]:.1f} at first, {rows[-1][1]:.1f} MiB at the end",
         grown < MOST_GROWTH or len(rows) < 12),
        ("peak memory", f"below {MOST_MEMORY} MiB", f"{peak:.0f} MiB", peak < MOST_MEMORY),
        ("descriptors", f"at most {KEPT_DESCRIPTORS} more at the end",
         f"{open_before} at the start, most {max(row[2] for row in rows)}, {open_after} at the end",
         open_after <= open_before + KEPT_DESCRIPTORS),
        ("worst delay of a quiet peer", f"below {WORST_DELAY} ms", f"{worst:.0f} ms", worst < WORST_DELAY),
        ("messages", "sent, failed, discarded or queued", sums, sums["sent"] > 0),
        ("what the peers did", "", crowd.text().splitlines()[-1:], True),
        ("secrets in the log", "none", shown or "none", not shown),
        ("exit status", "0", code, code == 0)]


def main():
    with tempfile.TemporaryDirectory(prefix="pelorus-soak-") as folder:
        report = soak(Path(folder), float(sys.argv[2]))
    for name, wanted, seen, good in report:
        print(f"| {name} | {wanted} | {'' if good else '**FAILED** '}{seen} |")
    return 0 if all(good for *_, good in report) else 1


if __name__ == "__main__":
    sys.exit(main())
