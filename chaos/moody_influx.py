#!/usr/bin/python3
"""moody_influx.py PORT: an InfluxDB endpoint that takes writes well, and every now and then does
not for a while. Keeps nothing but counts, which it prints."""

import asyncio
import itertools
import random
import re
import sys

from_seed = random.Random(4)
counts = {}
NO_CONTENT = b"HTTP/1.1 204 No Content\r\n\r\n"
ERROR = b"HTTP/1.1 500 Any\r\nContent-Length: 2\r\n\r\n{}"
# What it does, and for how long at most (seconds).
MOODS = [("well", 25), ("error", 3), ("well", 25), ("hang up", 3), ("well", 25), ("slow", 8),
         ("well", 25), ("silent", 30), ("well", 25), ("rubbish", 3)]
mood = "well"


async def serve(reader, writer):
    mine = mood
    try:
        head = await reader.readuntil(b"\r\n\r\n")
        length = int(re.search(rb"Content-Length: (\d+)", head)[1])
        while length > 0 and (data := await reader.read(min(length, 1 << 18))):
            length -= len(data)
            if mine == "slow":
                await asyncio.sleep(0.05)
        if mine == "silent":
            await reader.read()
        if mine != "hang up":
            writer.write({"error": ERROR, "rubbish": b"rubbish\r\n\r\n"}.get(mine, NO_CONTENT))
            await writer.drain()
        counts[mine] = counts.get(mine, 0) + 1
    except (OSError, asyncio.IncompleteReadError):
        pass
    finally:
        writer.close()


async def change_moods():
    global mood
    for mood, seconds in itertools.cycle(MOODS):
        await asyncio.sleep(seconds * from_seed.uniform(0.5, 1))
        print(", ".join(f"{name} {count}" for name, count in counts.items()), flush=True)


async def main():
    server = await asyncio.start_server(serve, "127.0.0.1", int(sys.argv[1]), limit=1 << 20)
    async with server:
        await change_moods()


asyncio.run(main())
