"""Faults of peers, of InfluxDB and of the web server that need the real process and real sockets."""

import contextlib
import signal
import time

from harness.http_server import Connection, answering, ending, hanging, status
from harness.process import Repeated, wait_until
from harness.skein_client import REQUEST, frame
from tests.end_to_end.bad_peers import BROKEN
from tests.end_to_end.stage import KEY, LINE, RECORD, StageTest

STATS = frame([REQUEST, 3, "stats", {}])
PEERS = {"node": r"127\.0\.0\.1:\d+", "local": r"a local peer \(process \d+, user \d+\)"}


class Faults(StageTest):
    def setUp(self):
        super().setUp()
        self.start_stage()
        self.peers = {"node": self.node, "local": self.local}

    def test_broken_bytes_end_their_connection_with_a_warning_that_says_why(self):
        for text, data in BROKEN:
            for name, connect in self.peers.items():
                before = len(self.daemon.text())
                with connect() as client:
                    with contextlib.suppress(OSError):  # it may be ended before all is sent
                        client.send_bytes(data)
                        client.receive()
                self.wait_logged(rf"Closing the connection of {PEERS[name]}: {text}\b", before)
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

    def test_influxdb_that_breaks_off_while_it_is_sent_to(self):
        """More than fits into the sockets' buffers."""
        well, self.influx.conduct = self.influx.conduct, ending(
            lambda client: (client.read_head(), client.reset()))
        with self.node() as node:
            node.call("add", {"key": KEY, "database": "bonding", "data": RECORD * 200_000})
        self.wait_logged(r"failed: (sending|receiving): .*\d{7} bytes", 0)
        self.influx.conduct = well
        self.expect_well(loses_nothing=False)

    def test_web_server_in_trouble(self):
        for number, (conduct, text) in enumerate([
                (ending(Connection.read_head), "(Failed to connect|key verification: )"),
                (hanging, "Timed out trying to authenticate to web server"),
                (answering(status(403)), "unexpected status code 403")]):
            before, key = len(self.daemon.text()), f"new-key-{number}"
            self.web.behave(conduct)
            with self.node() as node:
                node.send([REQUEST, 1, "collectd", {"key": key, "metrics": LINE}])
                node.receive()
                self.wait_logged(text, before)
                self.web.behave()
                record = f"a value={number} 1"
                node.call("add", {"key": key, "database": "bonding", "data": record})
            wait_until(lambda: record.encode() in self.influx.lines(), "the record", pause=0.1)
        self.expect_well()
