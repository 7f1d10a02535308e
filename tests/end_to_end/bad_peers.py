"""What a peer of either socket can do wrong, as tables of bytes."""

import random
import struct

from harness.skein_client import REQUEST, block_frame, content_frame, frame

MOST_CONTENT = 16 << 20


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


def bomb():
    """A request of nearly all bytes that one may have: 21 times smaller on the wire."""
    return frame([REQUEST, 1, "collectd", {"key": "unknown", "metrics": "x" * (MOST_CONTENT - 200)}])
