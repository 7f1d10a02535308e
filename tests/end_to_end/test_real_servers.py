"""The road of local data into a real InfluxDB with authentication."""

from harness.graphite_lines import collectd_lines
from harness.process import wait_until
from harness.real_servers import Influxd
from harness.skein_client import SkeinClient
from tests.end_to_end.support import FolderTest

RECORDS = 200_000
BLOCK_BYTES = 64 * 1024  # as collectd's plugin flushes; cuts through lines


class RealServers(FolderTest):
    def test_200000_records_all_arrive(self):
        influx = Influxd(self.folder / "influxd")
        self.addCleanup(influx.stop)
        daemon = self.start_pelorus({
            "INFLUX_AUTH": influx.prepare(["tidewell", "bonding"]),
            "INFLUX_HTTP_CONNECTION": influx.address,
            "PELORUS_IDEAL_QUEUED_MESSAGES": 8, "PELORUS_MAX_BATCH_SIZE": 500})

        def arrived():
            counts = influx.count_values("tidewell")
            return sum(count for name, count in counts.items() if not name.startswith("proxy_"))

        text = "".join(collectd_lines(RECORDS))
        with SkeinClient(daemon.socket) as client:
            for begin in range(0, len(text), BLOCK_BYTES):
                client.collectd(text[begin:begin + BLOCK_BYTES])
            wait_until(lambda: arrived() >= RECORDS, f"{RECORDS} records", 90, pause=0.3)
            self.assertEqual(client.call("stats")["tidewell"]["failure_count"], 0)
        self.assertEqual(arrived(), RECORDS)
