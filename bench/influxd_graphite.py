"""influxd's own Graphite listener: what an administrator would take instead of this daemon."""

import json
import socket
import urllib.request

from harness.process import free_port, listens, wait_until
from harness.real_servers import Influxd

# Its templates cut a name at dots and put whole pieces into measurement, tags and field: as near to
# the daemon's rules as they come. Which template holds is found by the pieces before the blank.
LISTENER = """
[[graphite]]
  enabled = true
  database = "graphite"
  bind-address = "127.0.0.1:{port}"
  protocol = "tcp"
  separator = "_"
  batch-size = 5000
  batch-pending = 10
  batch-timeout = "200ms"
  templates = [
    "*.load.load.* host.measurement.skip.field",
    "*.memory.*.value host.measurement.type.field",
    "*.swap.*.value host.measurement.type.field",
    "*.processes.*.value host.measurement.type.field",
    "*.entropy.entropy.value host.measurement.skip.field",
    "*.uptime.uptime.value host.measurement.skip.field",
    "*.conntrack.*.value host.measurement.type.field",
    "*.irq.*.value host.measurement.type.field",
    "*.vmem.*.value host.measurement.type.field",
    "*.vmem.*.* host.measurement.type.field",
    "*.ntpd.*.value host.measurement.type.field",
    "*.nginx.*.value host.measurement.type.field",
    "*.redis.*.value host.measurement.type.field",
    "*.status.*.* host.measurement.type.field",
    "*.aggregator.*.* host.measurement.type.field",
    "*.*.if_octets.* host.instance.measurement.field",
    "*.*.if_packets.* host.instance.measurement.field",
    "*.*.if_errors.* host.instance.measurement.field",
    "*.*.if_dropped.* host.instance.measurement.field",
    "*.*.disk_octets.* host.instance.measurement.field",
    "*.*.disk_ops.* host.instance.measurement.field",
    "*.*.disk_time.* host.instance.measurement.field",
    "*.*.disk_merged.* host.instance.measurement.field",
    "*.*.traffic_bytes.* host.instance.measurement.field",
    "*.*.failures.* host.instance.measurement.field",
    "*.*.*.interface_statistics.* host.tunnel.link.measurement.field",
    "*.*.*.link_traffic.* host.tunnel.link.measurement.field",
    "*.*.reorderer.*.count host.tunnel.measurement.type.field",
    "*.*.balancer.flows.*.value host.tunnel.skip.measurement.type.field",
    "*.*.*.value host.instance.measurement.field",
    "host.instance.measurement.field*",
  ]
"""


class InfluxdGraphite(Influxd):
    """An influxd that listens for Graphite lines and stores them."""

    def __init__(self, folder):
        self.graphite_port = free_port()
        super().__init__(folder, LISTENER.format(port=self.graphite_port))
        wait_until(lambda: self.expect_running() and listens(self.graphite_port),
                   "influxd to listen", 30)

    def take(self, lines):
        """Sends lines over one connection and waits until all of them are stored."""
        before = self._points()
        with socket.create_connection(("127.0.0.1", self.graphite_port)) as stream:
            stream.sendall(lines)
        wanted = before + lines.count(b"\n")
        wait_until(lambda: self._points() >= wanted, "influxd to store all points", 120, pause=0.1)

    def _points(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/debug/vars") as answer:
            figures = json.load(answer)
        return sum(value["values"]["pointsTx"] for name, value in figures.items()
                   if name.startswith("graphite:"))
