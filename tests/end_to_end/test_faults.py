"""Faults that need the real process and real sockets."""

import contextlib
import re
import signal
import time

from harness.process import Repeated, wait_until
from harness.skein_client import REQUEST, frame
from tests.end_to_end.bad_peers import BROKEN
from tests.end_to_end.support import StageTest

STATS = frame([REQUEST, 3, "stats", {}])


class Faults(StageTest):
    def setUp(self):
        super().setUp()
        self.start_stage()

    def test_broken_bytes_end_their_connection_with_a_warning(self):
        for connect, peer in ((self.node, r"127\.0\.0\.1:\d+"),
                              (self.local, r"a local peer \(process \d+, user \d+\)")):
            for data in BROKEN:
                before = len(self.daemon.text())
                with connect() as client, contextlib.suppress(OSError):  # it may end before all is sent
                    client.send_bytes(data)
                    client.receive()
                wait_until(lambda: re.search(rf"Closing the connection of {peer}: \S",
                                             self.daemon.text()[before:]), f"the end of {data[:20]}")
        self.assertEqual(self.daemon.text().count("Closing the connection of "), 2 * len(BROKEN))
        self.expect_well()

    def test_flood_keeps_nobody_waiting(self):
        clients = [self.local(), self.local(), self.node(), self.node()]
        with Repeated(lambda: [client.send_now(STATS * 2000) for client in clients]) as flood:
            wait_until(lambda: flood.rounds > 500, "the flood, with the bystanders beside it")
        for client in clients:
            client.close()
        self.expect_well()

    def test_stopped_and_continued(self):
        self.worst_delay = 3
        self.daemon.send_signal(signal.SIGSTOP)
        time.sleep(2)
        self.daemon.send_signal(signal.SIGCONT)
        self.expect_well()
