"""A name server on 127.0.0.1 whose conduct can be changed: every name is this machine, no name is
known, or nothing is answered at all."""

import socket
import struct

from harness.conduct import in_thread

SILENT, UNKNOWN, KNOWN = range(3)
TYPE_A = 1


class NameServer:
    def __init__(self, mode):
        self.mode = mode
        self.asked = 0
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 53))
        in_thread(self._serve)

    def _serve(self):
        while True:
            question, peer = self._socket.recvfrom(4096)
            self.asked += 1
            if self.mode != SILENT:
                self._socket.sendto(self._answer(question), peer)

    def _answer(self, message):
        end = message.index(b"\0", 12) + 5  # of the question: the name, its type and class
        wanted = struct.unpack(">H", message[end - 4:end - 2])[0]
        found = self.mode == KNOWN and wanted == TYPE_A
        head = message[:2] + struct.pack(">HHHHH", 0x8180 | (3 if self.mode == UNKNOWN else 0), 1,
                                         int(found), 0, 0)
        record = b"\xc0\x0c" + struct.pack(">HHIH", TYPE_A, 1, 0, 4) + socket.inet_aton("127.0.0.1")
        return head + message[12:end] + (record if found else b"")
