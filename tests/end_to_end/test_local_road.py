"""The road of local data through the real daemon: from the unix socket to a stand-in for InfluxDB
on loopback, and what becomes of it when either end misbehaves."""

import struct

from harness.conduct import status
from harness.daemon import AUTH, ERROR, INFO, WARNING, WWW_KEY
from harness.process import wait_until
from harness.skein_client import (ONE_WAY, REPLY, REQUEST, SkeinClient, SkeinError, block_frame,
                                  content_frame)
from harness.stub_influx import HANG, HANG_UP, NO_CONTENT, StubInflux
from tests.end_to_end.support import FolderTest

LOAD = "m000.load.load.shortterm 0.5 1700000000\n"
LOAD_RECORD = b"load shortterm=0.5 1700000000000000000"
LAST_LINE_WARNING = "Improperly formatted metric: \"b''\""


class RoadTest(FolderTest):
    """A case with a running daemon, a stand-in for InfluxDB and a connection as collectd has it."""

    settings = {}

    def setUp(self):
        super().setUp()
        self.influx = self.start_influx()
        self.daemon = self.start_pelorus(
            {"INFLUX_HTTP_CONNECTION": self.influx.address, **self.settings})
        self.client = self.connect()

    def start_influx(self, port=0):
        influx = StubInflux(port)
        self.addCleanup(influx.close)
        return influx

    def connect(self):
        client = SkeinClient(self.daemon.socket)
        self.addCleanup(client.close)
        return client

    def stats(self):
        return self.client.call("stats")["tidewell"]

    def wait_bodies(self, count):
        return wait_until(lambda: len(bodies := self.influx.written()) >= count and bodies,
                          f"{count} write requests")


class Writing(RoadTest):
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
            "m000.it's\x01.b 1 2 3\n")
        self.assertEqual(self.wait_bodies(1), [
            b"link_latency,node=1234,tunnel=4,link=2 value=12.5 1700000000000000000\n"
            b"cpu,cpu=0 idle=99i 1700000001000000000\n"
            b"filesystem,path=/var/log free=-3 1700000002000000000\n"])
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

    def test_text_that_is_not_utf8_is_passed_on(self):
        metrics = b"m000.disk-\xff\xc3\xa9.disk_octets.read 7 1700000000\n"
        self.client.collectd(metrics)  # sent as bin
        self.assertEqual(self.wait_bodies(1), [
            b"disk,device=\xff\xc3\xa9 read_octets=7i 1700000000000000000\n"])


class Batches(RoadTest):
    settings = {"PELORUS_MAX_BATCH_SIZE": 2, "PELORUS_MAX_PENDING_MESSAGES": 6,
                "PELORUS_DISCARD_SIZE": 2}

    def test_messages_wait_for_the_request_in_flight_and_the_oldest_go_when_full(self):
        self.influx.answer = HANG
        self.client.collectd("m000.load.load.shortterm 0 1700000000\n")
        self.wait_bodies(1)
        for number in range(1, 7):
            self.client.collectd(f"m000.load.load.shortterm {number} 1700000000\n")
        stats = self.stats()
        self.assertEqual((stats["has_current_request"], stats["pending_data_len"]), (True, 4))
        self.assertIn("Queue filled up, discarding data", self.daemon.lines(WARNING))

    def test_batch_is_messages_joined_by_line_feeds(self):
        self.influx.answer = HANG
        self.client.collectd(LOAD)
        self.wait_bodies(1)
        for number in range(1, 4):
            self.client.collectd(f"m000.load.load.shortterm {number} 1700000000\n")
        self.influx.close()
        self.influx = self.start_influx(self.influx.port)
        record = b"load shortterm=%di 1700000000000000000\n"
        self.assertEqual(self.wait_bodies(1)[0], record % 1 + b"\n" + record % 2)


class Failures(RoadTest):
    def test_each_failed_write_is_counted_until_one_succeeds(self):
        answers = [status(500, b'{"error":"disk is full"}'), status(200, b"{}"), HANG_UP]
        for failures, answer in enumerate(answers, 1):
            self.influx.answer = answer
            self.client.collectd(LOAD)
            wait_until(lambda: self.stats()["failure_count"] == failures, f"failure {failures}")
        self.influx.answer = NO_CONTENT
        self.assertEqual(len(self.warnings()), len(answers))
        self.client.collectd(LOAD)
        self.daemon.wait_log("Connected to InfluxDB API (tidewell database)")
        self.assertEqual(self.stats()["failure_count"], 0)
        self.assertEqual(self.influx.lines(), [LOAD_RECORD] * 4)  # a failed batch stays lost
        self.assertNotIn(AUTH, self.daemon.text())
        self.assertNotIn(WWW_KEY, self.daemon.text())

    def test_endpoint_that_was_away_gets_what_waited(self):
        self.influx.close()
        self.client.collectd(LOAD)
        wait_until(lambda: self.stats()["failure_count"] > 0, "a refused connection")
        self.influx = self.start_influx(self.influx.port)
        self.client.collectd(LOAD)
        self.daemon.wait_log("Connected to InfluxDB API (tidewell database)")
        self.assertEqual(self.influx.lines(), [LOAD_RECORD] * 2)
        self.assertNotEqual(self.warnings(), [])

    def warnings(self):
        return [line for line in self.daemon.lines(WARNING) if line != LAST_LINE_WARNING]


class Requests(RoadTest):
    def test_stats_describes_every_buffer(self):
        stats = self.client.call("stats")
        self.assertEqual(list(stats), ["tidewell", "bonding"])
        for buffer in stats.values():
            self.assertEqual(
                {key: type(value) for key, value in buffer.items()},
                {"has_current_request": bool, "pending_data_len": int, "failure_count": int,
                 "last_sent_time": float})

    def test_failure_is_answered_and_logged_with_a_trace(self):
        with self.assertRaisesRegex(SkeinError, r"^Intentionally failing for testing\.$"):
            self.client.call("fail")
        self.client.call("stats")
        self.assertEqual(self.daemon.lines(INFO)[-1], "Accepted local skein connection.")
        errors = self.daemon.lines(ERROR)
        self.assertEqual(errors[0],
                         "Exception in LocalServer: Intentionally failing for testing.")
        self.assertTrue(any("req_fail" in line for line in errors[1:]), errors)

    def test_requests_that_cannot_be_served_are_answered_where_they_have_a_number(self):
        answered = [[REQUEST, 7, "no_such_request", {}], [REQUEST, 7, "collectd", {}],
                    [REQUEST, 7, "collectd", {"metrics": 5}], [REQUEST, 7, "stats", [1]],
                    [REQUEST, 7, "collectd", {"metrics": ""}], [REQUEST, 7, "stats", {5: 6}],
                    [REQUEST, 7, "stop", {}], [REQUEST, 7, 5, {}], [REQUEST, 7], [REQUEST, 7, "a"]]
        silent = [[], {}, None, 5, "stats", [ONE_WAY, "fail", {}], [ONE_WAY, "stats"],
                  [REQUEST, -1, "stats", {}], [REQUEST, 2**32, "stats", {}], [REPLY, 1, None, {}],
                  [9, 1, "stats", {}]]
        for message in answered:
            with self.subTest(message=message):
                self.client.send(message)
                kind, msgid, error, result = self.client.receive()
                self.assertEqual((kind, msgid, result), (REPLY, 7, None))
                self.assertIsInstance(error, str)
        for message in silent:
            self.client.send(message)
        self.client.call("stats")  # the next reply belongs to this one, and the connection stands
        faults = [line for line in self.daemon.lines(ERROR)
                  if line.startswith("Exception in LocalServer: ")]
        self.assertEqual(len(faults), len(answered) + len(silent))

    def test_broken_stream_ends_its_connection_and_no_other(self):
        faults = {
            "frame of length 0": block_frame(b""),
            "frame of 19573451 bytes": struct.pack(">I", 19_573_451),
            "frame does not decompress": block_frame(b"\xff\xff\xff\xff\xff"),
            "content of 16777217 bytes": block_frame(b"\x81\x80\x80\x08" + b"x" * 900_000),
            "103 compressed bytes claim to hold 65536": block_frame(b"\x80\x80\x04" + b"x" * 100),
            "content is no MessagePack": content_frame(b"\xc1"),
            "content ends inside a MessagePack value": content_frame(b"\x92\x01"),
            "1 bytes behind the MessagePack value": content_frame(b"\x01\x01"),
            "content nested more than 32 deep": content_frame(b"\x91" * 33 + b"\x01"),
            "content of 1000001 elements":
                content_frame(b"\xdd\x00\x0f\x42\x41" + b"\xc0" * 1_000_001)}
        for number, (fault, data) in enumerate(faults.items(), 1):
            with self.subTest(fault), self.connect() as broken:
                broken.send_bytes(data)
                self.assertIsNone(broken.receive())
                warnings = self.daemon.lines(WARNING)
                self.assertEqual(len(warnings), number)
                self.assertRegex(warnings[-1], rf"local peer \(process \d+, user \d+\): {fault}\b")
        self.client.call("stats")


class Statistics(RoadTest):
    def test_the_daemon_reports_about_itself_after_ten_seconds(self):
        self.client.collectd(LOAD * 3)
        self.client.collectd(LOAD)
        report = wait_until(
            lambda: [body for body in self.influx.written() if body.startswith(b"proxy_")],
            "the statistics record", 20)[0]
        name, now = report.split(b"\n")[0].split(b" value=2 ")
        self.assertEqual(name, b"proxy_messages")
        self.assertEqual(report, b"proxy_messages value=2 %b\nproxy_records value=4 %b\n"
                                 b"proxy_successful_auths value=0 %b\n"
                                 b"proxy_failed_auths value=0 %b\n" % (now, now, now, now))
        self.assertEqual(len(now), 19)
