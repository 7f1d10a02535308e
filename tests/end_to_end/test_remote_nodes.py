"""Remote nodes: over TCP, with keys that a web server confirms or not."""

import time
import unittest

from harness.daemon import AUTH, ERROR, PLUGIN, WARNING, WWW_KEY
from harness.process import wait_until
from harness.real_servers import Collectd, Influxd
from harness.skein_client import SkeinClient
from harness.web_server import WebServer, hold_origin
from tests.end_to_end.support import FolderTest

GOOD_KEY = "11112222-3333-4444-5555-66667777aaaa"
BAD_KEY = "99998888-7777-6666-5555-44443333bbbb"
LINE = "node7.load.load.shortterm 0.5 1700000000\n"


def bare(key):
    return key.replace("-", "")


class RemoteNodes(FolderTest):
    @classmethod
    def setUpClass(cls):
        hold_origin()

    def start_web_server(self, **known):
        server = WebServer(self.folder / "web", **known)
        self.addCleanup(server.stop)
        return server

    def connect(self, daemon):
        client = SkeinClient(daemon.node_address)
        self.addCleanup(client.close)
        return client

    def send(self, client, key, line=LINE):
        return client.call("collectd", {"key": key, "metrics": line})

    def queued(self, daemon):
        with SkeinClient(daemon.socket) as local:
            return local.call("stats")["bonding"]["pending_data_len"]

    def start_quiet_pelorus(self, **options):
        """A daemon that writes nothing, so that its queues can be counted."""
        return self.start_pelorus({"PELORUS_IDEAL_QUEUED_MESSAGES": 900,
                                   "PELORUS_BUFFER_TIME": 1000}, **options)

    def test_confirmed_and_unknown_keys_side_by_side(self):
        web = self.start_web_server(keys=[bare(GOOD_KEY)])
        daemon = self.start_quiet_pelorus()
        good, bad = self.connect(daemon), self.connect(daemon)
        for _ in range(3):
            self.assertIsNone(self.send(good, GOOD_KEY))
            self.assertIsNone(self.send(bad, BAD_KEY))
        self.assertEqual(self.queued(daemon), 3)
        self.assertEqual(sorted(web.answers()),
                         ["key ending in aaaa: confirmed"] + ["key ending in bbbb: not known"] * 3)
        refusal = "Validation error - no node found for the key ending in bbbb."
        self.assertEqual(daemon.lines(WARNING).count(refusal), 3)
        for secret in (bare(GOOD_KEY), bare(BAD_KEY), GOOD_KEY, BAD_KEY, WWW_KEY, AUTH):
            self.assertNotIn(secret, daemon.text())

    def test_question_without_an_answer_holds_up_nobody_else(self):
        self.start_web_server(keys=[bare(GOOD_KEY)], hang=[bare(BAD_KEY)])
        daemon = self.start_quiet_pelorus()
        good, hanging = self.connect(daemon), self.connect(daemon)
        self.send(good, GOOD_KEY)
        hanging.send([0, 1, "collectd", {"key": BAD_KEY, "metrics": LINE}])
        for _ in range(20):
            self.send(good, GOOD_KEY)
        self.assertNotIn("Timed out trying to authenticate to web server.", daemon.text())
        begin = time.monotonic()
        daemon.send_signal(15)
        self.assertEqual(daemon.wait(), 0)
        self.assertLess(time.monotonic() - begin, 1)
        texts = [text for _, text in daemon.lines()]
        self.assertEqual(texts[-1], "Quitting.")
        self.assertEqual(sum(text.startswith("Disconnecting skein") for text in texts), 2)

    def test_second_instance_leaves_the_first_one_its_socket(self):
        daemon = self.start_quiet_pelorus()
        second = self.start_pelorus({"PELORUS_PORT": daemon.node_address[1],
                                     "INFLUX_UNIX_SOCKET": str(daemon.socket)}, ready=False)
        self.assertEqual(second.wait(), 0)
        self.assertTrue(any("Unhandled exception: bind to 127.0.0.1" in line
                            for line in second.lines(ERROR)))
        self.assertIsNone(second.notify.receive())
        self.assertEqual(self.queued(daemon), 0)
        started = [text.split(" at ")[0] for _, text in daemon.lines()]
        self.assertEqual(started[:3], ["Starting.", "Started skein socket", "Started local socket"])

    @unittest.skipUnless(PLUGIN.exists(), f"this build has no {PLUGIN.name}")
    def test_collectd_of_a_node_reaches_influxdb(self):
        self.start_web_server(keys=[bare(GOOD_KEY)])
        influx = Influxd(self.folder / "influxd")
        self.addCleanup(influx.stop)
        auth = influx.prepare(["tidewell", "bonding"])
        daemon = self.start_pelorus({"INFLUX_AUTH": auth, "PELORUS_BUFFER_TIME": 0.5,
                                     "INFLUX_HTTP_CONNECTION": influx.address})
        node = Collectd(self.folder / "collectd", PLUGIN, daemon.node_address, key=GOOD_KEY,
                        hostname="node1234")
        self.addCleanup(node.stop)
        wait_until(lambda: node.expect_running() and
                   {"cpu", "load", "memory"} <= influx.count_values("bonding").keys(),
                   "values of the node", 30, pause=0.3)
        [load] = influx.query("SELECT shortterm FROM load GROUP BY node", "bonding")
        self.assertEqual(load["tags"], {"node": "1234"})
        faults = [line for line in daemon.lines(WARNING) if not line.endswith("\"b''\"")]
        self.assertEqual((faults, daemon.lines(ERROR)), ([], []))
