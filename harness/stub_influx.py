"""Stands in for InfluxDB's HTTP endpoint: keeps every byte that it is sent and answers as told."""

import re
import socket
import threading

NO_CONTENT = b"HTTP/1.1 204 No Content\r\nContent-Type: application/json\r\n\r\n"
HANG = None       # take the request and never answer
HANG_UP = b""     # take the request and close without an answer


class Request:
    """What came on one connection, up to now."""

    def __init__(self):
        self.bytes = b""
        self.closed = False  # by the daemon

    @property
    def complete(self):
        length = re.search(rb"\r\nContent-Length: (\d+)\r\n", self.bytes)
        return (bool(length) and b"\r\n\r\n" in self.bytes
                and len(self.body) >= int(length[1]))

    @property
    def body(self):
        return self.bytes.partition(b"\r\n\r\n")[2]


class StubInflux:
    """Listens until closed. `answer` may be changed at any time and holds for requests that are
    complete from then on. A `conduct` (see conduct.py) replaces all of it for the connections that
    begin from then on."""

    def __init__(self, port=0, answer=NO_CONTENT, conduct=None):
        self.answer = answer
        self.conduct = conduct
        self.requests = []
        self._sockets = []
        self._lock = threading.Lock()
        self._listener = socket.create_server(("127.0.0.1", port))
        self.port = self._listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    @property
    def address(self):
        return f"127.0.0.1:{self.port}"

    def written(self):
        """Bodies of the complete requests so far, in the order of their connections."""
        return [request.body for request in list(self.requests) if request.complete]

    def lines(self):
        """All lines of all bodies, without the empty ones."""
        return [line for body in self.written() for line in body.split(b"\n") if line]

    def close(self):
        with self._lock:
            self._closing = True
            for each in (self._listener, *self._sockets):
                _shut_down(each)
        for thread in self._threads:
            thread.join()
        self._listener.close()

    _closing = False

    def _accept(self):
        while True:
            try:
                accepted, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                if self._closing:
                    accepted.close()
                    return
                self._sockets.append(accepted)
            request = Request()
            self.requests.append(request)
            thread = threading.Thread(target=self._serve, args=(accepted, request),
                                      daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, accepted, request):
        answered = False
        with accepted:
            if (conduct := self.conduct) is not None:
                return conduct(accepted)
            while data := _receive(accepted):
                request.bytes += data
                if answered or not request.complete or (answer := self.answer) is HANG:
                    continue
                if answer == HANG_UP:
                    return
                answered = True
                accepted.sendall(answer)
            request.closed = True


def _receive(connected):
    try:
        return connected.recv(65536)
    except OSError:
        return b""


def _shut_down(each):
    try:
        each.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass
