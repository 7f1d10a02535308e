"""Every query of the dashboard and of the alert rules, run against InfluxDB on what the daemon has
written there: each finds something, so none names a measurement or field that does not exist."""

import json
import time

from harness import REPOSITORY
from harness.http_server import WebServer
from harness.process import wait_until
from harness.real_servers import Influxd
from harness.skein_client import SkeinClient
from tests.end_to_end.support import FolderTest

FOLDER = REPOSITORY / "packaging" / "grafana"
DATABASES = ["tidewell", "bonding"]
KEY = "aaaa1111-0000-4000-8000-000000001001"

HOST = {"cpu-0.cpu-user": 7.5, "cpu-0.cpu-system": 2.5, "cpu-0.cpu-wait": 0.5,
        "load.load.shortterm": 0.5, "load.load.longterm": 0.25,
        "memory.memory-used": 4e9, "memory.memory-cached": 2e9, "memory.memory-free": 1e9,
        "df-root.df_complex-used": 3e10, "df-root.df_complex-free": 7e10,
        "interface-eth0.if_octets.rx": 1000.5, "interface-eth0.if_octets.tx": 500.5,
        "disk-sda.disk_octets.read": 100.5, "disk-sda.disk_octets.write": 200.5}
LINKS = {"tunnel-4.link_1.latency.value": 12.5, "link-1.packet_loss.value": 0.5,
         "tunnel-4.tun_traffic.rx": 1000.5, "tunnel-4.tun_traffic.tx": 500.5,
         "tunnel-4.link-1.interface_statistics.rx_packets": 10.5,
         "tunnel-4.link-1.interface_statistics.tx_packets": 11.5}


def lines(host, values):
    return "".join(f"{host}.{name} {value} {int(time.time())}\n" for name, value in values.items())


def queries():
    """(title, database, query) of every panel, variable and alert rule."""
    dashboard = json.loads((FOLDER / "pelorus.json").read_text())
    for panel in dashboard["panels"]:
        for target in panel.get("targets", ()):
            yield panel["title"], panel["datasource"]["uid"].strip("${}"), target["query"]
    for variable in dashboard["templating"]["list"]:
        if variable["type"] == "query":
            yield variable["name"], variable["datasource"]["uid"].strip("${}"), variable["query"]
    for group in json.loads((FOLDER / "alerts.json").read_text())["groups"]:
        for rule in group["rules"]:
            for part in rule["data"]:
                if part["datasourceUid"] in DATABASES:
                    yield rule["title"], part["datasourceUid"], part["model"]["query"]


def filled_in(query):
    """What Grafana would send for a panel of an hour with all nodes."""
    return (query.replace("$timeFilter", "time > now() - 1h").replace("$__interval", "10s")
            .replace("$node", ".*"))


class Dashboards(FolderTest):
    def setUp(self):
        super().setUp()
        self.influx = self.ends_with_case(Influxd(self.folder / "influxd"))
        self.daemon = self.start_pelorus({"INFLUX_AUTH": self.influx.prepare(DATABASES),
                                          "INFLUX_HTTP_CONNECTION": self.influx.address})
        self.ends_with_case(WebServer([KEY]))

    def send_everything(self):
        with SkeinClient(self.daemon.socket) as client:
            client.collectd(lines("m000", HOST))
        now = 1000 * int(time.time())
        with SkeinClient(self.daemon.node_address) as client:
            client.call("collectd", {"key": KEY, "metrics": lines("node1001", {**HOST, **LINKS})})
            for name in ("tunnel_4.link_1", "tunnel_4.overall_state"):
                series = f"node1001.{name}" + (".overall_state" if "link" in name else "")
                client.call("submit", {"key": KEY, "database": "bonding", "name": series,
                                       "columns": ["time", "value"], "points": [[now, "up"]],
                                       "time_precision": "m"})

    def test_every_query_finds_something(self):
        self.send_everything()
        wait_until(lambda: self.influx.query("SELECT last(value) FROM proxy_records", "tidewell"),
                   "the daemon's report about itself", 30, pause=0.2)
        found = list(queries())
        self.assertGreater(len(found), 20)
        for title, database, query in found:
            with self.subTest(title, query=query):
                self.assertIn(database, DATABASES)
                series = self.influx.query(filled_in(query), database)
                values = [value for each in series for row in each["values"] for value in row[1:]]
                self.assertTrue(any(value is not None for value in values), series)
