"""A server of HTTP or HTTPS that treats each of its clients as it is told: a stand-in for InfluxDB and for the
administration web server.

A conduct is a function of a Connection. It is called with each connection that the server accepts, in a
thread of its own, and the connection is closed when it returns. A client that goes early ends it."""

import json
from pathlib import Path
import re
import socket
import ssl
import subprocess
import tempfile
import time
import urllib.parse

from harness import BUILD
from harness.process import in_thread, wait_until

NO_CONTENT = b"HTTP/1.1 204 No Content\r\n\r\n"
PATIENCE = 60  # seconds after which a connection that nobody ends is given up
WWW_KEY = "www-key-that-must-not-be-logged"
KEY_PATH = b"/api/v4/nodes/key-verification/"


def status(code, body=b"{}"):
    return b"HTTP/1.1 %d Any\r\nContent-Length: %d\r\n\r\n%s" % (code, len(body), body)


class Connection:
    """What a server has received from one client, and what it does to it."""

    def __init__(self, stream):
        self.bytes = bytearray()  # all that has come
        self.bodies = []          # of the whole requests that were read
        self.stream = stream
        self._used = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()

    def read_head(self):
        while (end := self.bytes.find(b"\r\n\r\n", self._used)) < 0:
            self.receive()
        head, self._used = bytes(self.bytes[self._used:end]), end + 4
        return head

    def read_request(self):
        """Its head and body."""
        head = self.read_head()
        end = self._used + int(re.search(rb"(?i)\r\ncontent-length: *(\d+)", head)[1])
        while len(self.bytes) < end:
            self.receive()
        self.bodies.append(bytes(self.bytes[self._used:end]))
        self._used = end
        return head, self.bodies[-1]

    def receive(self):
        if not (more := self.stream.recv(65536)):
            raise ConnectionError("the client has ended the connection")
        self.bytes += more

    def linger(self):
        """Until the client ends the connection."""
        while True:
            self.receive()

    def send(self, data):
        self.stream.sendall(data)

    def hang_up(self):
        try:
            self.stream.shutdown(socket.SHUT_RDWR)
        except OSError:  # it has ended already
            pass


def answering(answer, then=Connection.linger):
    """Reads a request, sends `answer`, then does `then`."""
    def conduct(client):
        client.read_request()
        client.send(answer)
        then(client)
    return conduct


hanging = answering(b"")  # takes the request and never answers
ending = answering(b"", lambda _: None)


class HTTPServer:
    """Listens on a port of 127.0.0.1 until it is closed. `conduct` may be changed at any time and holds for
    the connections that begin from then on. `tls`: an SSLContext. `keeps` what has come on connections that
    have ended."""

    def __init__(self, port=0, conduct=answering(NO_CONTENT), tls=None, keeps=True):
        self.conduct, self.tls, self._keeps = conduct, tls, keeps
        self.connections = []
        self._listener = socket.create_server(("127.0.0.1", port), backlog=128)
        self.port = self._listener.getsockname()[1]
        self.address = f"127.0.0.1:{self.port}"
        self._thread = in_thread(self._accept)

    def written(self):
        """Bodies of the whole requests so far."""
        return [body for each in list(self.connections) for body in each.bodies]

    def lines(self):
        """All lines of all bodies, without the empty ones."""
        return [line for body in self.written() for line in body.split(b"\n") if line]

    def hang_up(self):
        for each in list(self.connections):
            each.hang_up()

    def close(self):
        """Harmless when it is closed already."""
        if self._listener.fileno() >= 0:
            self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()
        self.hang_up()

    def _accept(self):
        while True:
            try:
                stream, _ = self._listener.accept()
            except OSError:  # closed
                return
            in_thread(self._serve, stream, self.conduct, self.tls)

    def _serve(self, stream, conduct, tls):
        client = Connection(stream)
        self.connections.append(client)
        with client:
            stream.settimeout(PATIENCE)
            try:
                if tls:
                    client.stream = tls.wrap_socket(stream, server_side=True)
                conduct(client)
            except OSError:  # the client has gone, or speaks no TLS
                pass
            finally:
                if not self._keeps:
                    self.connections.remove(client)


def throw_away_certificate():
    """A TLS context with a certificate of its own, at which the daemon does not look."""
    with tempfile.TemporaryDirectory(prefix="pelorus-certificate-") as folder:
        key, certificate = Path(folder, "key.pem"), Path(folder, "certificate.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                        "-subj", "/CN=tidewell", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)
        return context


_held = []


def hold_origin():
    """The port at which the build under test asks about keys. Keeps every other process that uses it waiting
    until this one ends: the port stands in the program, and there is only one of it on a machine."""
    def bind():
        try:
            lock.bind(f"\0pelorus-origin-{origin[1]}")  # an abstract name: no file is left behind
            return True
        except OSError:
            return False

    origin = re.search(r"^PELORUS_TIDEWELL_ORIGIN:\w+=https://127\.0\.0\.1:(\d+)$",
                       (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)
    if origin is None:
        raise AssertionError(f"{BUILD} asks no port of this machine about keys; "
                             "configure it with PELORUS_TIDEWELL_ORIGIN=https://127.0.0.1:PORT")
    if not _held:
        lock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        wait_until(bind, f"port {origin[1]}, which another run uses", 100, pause=0.1)
        _held.append(lock)
    return int(origin[1])


class WebServer(HTTPServer):
    """The administration web server, where the build under test looks for it. Confirms `keys`, or all but
    those that begin with "unknown"; never answers about those of `hang`; takes `seconds` for each answer."""

    def __init__(self, keys=None, hang=(), seconds=0.0):
        self.keys = keys and {key.replace("-", "") for key in keys}
        self.hang, self.seconds = set(hang), seconds
        super().__init__(hold_origin(), self.confirm, throw_away_certificate(), keeps=False)

    def behave(self, conduct=None):
        """For connections from now on; those that the daemon has kept are ended."""
        self.conduct = conduct or self.confirm
        self.hang_up()

    def confirm(self, client):
        while True:
            head, body = client.read_request()
            key = urllib.parse.parse_qs(body.decode("latin-1")).get("key", [""])[0]
            if key in self.hang:
                client.linger()
            time.sleep(self.seconds)
            known = not key.startswith("unknown") if self.keys is None else key in self.keys
            good = KEY_PATH in head.splitlines()[0] and f"Token {WWW_KEY}".encode() in head
            client.send(status(200, json.dumps({"key": key if known else None}).encode())
                        if good else status(403))
