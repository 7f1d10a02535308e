"""What a peer of either socket can do wrong, as tables of bytes and messages, and as conduct."""

import random
import struct
import time

import msgpack

from harness.process import in_thread
from harness.skein_client import ONE_WAY, REPLY, REQUEST, block_frame, content_frame, frame

MOST_CONTENT = 16 << 20
LINE = "node7.load.load.longterm 0.5 1700000000\n"


def _each(frame_of, *contents):
    return [frame_of(content) for content in contents]


LYING_PREFIXES = {
    "frame of length 0": [struct.pack(">I", 0)],
    r"frame of \d+ bytes, 19573450 are allowed":
        [struct.pack(">I", size) for size in (19_573_451, 2**31, 2**32 - 1)]}

SNAPPY_CLAIMS = {
    "frame does not decompress": _each(block_frame,
        b"\xff" * 5,                                # a length without an end
        b"\x05\x01\x00",                            # copies from before its begin
        b"\x05\xf0\xff",                            # a literal that is cut off
        b"\x05\xfc\xff\xff\xff\xff",                # a literal of 4 GiB
        b"\x01", b"\xff"),
    "content of 4294967295 bytes, 16777216 are allowed": [block_frame(b"\xff\xff\xff\xff\x0f")],
    "content of 16777217 bytes": [block_frame(b"\x81\x80\x80\x08" + b"x" * 900_000)],
    "4 compressed bytes claim to hold 16777216": [block_frame(b"\x80\x80\x80\x08")],
    "103 compressed bytes claim to hold 65536": [block_frame(b"\x80\x80\x04" + b"x" * 100)],
    "content is no MessagePack": [block_frame(b"\x00")]}

CONTENT_CLAIMS = {
    "content is no MessagePack": _each(content_frame, b"\xc1", b""),
    "content ends inside a MessagePack value": _each(content_frame,
        b"\xdb\xff\xff\xff\xff", b"\xc6\xff\xff\xff\xff",  # texts of 4 GiB
        b"\xc9\xff\xff\xff\xff\x01", b"\x92\x01"),
    "1 bytes behind the MessagePack value": [content_frame(b"\x01\x01")],
    "content nested more than 32 deep": _each(content_frame,
        b"\x91" * 33 + b"\x01", b"\x91" * 1_000_000, b"\x81\xa0" * 100_000,
        b"\xdc\xff\xff" + b"\xdc\x00\xff" * 65_535),
    "content of 4294967295 elements or more": _each(content_frame,  # lists and maps
        b"\xdd\xff\xff\xff\xff", b"\xdf\xff\xff\xff\xff"),
    "content of 1000001 elements or more": [
        content_frame(b"\xdd\x00\x0f\x42\x41" + b"\xc0" * 1_000_001)]}

NO_SKEIN = {"frame of": [
    b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
    b"SSH-2.0-client\r\n", b"\n" * 1000, b"\0" * 1000, b"\xff" * 1000,
    *(random.Random(seed).randbytes(4096) for seed in range(16))]}


# Pairs: what the daemon says, and the bytes that end their connection.
BROKEN = [(text, data) for table in (LYING_PREFIXES, SNAPPY_CLAIMS, CONTENT_CLAIMS, NO_SKEIN)
          for text, rows in table.items() for data in rows]

_DEEP = 1
for _ in range(27):
    _DEEP = [_DEEP]

# Messages of the right make-up whose contents make no sense to anybody.
ODD_ARGUMENTS = [
    {}, {"key": None}, {"key": 5}, {"key": ""}, {"key": "-" * 40}, {"key": "k" * 2000},
    {"key": ["unknown"]}, {"key": "unknown"}, {"key": b"unknown\xff\x00"},
    {"key": "unknown\r\nX-Header: 1", "metrics": LINE}, {"key": "unknown&key=1", "metrics": LINE},
    {"metrics": None}, {"metrics": ""}, {"metrics": 5}, {"metrics": 2**64 - 1},
    {"metrics": -2**63}, {"metrics": 1e308}, {"metrics": [LINE]}, {"metrics": {LINE: LINE}},
    {"metrics": b"\xff\xfe\x00\n"}, {"metrics": "\0\n"}, {"metrics": _DEEP},
    {"key": "unknown", "metrics": LINE, "more": _DEEP},
    {"key": "unknown", "database": 7, "data": LINE},
    {"key": "unknown", "database": "no such database", "data": LINE},
    {"key": "unknown", "database": "bonding", "name": {}, "columns": 5, "points": "x"},
    {"key": "unknown", "database": "bonding", "name": "a", "columns": ["time"], "points": [[]]},
    {"key": "unknown", "database": "bonding", "name": "a", "columns": [], "points": _DEEP},
    {"key": "unknown", "database": "bonding", "name": "a", "columns": ["x"],
     "points": [[float("nan")], [float("inf")], [2**64 - 1]], "time_precision": "h"},
    None, 5, "text", [1, 2], [["key", "unknown"]], {5: 6}, {None: None}, {"": ""},
    {b"key": b"unknown"}, {"key": msgpack.ExtType(5, b"x")}, msgpack.Timestamp(5, 5)]

# Messages of another make-up: with a number, so that they can be answered, and without.
NUMBERED = [
    [REQUEST, 7], [REQUEST, 7, "stats"], [REQUEST, 7, "stats", {}, {}], [REQUEST, 7, "stats", [1]],
    [REQUEST, 7, "stats", {5: 6}], [REQUEST, 7, 5, {}], [REQUEST, 7, None, {}], [REQUEST, 7, "", {}],
    [REQUEST, 7, "x" * 100_000], [REQUEST, 7, "no_such_request", {}], [REQUEST, 7, "stop", {}],
    [REQUEST, 7, "__init__", {}], [REQUEST, 7, "stats\0", {}], [REQUEST, 7, b"\xff\xfe", {}],
    [REQUEST, 7, ["stats"], {}]]
UNNUMBERED = [
    None, True, 5, -1, 2**64 - 1, 1.5, "stats", b"stats", [], {}, [[]], [None], [REQUEST],
    [REQUEST, -1, "stats", {}], [REQUEST, 2**32, "stats", {}], [REQUEST, 1.0, "stats", {}],
    [REQUEST, "7", "stats", {}], [ONE_WAY], [ONE_WAY, "fail", {}], [ONE_WAY, 5, {}],
    [ONE_WAY, "collectd", 5], [REPLY, 7, None, {}], [REPLY, 7, "error", None], [3, 7, "stats", {}],
    [-1, 7, "stats", {}], [True, 7, "stats", {}], [2**63, 7, "stats", {}],
    msgpack.ExtType(1, b"abc"), _DEEP]


def odd_shapes():
    """First those that cannot be answered, then those that must be with an error, then others."""
    yield from UNNUMBERED + NUMBERED
    for name in ("add", "submit", "collectd"):
        for arguments in ODD_ARGUMENTS:
            yield [REQUEST, 7, name, arguments]


def bomb(key="unknown", content="x", size=MOST_CONTENT):
    """A request of nearly `size` bytes of repeated content, within every limit: 21 times smaller on
    the wire."""
    text = content * ((size - 200) // len(content))
    return frame([REQUEST, 1, "collectd", {"key": key, "metrics": text}])


def pour(client, data):
    """Sends as much as the daemon takes before it ends the connection. True when all went out."""
    try:
        client.send_bytes(data)
        return True
    except (BrokenPipeError, ConnectionResetError, TimeoutError):
        return False


class Crowd:
    """Connections that each do the same, over and over, in one thread, until told to stop."""

    def __init__(self, clients, act, pause=0.0):
        self.clients, self._act, self._pause = clients, act, pause
        self._going = True
        self.rounds = 0
        self._thread = in_thread(self._run)

    def _run(self):
        while self._going:
            for client in self.clients:
                if not self._going:
                    return
                try:
                    self._act(client)
                except OSError:
                    pass
            self.rounds += 1
            time.sleep(self._pause)

    def stop(self):
        self._going = False
        self._thread.join()
        for client in self.clients:
            client.close()


def send_some(data):
    """An act of a Crowd that never waits: as much of `data` as fits, over and over."""
    def act(client):
        client.send_now(data)
    return act


def many(connect, count):
    return [connect() for _ in range(count)]
