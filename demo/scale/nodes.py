"""Nodes that send, and go on when their connection breaks."""

import threading
import time

from harness.skein_client import REQUEST, SkeinClient

SERIES = 100   # records of one block: every series once
INTERVAL = 10  # seconds between the points of one series


def lines(node, moment):
    """The block of one moment."""
    return "".join(f"node{node}.cpu-{number}.cpu-user.value {number}.5 {moment}\n"
                   for number in range(SERIES))


class Node:
    """Sends one block after the other, each until it is answered. A connection that breaks is made
    anew and the block that had no answer is sent again."""

    def __init__(self, address, number, key, moments, pause):
        """`moments`: the time of each block; `pause`: seconds between blocks."""
        self.number = number
        self.acknowledged = []  # pairs: when it was answered, and the block's moment
        self.breaks = []        # when a connection broke
        self.sent_again = 0
        self.failure = None
        self._address, self._key, self._moments, self._pause = address, key, moments, pause
        self._thread = threading.Thread(target=self._run, daemon=True)

    def start(self):
        self._thread.start()

    def join(self):
        self._thread.join()

    def records(self):
        return SERIES * len(self.acknowledged)

    def _run(self):
        connection = None
        try:
            for moment in self._moments:
                while True:
                    try:
                        connection = connection or SkeinClient(self._address)
                        self._send(connection, moment)
                        break
                    except ConnectionError:
                        self.breaks.append(time.monotonic())
                        self.sent_again += 1
                        connection.close()
                        connection = None
                        time.sleep(0.2)
                time.sleep(self._pause)
        except Exception as failure:  # the main thread shows it
            self.failure = failure

    def _send(self, connection, moment):
        connection.send([REQUEST, 1, "collectd",
                         {"key": self._key, "metrics": lines(self.number, moment)}])
        reply = connection.receive()
        if reply is None:
            raise ConnectionResetError("closed before the answer")
        if reply[2] is not None:
            raise AssertionError(f"node {self.number} was answered {reply[2]}")
        self.acknowledged.append((time.monotonic(), moment))
