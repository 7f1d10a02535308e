"""The far end of a client of the protocol."""

import socket

from harness.conduct import in_thread
from harness.skein_client import REPLY, SkeinConnection

SILENCE, HANG_UP = "silence", "hang up"


class SkeinStub:
    """Keeps the requests that come and answers each with (error, result) as `answer` says, or as one
    of the constants says. Listens at a path or, without one, on a port of 127.0.0.1."""

    def __init__(self, case, path=None, answer=lambda name, args: (None, None)):
        self.calls = []  # pairs of name and arguments
        self._answer = answer
        self._listener = (socket.create_server(("127.0.0.1", 0)) if path is None else
                          socket.create_server(str(path), family=socket.AF_UNIX))
        self.address = self._listener.getsockname()
        case.addCleanup(self._listener.close)
        in_thread(self._accept)

    def metrics(self):
        """The lines of all blocks."""
        return "".join(args["metrics"] for _, args in self.calls)

    def _accept(self):
        while True:
            try:
                connected, _ = self._listener.accept()
            except OSError:  # the case is over
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
