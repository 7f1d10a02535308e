"""The road of local data into a real InfluxDB with authentication."""


from harness.daemon import WARNING
from harness.graphite_lines import collectd_lines
from harness.process import wait_until
from harness.real_servers import Influxd
from harness.skein_client import SkeinClient
from tests.end_to_end.support import FolderTest

RECORDS = 200_000
BLOCK_BYTES = 64 * 1024  # as collectd's plugin flushes; cuts through lines


class RealServers(FolderTest):
    def setUp(self):
        super().setUp()
        self.influx = Influxd(self.folder / "influxd")
        self.addCleanup(self.influx.stop)
        self.auth = self.influx.prepare(["tidewell", "bonding"])

    def start_daemon(self, **settings):
        return self.start_pelorus({"INFLUX_AUTH": self.auth,
                                   "INFLUX_HTTP_CONNECTION": self.influx.address, **settings})

    def test_200000_records_all_arrive(self):
        daemon = self.start_daemon(PELORUS_IDEAL_QUEUED_MESSAGES=8, PELORUS_MAX_BATCH_SIZE=500)
        text = "".join(collectd_lines(RECORDS))
        with SkeinClient(daemon.socket) as client:
            for begin in range(0, len(text), BLOCK_BYTES):
                client.collectd(text[begin:begin + BLOCK_BYTES])
            wait_until(lambda: self.arrived() >= RECORDS, f"{RECORDS} records", 90,
                       pause=0.3)
            self.assertEqual(client.call("stats")["tidewell"]["failure_count"], 0)
        self.assertEqual(self.arrived(), RECORDS)

    def arrived(self):
        counts = self.influx.count_values("tidewell")
        return sum(count for name, count in counts.items() if not name.startswith("proxy_"))

    def test_refused_credentials_are_counted_as_failures(self):
        daemon = self.start_daemon(INFLUX_AUTH="bm9ib2R5Om5vdGhpbmc=")
        with SkeinClient(daemon.socket) as client:
            client.collectd("m000.load.load.shortterm 0.5 1700000000\n")
            wait_until(lambda: client.call("stats")["tidewell"]["failure_count"], "the refusal")
        self.assertTrue(any("401" in line for line in daemon.lines(WARNING)))
        self.assertEqual(self.arrived(), 0)
