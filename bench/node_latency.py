#!/usr/bin/python3
"""node_latency.py BUILD: what key verification costs those who are not being verified, and how long
a restart takes until every node is served again. Real daemon, stand-in web server, loopback."""

import asyncio
import os
from pathlib import Path
import statistics
import struct
import sys
import tempfile
import time

REPOSITORY = Path(__file__).resolve().parents[1]
os.environ["PELORUS_BUILD"] = os.path.abspath(sys.argv[1] if len(sys.argv) > 1
                                              else REPOSITORY / "build" / "dev")
sys.dont_write_bytecode = True
sys.path.insert(0, str(REPOSITORY / "tests" / "end_to_end"))

import msgpack  # noqa: E402
import snappy  # noqa: E402
from skein_client import REQUEST, frame  # noqa: E402
from support import Pelorus  # noqa: E402
from web_server import WebServer  # noqa: E402

REQUESTS = 1000
ROUNDS = 5
NODES = 1000
SECONDS = 0.02  # of the web server for each answer
AT_A_TIME = 8
LINES = "".join(f"node7.cpu-{i % 4}.cpu-user.value {i}.5 1700000000\n" for i in range(24))


async def ask(stream, key):
    reader, writer = stream
    writer.write(frame([REQUEST, 1, "collectd", {"key": key, "metrics": LINES}]))
    size = struct.unpack(">I", await reader.readexactly(4))[0]
    reply = msgpack.unpackb(snappy.uncompress(await reader.readexactly(size)))
    assert reply[2] is None, reply


async def keep_hanging(daemon):
    """One connection whose key is being verified all the time."""
    stream = await asyncio.open_connection(*daemon.node_address)
    while True:
        await ask(stream, "hanging")


async def round_trips(daemon, count):
    """Milliseconds of requests of a verified node."""
    stream = await asyncio.open_connection(*daemon.node_address)
    await ask(stream, "known")
    taken = []
    for _ in range(count):
        begin = time.perf_counter()
        await ask(stream, "known")
        taken.append((time.perf_counter() - begin) * 1000)
    stream[1].close()
    return taken


def percentile(values, share):
    return sorted(values)[int(len(values) * share) - 1]


async def measure_latency(daemon, web):
    web.know(keys=["known"], hang=["hanging"])
    quiet, hanging = [], []
    for _ in range(ROUNDS):  # alternately: both meet the same noise
        quiet += await round_trips(daemon, REQUESTS // ROUNDS)
        task = asyncio.create_task(keep_hanging(daemon))
        await asyncio.sleep(0.1)
        hanging += await round_trips(daemon, REQUESTS // ROUNDS)
        task.cancel()
    print(f"{REQUESTS} requests of a verified node, milliseconds   median      99 %     worst")
    for name, taken in (("nobody being verified", quiet), ("one verification hanging", hanging)):
        print(f"  {name:<40}{statistics.median(taken):13.2f}{percentile(taken, 0.99):10.2f}"
              f"{max(taken):10.2f}")


async def measure_restart(daemon, web):
    keys = [f"node-{number:04}" for number in range(NODES)]
    web.know(keys=[key.replace("-", "") for key in keys], seconds=SECONDS)
    streams = [await asyncio.open_connection(*daemon.node_address) for _ in keys]
    begin = time.perf_counter()
    await asyncio.gather(*(ask(stream, key) for stream, key in zip(streams, keys)))
    taken = time.perf_counter() - begin
    print(f"{NODES} nodes with new keys at once: all served in {taken:.2f} s; "
          f"{AT_A_TIME} at a time at {SECONDS * 1000:.0f} ms each is {NODES * SECONDS / AT_A_TIME:.2f} s; "
          f"{len(web.answers())} questions answered in all")
    for _, writer in streams:
        writer.close()


def main():
    with tempfile.TemporaryDirectory(prefix="pelorus-bench-") as folder:
        web = WebServer(Path(folder) / "web")
        daemon = Pelorus(Path(folder), {"PELORUS_IDEAL_QUEUED_MESSAGES": 90_000,
                                        "PELORUS_MAX_PENDING_MESSAGES": 100_000,
                                        "PELORUS_BUFFER_TIME": 1e6})
        try:
            daemon.wait_ready()
            asyncio.run(measure_latency(daemon, web))
            asyncio.run(measure_restart(daemon, web))
        finally:
            daemon.stop()
            web.stop()


if __name__ == "__main__":
    main()
