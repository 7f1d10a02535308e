#!/usr/bin/python3
"""scale_figures.py: the figures that doc/scale.md reckons with. What one flush of a node is and costs,
what the verification of a key costs, and what VictoriaMetrics and influxd take of a processor for the
records. Runs on the build in build/bench; PELORUS_CORPUS names the lines."""

from pathlib import Path
import sys
import tempfile
import time

sys.dont_write_bytecode = True

from setting import Setting  # noqa: E402  first: it finds the harness and says which build

from demo.scale.servers import VictoriaMetrics  # noqa: E402
from harness.process import wait_until  # noqa: E402
from harness.real_servers import Influxd  # noqa: E402
from harness.skein_client import SkeinClient, frame  # noqa: E402

KEYS = 2000
BLOCK_LINES, BLOCKS_A_WRITE = 1000, 5
STORED_LINES = 500_000


def flushes(corpus):
    """The lines of one source after the other, as each sends them in one interval."""
    block, source = [], None
    with open(corpus) as file:
        for line in file:
            name = line.partition(".")[0]
            if name != source and block:
                yield block
                block = []
            source = name
            block.append(line)


def node_figures(setting):
    """One flush of a node."""
    nodes = [block for block in flushes(setting.corpus) if not block[0].startswith("mgmt")][:200]
    lines = sum(map(len, nodes)) / len(nodes)
    wire = sum(len(frame([0, 1, "collectd", {"key": "k" * 32, "metrics": "".join(block)}]))
               for block in nodes) / len(nodes)
    print(f"a node's flush: {lines:.0f} lines, {wire:.0f} bytes on the wire, "
          f"{wire / lines:.1f} bytes a line")
    per_frame = round(lines)
    daemon = setting.daemon("flush", PELORUS_IDEAL_QUEUED_MESSAGES=50)
    count = 5000
    answer = setting.load(run="alternate", pairs=7, sides=[setting.side(
        daemon, connections=1000, lines=count * per_frame, per_frame=per_frame, in_flight=16)])
    used = sorted(pair[0] for pair in answer["cpu"])[3] / count
    records = 8 * count * per_frame  # of all turns, the first one included
    print(f"daemon, 1000 connections that send such flushes: {used * 1e6:.0f} µs a flush, "
          f"{1 / used:,.0f} flushes or {per_frame / used:,.0f} lines a second of one core; "
          f"{answer['bytes'] / records:.0f} bytes a record to the store")
    setting.stop(daemon)


def verification_figures(setting):
    """Keys that are seen for the first time, over one connection each."""
    daemon = setting.daemon("keys")
    keys = [f"{number:032x}" for number in range(KEYS)]
    setting.confirm(keys)
    begin, before = time.monotonic(), daemon.processor_seconds()
    nodes = [SkeinClient(daemon.node_address, 60) for _ in keys[:500]]
    for first in range(0, KEYS, len(nodes)):
        for node, key in zip(nodes, keys[first:]):
            node.send([0, 1, "collectd", {"key": key, "metrics": ""}])
        for node in nodes:
            node.receive()
    used, taken = daemon.processor_seconds() - before, time.monotonic() - begin
    print(f"verification of a key: {used / KEYS * 1e3:.2f} ms of the daemon's CPU; "
          f"{KEYS / taken:.0f} keys a second with this stand-in")
    for node in nodes:
        node.close()
    setting.stop(daemon)


def with_point(line):
    """The line with a decimal point in its value: influxd refuses a field that changes its type."""
    series, value, moment = line.split(" ")
    return line if "." in value else f"{series} {value}.0 {moment}"


def store_figures(setting, name, store, **settings):
    """Records through a daemon into a store, as fast as it takes them."""
    daemon = setting.daemon(f"to-{name}", PELORUS_IDEAL_QUEUED_MESSAGES=BLOCKS_A_WRITE,
                            PELORUS_MAX_BATCH_SIZE=BLOCKS_A_WRITE, **settings)
    with open(setting.corpus) as file:
        lines = [with_point(line) for line, _ in zip(file, range(STORED_LINES))]
    blocks = ["".join(lines[first:first + BLOCK_LINES])
              for first in range(0, len(lines), BLOCK_LINES)]
    frames = [frame([0, 1, "collectd", {"key": setting.key, "metrics": block}])
              for block in blocks]

    def idle():
        buffer = local.call("stats")["bonding"]
        assert buffer["failure_count"] == 0, buffer
        return not buffer["has_current_request"] and buffer["pending_data_len"] < BLOCKS_A_WRITE

    with SkeinClient(daemon.socket) as local, SkeinClient(daemon.node_address) as node:
        begin, before, ours = time.monotonic(), store.processor_seconds(), daemon.processor_seconds()
        for first in range(0, len(frames), BLOCKS_A_WRITE):
            for each in frames[first:first + BLOCKS_A_WRITE]:
                node.send_bytes(each)
            for _ in frames[first:first + BLOCKS_A_WRITE]:
                node.receive()
            wait_until(idle, "the store to take a write", 60, pause=0.001)
        taken = time.monotonic() - begin
    time.sleep(5)  # it goes on with what it has been given
    per_million = 1e6 / len(lines)
    print(f"{name}: {(store.processor_seconds() - before) * per_million:.1f} s of CPU a million "
          f"records, {len(lines) / taken:,.0f} records a second over one connection; the "
          f"daemon {(daemon.processor_seconds() - ours) * per_million:.2f} s")
    setting.stop(daemon)


def main():
    with tempfile.TemporaryDirectory(prefix="pelorus-bench-") as folder:
        setting = Setting(folder)
        try:
            node_figures(setting)
            verification_figures(setting)
            store = VictoriaMetrics(Path(folder) / "victoria")
            store_figures(setting, "VictoriaMetrics", store,
                          INFLUX_HTTP_CONNECTION=f"127.0.0.1:{store.port}")
            store.stop()
            store = Influxd(Path(folder) / "influxd")
            auth = store.prepare(["tidewell", "bonding"])
            store_figures(setting, "influxd", store, INFLUX_AUTH=auth,
                          INFLUX_HTTP_CONNECTION=store.address)
            store.stop()
        finally:
            setting.close()


if __name__ == "__main__":
    main()
