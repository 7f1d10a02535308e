"""influxd's own Graphite listener: what an administrator would take instead of this daemon."""

from pathlib import Path
import socket
import subprocess
import urllib.request
import json

from support import Process, free_port, wait_until

# Its templates cut a name at dots and put whole pieces into measurement, tags and field: as near to
# the daemon's rules as they come. Which template holds is found by the pieces before the blank.
CONFIGURATION = """
reporting-disabled = true
bind-address = "127.0.0.1:{rpc_port}"
[meta]
  dir = "{folder}/meta"
[data]
  dir = "{folder}/data"
  wal-dir = "{folder}/wal"
  query-log-enabled = false
[monitor]
  store-enabled = false
[http]
  bind-address = "127.0.0.1:{http_port}"
  log-enabled = false
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


class InfluxdGraphite(Process):
    """An influxd that listens for Graphite lines and stores them."""

    def __init__(self, folder):
        folder = Path(folder)
        folder.mkdir()
        self.port, self.http_port = free_port(), free_port()
        configuration = folder / "influxdb.conf"
        configuration.write_text(CONFIGURATION.format(
            folder=folder, port=self.port, http_port=self.http_port, rpc_port=free_port()))
        super().__init__(["influxd", "run", "-config", configuration], folder / "influxd.log")
        wait_until(lambda: self.expect_running() and self._listens(), "influxd to listen", 30)

    def take(self, lines):
        """Sends lines over one connection and waits until all of them are stored."""
        before = self._points()
        with socket.create_connection(("127.0.0.1", self.port)) as stream:
            stream.sendall(lines)
        wanted = before + lines.count(b"\n")
        wait_until(lambda: self._points() >= wanted, "influxd to store all points", 120, pause=0.1)

    def _listens(self):
        try:
            socket.create_connection(("127.0.0.1", self.port)).close()
            return True
        except OSError:
            return False

    def _points(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.http_port}/debug/vars") as answer:
            figures = json.load(answer)
        return sum(value["values"]["pointsTx"] for name, value in figures.items()
                   if name.startswith("graphite:"))
