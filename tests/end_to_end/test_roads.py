"""The roads of data through the real daemon, from the unix socket and over TCP, to a stand-in for InfluxDB."""

import signal
import time

from harness.daemon import ERROR, INFO, WARNING
from harness.http_server import HTTPServer, WebServer, hanging
from harness.process import wait_until
from harness.skein_client import REQUEST, SkeinClient, SkeinError
from tests.end_to_end.support import FolderTest

GOOD_KEY = "11112222-3333-4444-5555-66667777aaaa"
BAD_KEY = "99998888-7777-6666-5555-44443333bbbb"
LINE = "node7.load.load.shortterm 0.5 1700000000\n"


class LocalRoad(FolderTest):
    """With a running daemon, a stand-in for InfluxDB and a connection as collectd has it."""

    def setUp(self):
        super().setUp()
        self.influx = self.ends_with_case(HTTPServer())
        self.daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": self.influx.address})
        self.client = self.ends_with_case(SkeinClient(self.daemon.socket))

    def test_block_becomes_one_message_without_its_bad_lines(self):
        self.client.collectd(
            "node1234.tunnel-4.link_2.latency.value 12.5 1700000000\n"
            "two fields\n"
            "m000.load 1 1700000001\n".encode() +
            b"m000.disk-\xff\xc3\xa9.disk_octets.read 7 1700000002\n")  # no UTF-8: sent as bin
        wait_until(self.influx.written, "a write request")
        self.assertEqual(self.influx.written(), [
            b"link_latency,node=1234,tunnel=4,link=2 value=12.5 1700000000000000000\n"
            b"disk,device=\xff\xc3\xa9 read_octets=7i 1700000002000000000\n"])
        self.assertEqual(self.daemon.lines(WARNING), [
            "Improperly formatted metric: \"b'two fields'\"",
            "Unexpected error occurred when translating series",
            "Improperly formatted metric: \"b''\""])  # the last line
        details = "\n".join(self.daemon.lines(ERROR))
        self.assertIn("b'm000.load'", details)
        self.assertIn("add_graphite", details)  # the trace

    def test_failure_is_answered_and_logged_with_a_trace(self):
        with self.assertRaisesRegex(SkeinError, r"^Intentionally failing for testing\.$"):
            self.client.call("fail")
        self.client.call("stats")
        self.assertEqual(self.daemon.lines(INFO)[-1], "Accepted local skein connection.")
        errors = self.daemon.lines(ERROR)
        self.assertEqual(errors[0],
                         "Exception in LocalServer: Intentionally failing for testing.")
        self.assertTrue(any("req_fail" in line for line in errors[1:]), errors)


class RemoteNodes(FolderTest):
    def test_questions_and_writes_without_an_answer_hold_up_nobody_else_nor_the_end(self):
        self.ends_with_case(WebServer([GOOD_KEY], hang=[BAD_KEY.replace("-", "")]))
        influx = self.ends_with_case(HTTPServer(conduct=hanging))
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address})
        with (SkeinClient(daemon.node_address) as good, SkeinClient(daemon.node_address) as waiting):
            waiting.send([REQUEST, 1, "collectd", {"key": BAD_KEY, "metrics": LINE}])
            for _ in range(20):
                good.call("collectd", {"key": GOOD_KEY, "metrics": LINE})
            wait_until(influx.written, "the request that hangs")
            self.assertNotIn("Timed out trying to authenticate to web server.", daemon.text())
            begin = time.monotonic()
            daemon.send_signal(signal.SIGTERM)
            self.assertEqual(daemon.wait(), 0)
            self.assertLess(time.monotonic() - begin, 1)
        texts = daemon.lines(INFO)
        self.assertEqual((texts[0], daemon.lines()[-1]), ("Starting.", (INFO, "Quitting.")))
        self.assertRegex(daemon.lines(WARNING)[-1], r"^Messages left unwritten: 20 of bonding "
                         r"\(\d+ of them in a write that was not answered\)\.$")
        self.assertEqual(sum(text.startswith("Disconnecting skein") for text in texts), 2)
        self.assertFalse([line for line in daemon.lines(WARNING) if "failed" in line])

    def test_second_instance_leaves_the_first_one_its_socket(self):
        daemon = self.start_pelorus()
        second = self.start_pelorus({"PELORUS_PORT": daemon.node_address[1],
                                     "INFLUX_UNIX_SOCKET": str(daemon.socket)}, ready=False)
        self.assertEqual(second.wait(), 0)
        self.assertTrue(any("Unhandled exception: bind to 127.0.0.1" in line
                            for line in second.lines(ERROR)))
        self.assertIsNone(second.notify.receive())
        with SkeinClient(daemon.socket) as local:
            local.call("stats")
        started = [text.split(" at ")[0] for _, text in daemon.lines()]
        self.assertEqual(started[:3], ["Starting.", "Started skein socket", "Started local socket"])
