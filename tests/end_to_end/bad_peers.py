"""What a peer of either socket can send that ends its connection, and what takes most memory."""

import random
import struct

from harness.skein_client import REQUEST, block_frame, content_frame, frame

MOST_CONTENT = 16 << 20


# Of frames, of blocks, of contents, and of those who speak another protocol.
BROKEN = [
    struct.pack(">I", 0), struct.pack(">I", 2**32 - 1),
    block_frame(b"\xff" * 5), block_frame(b"\xff\xff\xff\xff\x0f"), block_frame(b"\x80\x80\x80\x08"),
    content_frame(b"\xc1"), content_frame(b"\x91" * 1_000_000), content_frame(b"\xdd\xff\xff\xff\xff"),
    b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"SSH-2.0-client\r\n",
    *(random.Random(seed).randbytes(4096) for seed in range(16))]


def bomb():
    """A request of nearly all bytes that one may have: 21 times smaller on the wire."""
    return frame([REQUEST, 1, "collectd", {"key": "unknown", "metrics": "x" * (MOST_CONTENT - 200)}])
