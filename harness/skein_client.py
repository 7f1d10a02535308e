"""Both ends of the skein protocol, which share no code with the daemon: Debian's MessagePack and Snappy
modules and the layout of doc/skein_protocol.md."""

import socket
import struct

import msgpack
import snappy

from harness.process import in_thread

REQUEST, REPLY, ONE_WAY = 0, 1, 2


def block_frame(block):
    """A frame around any bytes."""
    return struct.pack(">I", len(block)) + block


def content_frame(content):
    """A frame around compressed bytes."""
    return block_frame(snappy.compress(content))


def frame(message):
    return content_frame(msgpack.packb(message))


class SkeinError(Exception):
    """The error text of a reply."""


class SkeinConnection:
    """Either end of a connection. Every wait ends after `seconds`."""

    def __init__(self, connected, seconds=15):
        self._socket = connected
        self._seconds = seconds
        self._socket.settimeout(seconds)
        self._received = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._socket.close()

    def send_bytes(self, data):
        self._socket.sendall(data)

    def send_now(self, data):
        """As much as fits at this moment. Returns how many bytes that is."""
        self._socket.setblocking(False)
        try:
            return self._socket.send(data)
        except BlockingIOError:
            return 0
        finally:
            self._socket.settimeout(self._seconds)

    def send(self, message):
        self.send_bytes(frame(message))

    def receive(self):
        """The next message; None when the daemon has ended the connection."""
        head = self._take(4)
        if head is None:
            return None
        block = self._take(struct.unpack(">I", head)[0])
        return msgpack.unpackb(snappy.uncompress(block))

    def _take(self, size):
        while len(self._received) < size:
            try:
                more = self._socket.recv(65536)
            except ConnectionResetError:
                more = b""
            if not more:
                return None
            self._received += more
        taken, self._received = self._received[:size], self._received[size:]
        return taken


class SkeinClient(SkeinConnection):
    """A connection to a server."""

    def __init__(self, address, seconds=15):
        """`address`: a path, or a pair of host and port."""
        over_tcp = isinstance(address, tuple)
        connecting = socket.socket(socket.AF_INET if over_tcp else socket.AF_UNIX)
        super().__init__(connecting, seconds)
        if over_tcp:
            connecting.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connecting.connect(address if over_tcp else str(address))
        self._msgid = 0

    def call(self, name, args=None):
        """The result of a request. Raises SkeinError when it is answered with an error."""
        self._msgid += 1
        self.send([REQUEST, self._msgid, name, args or {}])
        kind, msgid, error, result = self.receive()
        if (kind, msgid) != (REPLY, self._msgid):
            raise AssertionError(f"reply {kind}, {msgid} to request {self._msgid}")
        if error is not None:
            raise SkeinError(error)
        return result

    def collectd(self, lines):
        """Sends a block of Graphite lines as collectd's plugin does."""
        return self.call("collectd", {"metrics": lines})


SILENCE, HANG_UP = "silence", "hang up"


class SkeinServer:
    """Keeps the requests that come and answers each with (error, result) as `answer` says, or as one of the
    constants says. Listens at a path or, without one, on a port of 127.0.0.1."""

    def __init__(self, path=None, answer=lambda name, args: (None, None)):
        self.calls = []  # pairs of name and arguments
        self._answer = answer
        self._listener = (socket.create_server(("127.0.0.1", 0)) if path is None else
                          socket.create_server(str(path), family=socket.AF_UNIX))
        self.address = self._listener.getsockname()
        self._thread = in_thread(self._accept)

    def close(self):
        """A thread that still waited after it would take the connections of the next socket with this
        number."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(10)
        self._listener.close()

    def metrics(self):
        """The lines of all blocks."""
        return "".join(args["metrics"] for _, args in self.calls)

    def _accept(self):
        while True:
            try:
                connected, _ = self._listener.accept()
            except OSError:  # closed
                return
            in_thread(self._serve, SkeinConnection(connected, 60))

    def _serve(self, peer):
        with peer:
            while message := peer.receive():
                _, msgid, name, args = message
                answer = self._answer(name, args)
                self.calls.append((name, args))
                if answer == HANG_UP:
                    return
                if answer != SILENCE:
                    peer.send([REPLY, msgid, *answer])
