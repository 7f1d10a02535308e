"""Faults that mostly wait, each on a daemon of its own."""

from pathlib import Path
import re
import signal
import subprocess
import tempfile
import time

from harness.conduct import (NO_CONTENT, FullListener, answering, forgiving, linger, never_read,
                             read_head, read_request)
from harness.far_end_faults import failing
from harness.process import wait_until
from harness.stage import KEY, Fault, Stage
from harness.stub_influx import StubInflux
from heavy_faults import RECORD, STATS, expect_memory
from name_server import KNOWN, SILENT, UNKNOWN, NameServer


def reader_of_nothing(stage):
    client, sent = stage.local(), 0
    begin = time.monotonic()
    while time.monotonic() - begin < 80:
        try:
            sent += client.send_now(STATS * 1000)
        except OSError:
            taken = time.monotonic() - begin
            return f"closed after {taken:.0f} s and {sent / 1e6:.1f} MB; {expect_memory(stage)}"
        time.sleep(0.05)
    raise AssertionError(f"not closed within 80 s, {sent / 1e6:.1f} MB taken")


def half_frame(stage):
    idle = stage.node()
    stage.send_as(idle, KEY, "node7.load.load.midterm 1 1\n")
    begun = [stage.node(140), stage.local(140)]
    begin = time.monotonic()
    for client in begun:
        client.send_bytes(STATS[:-1])
    for client in begun:
        assert client.receive() is None
    taken = time.monotonic() - begin
    assert 100 < taken < 140, f"closed after {taken:.0f} s"
    stage.send_as(idle, KEY, "node7.load.load.midterm 1 1\n")
    return f"closed after {taken:.0f} s; the idle verified node stays"


def reports(stage):
    return sum(b"proxy_messages" in request.bytes for request in stage.influx.requests)


def report_gaps(stage, count):
    """Seconds between the daemon's reports about itself."""
    moments, seen = [], reports(stage)
    while len(moments) < count + 1:
        wait_until(lambda: reports(stage) > seen, "the next report", 25, pause=0.05)
        seen = reports(stage)
        moments.append(time.monotonic())
    return [later - earlier for earlier, later in zip(moments, moments[1:])]


def build_clock_shim(folder):
    library = Path(folder) / "clock_shim.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library,
                    Path(__file__).with_name("clock_shim.c")], check=True)
    return library


def clock_steps(seconds):
    def attempt(stage):
        stage.clock.write_text("0")
        report_gaps(stage, 1)
        stage.clock.write_text(str(seconds))
        before, begin = stage.daemon.processor_seconds(), time.monotonic()
        gaps = report_gaps(stage, 3)
        burnt = (stage.daemon.processor_seconds() - before) / (time.monotonic() - begin)
        assert all(9 < gap < 11 for gap in gaps), gaps
        assert burnt < 0.4, f"{burnt:.2f} of a processor"
        return f"reports {min(gaps):.1f} to {max(gaps):.1f} s apart, {burnt:.2f} of a processor"
    return attempt


def freeze(stage):
    before = reports(stage)
    stage.daemon.send_signal(signal.SIGSTOP)
    time.sleep(35)  # three reports and thirty looks at the buffers would have been due
    stage.daemon.send_signal(signal.SIGCONT)
    time.sleep(5)
    missed = reports(stage) - before
    assert missed <= 2, f"{missed} reports within 5 s"
    return f"{missed} report(s) within 5 s of going on"


def never_answers(stage):
    return failing(answering(b"", then=linger), "no progress for 20 seconds", 40)(stage)


def drips_without_end(stage):
    def drip(connected):
        stage.influx.conduct = None  # the next connection finds it well again
        read_request(connected)
        connected.sendall(b"HTTP/1.1 500 Any\r\n\r\n")
        while True:
            connected.sendall(b".")
            time.sleep(1)
    return failing(drip, "status 500, no end of the answer within 60 seconds", 80)(stage)


def never_reads(stage):
    before = len(stage.daemon.text())
    stage.influx.conduct = forgiving(never_read)
    with stage.node() as node:
        node.call("add", {"key": KEY, "database": "bonding", "data": RECORD * 300_000})
    return stage.wait_logged_again("no progress for 20 seconds while sending", before,
                                   60).split("failed: ")[1]


def syn_unanswered(stage):
    port, before = stage.influx.port, len(stage.daemon.text())
    stage.influx.close()
    full = FullListener(port)
    seen = stage.wait_logged_again("could not connect.*timed out", before, 20)
    full.close()
    stage.influx = StubInflux(port)
    return seen.split("failed: ")[1]


def slow_reader(stage):
    """20 MB at 64 KB in a second: slow, but it goes on, so it is no failure."""
    failures, taken = stage.log_count("InfluxDB write ("), []

    def crawl(connected):
        head, rest = read_head(connected)
        length = int(re.search(rb"Content-Length: (\d+)", head)[1])
        begin, count = time.monotonic(), len(rest)
        while count < length:
            count += len(more := connected.recv(65536 if length > 1e6 else length))
            if not more:
                return
            if length > 1e6:
                time.sleep(max(0.0, begin + count / 64_000 - time.monotonic()))
        connected.sendall(NO_CONTENT)
        if length > 1e6:
            taken.append((length, time.monotonic() - begin))

    stage.influx.conduct = crawl
    with stage.node() as node:
        for _ in range(2):
            node.call("add", {"key": KEY, "database": "bonding", "data": RECORD * 280_000})
    wait_until(lambda: sum(length for length, _ in taken) > 20e6, "20 MB", 450, pause=0.5)
    assert stage.log_count("InfluxDB write (") == failures
    return f"{sum(n for n, _ in taken) / 1e6:.1f} MB taken in {sum(t for _, t in taken):.0f} s"


def unresolved(mode, warning):
    def attempt(stage):
        before = len(stage.daemon.text())
        stage.names.mode = mode
        seen = stage.wait_logged_again(warning, before, 40)
        stage.names.mode = KNOWN
        return seen.split("failed: ")[1]
    return attempt


ENDED = "one warning, the batch is lost"
CLOCK = "reports stay ten seconds apart, no busy loop"
SLOW = [
    Fault("InfluxDB takes 20 MB at 64 KB/s", "written", slow_reader),
    Fault("a peer that never reads", "closed after 60 s without progress", reader_of_nothing),
    Fault("a half frame without progress", "closed after 120 s", half_frame),
    Fault("the clock steps forward by two hours", CLOCK, clock_steps(7200), {"clock": True}),
    Fault("the clock steps back by two hours", CLOCK, clock_steps(-7200), {"clock": True}),
    Fault("stopped for 35 s and continued", "no burst of missed timers", freeze, seconds=37),
    Fault("InfluxDB never answers", ENDED, never_answers),
    Fault("InfluxDB never reads", ENDED, never_reads),
    Fault("InfluxDB's answer drips without an end", ENDED, drips_without_end),
    Fault("InfluxDB leaves a SYN unanswered", "what waits is kept", syn_unanswered),
]

LOOKUPS = [
    Fault("InfluxDB's name does not resolve", "what waits is kept",
          unresolved(UNKNOWN, "could not connect to influxdb.example")),
    Fault("the resolver does not answer", "what waits is kept",
          unresolved(SILENT, "the name lookup takes too long")),
]


def on_own_stage(web, fault):
    """What was seen of one fault on a daemon that has seen no other."""
    with tempfile.TemporaryDirectory(prefix="pelorus-chaos-") as folder:
        options, settings = dict(fault.options), {}
        clock = Path(folder) / "clock"
        if options.pop("clock", False):
            options["environment"] = {"LD_PRELOAD": str(build_clock_shim(folder)),
                                      "CLOCK_SHIM_FILE": str(clock)}
            settings["PELORUS_IDEAL_QUEUED_MESSAGES"] = 20  # a clock set back stops writing by time
        stage = Stage(web, settings, **options)
        stage.clock = clock
        try:
            return stage.attempt(fault)
        finally:
            stage.close()


def on_named_stage(web, report):
    """The faults of name lookup, all on one daemon."""
    names = NameServer(KNOWN)
    stage = Stage(web, influx_host="influxdb.example")
    stage.names = names
    try:
        for fault in LOOKUPS:
            report.run(fault.name, fault.wanted, lambda fault=fault: stage.attempt(fault))
    finally:
        stage.close()
