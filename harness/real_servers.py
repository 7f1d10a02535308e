"""InfluxDB and collectd as Debian packages them, started by hand on free ports, with folders of
their own."""

import base64
import http.client
import json
from pathlib import Path
import urllib.parse

from harness.process import Process, free_port, wait_until

INFLUXD_CONFIGURATION = """
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
"""

COLLECTD_CONFIGURATION = """
Hostname "{hostname}"
FQDNLookup false
Interval {interval}
BaseDir "{folder}"
PIDFile "{folder}/collectd.pid"
TypesDB "/usr/share/collectd/types.db"
{others}
PluginDir "{plugin.parent}"
LoadPlugin {plugin.stem}
<Plugin {plugin.stem}>
{nodes}
</Plugin>
"""


def collectd_configuration(folder, plugin, nodes, others, interval=1, hostname="m000"):
    """A file, for our `plugin` with these nodes and for others."""
    configuration = folder / "collectd.conf"
    configuration.write_text(COLLECTD_CONFIGURATION.format(
        folder=folder, interval=interval, plugin=plugin, hostname=hostname, nodes=nodes,
        others=others))
    return configuration


def _base64(name, password):
    return base64.b64encode(f"{name}:{password}".encode()).decode()


class Influxd(Process):
    """An InfluxDB, by default with authentication on."""

    ADMINISTRATOR = ("admin", "admin-password")
    WRITER = ("pelorus", "writer-password")  # may write, and nothing else
    AUTHENTICATION = "auth-enabled = true\n"

    def __init__(self, folder, more=AUTHENTICATION):
        self.folder = Path(folder)
        self.folder.mkdir()
        self.port = free_port()
        self.address = f"127.0.0.1:{self.port}"
        self._rpc_port = free_port()
        self.start(more)

    def start(self, more=AUTHENTICATION):
        """Also again, once it has ended. `more`: of its section "http", and sections behind it."""
        configuration = self.folder / "influxdb.conf"
        configuration.write_text(INFLUXD_CONFIGURATION.format(
            folder=self.folder, http_port=self.port, rpc_port=self._rpc_port) + more)
        super().__init__(["influxd", "run", "-config", configuration],
                         self.folder / "influxd.log")

    def prepare(self, databases):
        """Waits until it answers, then makes the accounts and databases. Returns INFLUX_AUTH."""
        wait_until(self._answers, "influxd to answer", 30)
        self.query("CREATE USER {} WITH PASSWORD '{}' WITH ALL PRIVILEGES"
                   .format(*self.ADMINISTRATOR))
        self.query("CREATE USER {} WITH PASSWORD '{}'".format(*self.WRITER))
        for name in databases:
            self.query(f"CREATE DATABASE {name}")
            self.query(f"GRANT WRITE ON {name} TO {self.WRITER[0]}")
        return _base64(*self.WRITER)

    def query(self, text, database=""):
        """The series of the answer: maps with "name", "columns" and "values"."""
        path = "/query?" + urllib.parse.urlencode({"q": text, "db": database, "epoch": "s"})
        status, body = self._request("POST", path)
        answer = json.loads(body)
        [result] = answer.get("results", [answer])
        if status != 200 or "error" in result:
            raise AssertionError(f"{text}: {status} {body}")
        return result.get("series", [])

    def write(self, database, record, credentials):
        """The status of the answer."""
        return self._request("POST", f"/write?db={database}", record.encode(), credentials)[0]

    def count_values(self, database):
        """Field values per measurement."""
        return {series["name"]: sum(filter(None, series["values"][0][1:]))
                for series in self.query("SELECT count(*) FROM /.*/", database)}

    def _request(self, method, path, body=None, credentials=_base64(*ADMINISTRATOR)):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            connection.request(method, path, body, headers={"Authorization": f"Basic {credentials}"})
            answer = connection.getresponse()
            return answer.status, answer.read().decode()
        finally:
            connection.close()

    def _answers(self):
        self.expect_running()
        try:
            return self._request("GET", "/ping")[0] == 204
        except OSError:
            return False


class Collectd(Process):
    """A collectd that reads this machine's values and hands them to our write plugin."""

    PLUGINS = ("cpu", "df", "disk", "entropy", "interface", "irq", "load", "memory", "processes",
               "swap", "uptime", "vmem")

    def __init__(self, folder, plugin, address, interval=1, key=None, hostname="m000"):
        """`address`: the daemon's local socket, or host and port, where `key` is sent too."""
        self.folder = Path(folder)
        self.folder.mkdir()
        configuration = collectd_configuration(
            self.folder, plugin, f'<Node "pelorus">\n{self._destination(address, key)}\n</Node>',
            "\n".join(f"LoadPlugin {name}" for name in self.PLUGINS), interval, hostname)
        super().__init__(["collectd", "-f", "-C", configuration], self.folder / "collectd.log")

    def _destination(self, address, key):
        if not isinstance(address, tuple):
            return f'Socket "{address}"'
        key_file = self.folder / "node.key"
        key_file.touch(mode=0o600)
        key_file.write_text(key + "\n")
        return f'Host "{address[0]}"\nPort "{address[1]}"\nNodeKeyFile "{key_file}"'
