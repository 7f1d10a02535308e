"""python3 -m tests.end_to_end.crowd HOST PORT SOCKET KEYS: good and bad peers, until it is ended.
What costs much to make is made once, and each peer rests between two deeds, so that the daemon has
the work and not this."""

import asyncio
import itertools
import random
import signal
import struct
import sys

from harness.skein_client import REQUEST, frame
from tests.end_to_end.bad_peers import BROKEN, bomb

HOST, PORT, SOCKET = sys.argv[1], int(sys.argv[2]), sys.argv[3]
KEYS = sys.argv[4].split(",")
any_of = random.Random(7)
done = {}

BLOCK = "".join(f"m000.irq.irq-{number} {number} 1700000000\n" for number in range(240))
BAD_BLOCK = "two fields\n" * 20 + "m000.foo.bar 1 1\n" * 20 + "\0\xff 1 1\n"
BLOCKS = {key: frame([REQUEST, 1, "collectd", {"key": key, "metrics": BLOCK}]) for key in KEYS}
BAD_LINES = {key: frame([REQUEST, 1, "collectd", {"key": key, "metrics": BAD_BLOCK}])
             for key in KEYS}
LOCAL_BLOCK = frame([REQUEST, 1, "collectd", {"metrics": BLOCK}])
BOMB = bomb()


async def connect(local):
    if local:
        return await asyncio.open_unix_connection(SOCKET)
    return await asyncio.open_connection(HOST, PORT)


async def reply(reader):
    size = struct.unpack(">I", await reader.readexactly(4))[0]
    await reader.readexactly(size)


def count(what):
    done[what] = done.get(what, 0) + 1


async def node_that_comes_and_goes(name):
    """Stays for a while, then comes again with another key."""
    key = any_of.choice(KEYS)
    reader, writer = await connect(False)
    for _ in range(any_of.randrange(1, 30)):
        writer.write(BAD_LINES[key] if any_of.random() < 0.05 else BLOCKS[key])
        await reply(reader)
        count(name)
        await asyncio.sleep(any_of.uniform(0.2, 1))
    writer.close()


async def collectd(name):
    reader, writer = await connect(True)
    for _ in range(50):
        writer.write(LOCAL_BLOCK)
        await reply(reader)
        count(name)
        await asyncio.sleep(0.2)
    writer.close()


async def bomber(name):
    reader, writer = await connect(False)
    writer.write(BOMB)
    await reply(reader)
    writer.close()
    count(name)
    await asyncio.sleep(any_of.uniform(1, 5))


async def breaker(name):
    """Bytes that end the connection."""
    reader, writer = await connect(any_of.random() < 0.5)
    writer.write(any_of.choice(BROKEN)[1])
    if writer.can_write_eof():
        writer.write_eof()
    await reader.read()
    writer.close()
    count(name)
    await asyncio.sleep(0.2)


async def keyless(name):
    reader, writer = await connect(False)
    for _ in range(20):
        writer.write(frame([REQUEST, 1, "collectd", {"key": "unknown", "metrics": "x" * 20_000}]))
        await reply(reader)
        await asyncio.sleep(0.2)
    writer.close()
    count(name)


CROWD = [(node_that_comes_and_goes, 60), (collectd, 2), (bomber, 3), (breaker, 4), (keyless, 5)]


async def over_and_over(act):
    while True:
        try:
            await asyncio.wait_for(act(act.__name__), 120)
        except (OSError, asyncio.IncompleteReadError, asyncio.TimeoutError):
            await asyncio.sleep(0.5)  # the daemon has ended the connection


async def tell():
    while True:
        await asyncio.sleep(5)
        print(", ".join(f"{name} {times}" for name, times in sorted(done.items())), flush=True)


async def main():
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    crowd = itertools.chain.from_iterable([act] * number for act, number in CROWD)
    await asyncio.gather(tell(), *(over_and_over(act) for act in crowd))


asyncio.run(main())
