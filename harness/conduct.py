"""How a server that speaks HTTP can treat its client. A conduct is called with each connection that
the server has accepted, and the connection is closed when it returns."""

import re
import socket
import ssl
import struct
import threading
import time

NO_CONTENT = b"HTTP/1.1 204 No Content\r\n\r\n"
PATIENCE = 60  # seconds after which a connection that nobody ends is given up


def status(code, body=b"{}", more=b""):
    return b"HTTP/1.1 %d Any\r\n%sContent-Length: %d\r\n\r\n%s" % (code, more, len(body), body)


def chunked(code, body):
    chunks = b"".join(b"1\r\n%c\r\n" % byte for byte in body)
    return (b"HTTP/1.1 %d Any\r\nTransfer-Encoding: chunked\r\n\r\n%s0\r\n\r\n" % (code, chunks))


def read_head(connected):
    """The head, and what has come behind it."""
    data = b""
    while b"\r\n\r\n" not in data:
        if not (more := connected.recv(65536)):
            raise ConnectionError("no whole head came")
        data += more
    head, _, rest = data.partition(b"\r\n\r\n")
    return head, rest


def read_request(connected):
    head, body = read_head(connected)
    length = int(re.search(rb"\r\ncontent-length: *(\d+)", head, re.IGNORECASE)[1])
    while len(body) < length:
        if not (more := connected.recv(65536)):
            raise ConnectionError("no whole body came")
        body += more
    return head, body


def linger(connected):
    """Until the client ends the connection."""
    connected.settimeout(PATIENCE)
    while connected.recv(65536):
        pass


def answering(answer, read=read_request, then=None, piece=None, pause=0.0):
    """Reads with `read`, sends `answer` (in pieces), then does `then`."""
    def conduct(connected):
        read(connected)
        step = piece or len(answer) or 1
        for begin in range(0, len(answer), step):
            connected.sendall(answer[begin:begin + step])
            time.sleep(pause)
        if then:
            then(connected)
    return conduct


def reset(connected):
    """Ends the connection without a proper close."""
    connected.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def read_nothing(_):
    pass


def read_half_a_body(connected):
    """Of one that is longer than what comes with the head."""
    _, rest = read_head(connected)
    if not rest:
        connected.recv(1000)


def never_read(connected):
    """Until the client has gone, which is seen without reading."""
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline and alive(connected):
        time.sleep(0.05)


def alive(connected):
    state = connected.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)
    return state[0] == 1  # established; a close of the client is the state CLOSE_WAIT


def endings(read, name):
    """The two ways to end a connection at one point."""
    return [(f"closes after {name}", answering(b"", read)),
            (f"resets after {name}", answering(b"", read, reset))]


def over_tls(context, conduct, opened):
    """The same conduct behind a TLS handshake. Connections are appended to `opened`."""
    def served(connected):
        with context.wrap_socket(connected, server_side=True) as secure:
            opened.append(secure)
            conduct(secure)
    return served


def hang_up(connections):
    """Ends connections that another thread serves."""
    for each in connections:
        try:
            each.shutdown(socket.SHUT_RDWR)
        except OSError:  # it has ended already
            pass


def forgiving(conduct):
    """The same conduct, where a client that goes early is no error."""
    def served(connected):
        connected.settimeout(PATIENCE)
        try:
            conduct(connected)
        except (OSError, ssl.SSLError, ConnectionError):
            pass
    return served


class FullListener:
    """A port whose listener has all the connections that it can hold: what comes now is not
    answered at all, not even refused."""

    def __init__(self, port):
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", port))
        self._listener.listen(0)
        self._held = [socket.socket() for _ in range(4)]
        for each in self._held:
            each.setblocking(False)
            each.connect_ex(("127.0.0.1", port))

    def close(self):
        for each in (*self._held, self._listener):
            each.close()


def in_thread(function, *arguments):
    thread = threading.Thread(target=function, args=arguments, daemon=True)
    thread.start()
    return thread
