"""The road of local data through the real daemon: from the unix socket to a stand-in for InfluxDB
on loopback, and what becomes of it when either end misbehaves."""

from harness.daemon import ERROR, INFO, WARNING
from harness.http_server import HTTPServer
from harness.process import wait_until
from harness.skein_client import SkeinClient, SkeinError
from tests.end_to_end.support import FolderTest

LOAD = "m000.load.load.shortterm 0.5 1700000000\n"
LOAD_RECORD = b"load shortterm=0.5 1700000000000000000"
LAST_LINE_WARNING = "Improperly formatted metric: \"b''\""


class LocalRoad(FolderTest):
    """With a running daemon, a stand-in for InfluxDB and a connection as collectd has it."""

    def setUp(self):
        super().setUp()
        self.influx = HTTPServer()
        self.addCleanup(self.influx.close)
        self.daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": self.influx.address})
        self.client = self.connect()

    def connect(self):
        client = SkeinClient(self.daemon.socket)
        self.addCleanup(client.close)
        return client

    def test_block_becomes_one_message_without_its_bad_lines(self):
        self.client.collectd(
            "node1234.tunnel-4.link_2.latency.value 12.5 1700000000\n"
            "two fields\n"
            "m000.cpu-0.cpu-idle 99 1700000001\n"
            "m000.memory.memory-used nan 1700000001\n"
            "m000.foo.bar 1 1700000001\n"
            "host1.load.load.shortterm 1 1700000001\n"
            "m000.load 1 1700000001\n"
            "  m000.df-var-log.df_complex-free\t-3   1700000002 \n"
            "m000.it's\x01.b 1 2 3\n".encode() +
            b"m000.disk-\xff\xc3\xa9.disk_octets.read 7 1700000002\n")  # no UTF-8: sent as bin
        wait_until(self.influx.written, "a write request")
        self.assertEqual(self.influx.written(), [
            b"link_latency,node=1234,tunnel=4,link=2 value=12.5 1700000000000000000\n"
            b"cpu,cpu=0 idle=99i 1700000001000000000\n"
            b"filesystem,path=/var/log free=-3 1700000002000000000\n"
            b"disk,device=\xff\xc3\xa9 read_octets=7i 1700000002000000000\n"])
        self.assertEqual(self.daemon.lines(WARNING), [
            "Improperly formatted metric: \"b'two fields'\"",
            "Could not translate \"b'm000.foo.bar'\": No match for series",
            "Could not translate \"b'host1.load.load.shortterm'\": Invalid source type b'host'",
            "Unexpected error occurred when translating series",
            "Improperly formatted metric: \"b\"m000.it's\\x01.b 1 2 3\"\"",
            LAST_LINE_WARNING])
        details = "\n".join(self.daemon.lines(ERROR))
        self.assertIn("b'm000.load'", details)
        self.assertIn("add_graphite", details)  # the trace

    def test_cut_line_is_joined_within_its_connection_only(self):
        other = self.connect()
        self.client.collectd(LOAD + LOAD[:20])
        other.collectd(LOAD[:30])
        self.client.collectd(LOAD[20:])
        wait_until(lambda: self.influx.lines() == [LOAD_RECORD] * 2, "the joined line")
        self.assertEqual(set(self.daemon.lines(WARNING)), {LAST_LINE_WARNING})

    def test_failure_is_answered_and_logged_with_a_trace(self):
        with self.assertRaisesRegex(SkeinError, r"^Intentionally failing for testing\.$"):
            self.client.call("fail")
        self.client.call("stats")
        self.assertEqual(self.daemon.lines(INFO)[-1], "Accepted local skein connection.")
        errors = self.daemon.lines(ERROR)
        self.assertEqual(errors[0],
                         "Exception in LocalServer: Intentionally failing for testing.")
        self.assertTrue(any("req_fail" in line for line in errors[1:]), errors)
