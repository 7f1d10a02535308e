#!/usr/bin/python3
"""demo.py BUILD: collectd, pelorus and InfluxDB at work together, with nodes of which one is refused,
and what arrives, with charts of it.

Everything runs on free ports in a temporary folder and goes with it, but for the charts, which stay in
the build folder. At a terminal the servers stay until Ctrl-C; otherwise the program shows what there is
and ends."""

from contextlib import ExitStack
import math
from pathlib import Path
import random
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
import harness  # noqa: E402

if len(sys.argv) > 1:
    harness.use_build(sys.argv[1])

import charts  # noqa: E402
from harness import BUILD  # noqa: E402
from harness.daemon import PLUGIN, WARNING, Pelorus  # noqa: E402
from harness.http_server import WebServer  # noqa: E402
from harness.process import wait_until  # noqa: E402
from harness.real_servers import Collectd, Influxd  # noqa: E402
from harness.skein_client import SkeinClient  # noqa: E402

DATABASES = ["tidewell", "bonding"]
SETTINGS = {"PELORUS_BUFFER_TIME": 1, "PELORUS_IDEAL_QUEUED_MESSAGES": 50,
            "INFLUX_DATABASES": [{"name": name} for name in DATABASES]}
RUN = 42  # seconds: four of the daemon's reports about itself, one every ten seconds
CHARTS = BUILD / "demo" / "charts.png"

# A real collectd is the first node; the others are a few lines of Python. The last one's key has been
# withdrawn.
NODES = {"node1001": "aaaa1111-0000-4000-8000-000000001001",
         "node1002": "bbbb2222-0000-4000-8000-000000001002",
         "node1003": "cccc3333-0000-4000-8000-000000001003"}
WITHDRAWN = "node1003"


def heading(text):
    print(f"\n{text}\n{'-' * len(text)}", flush=True)


def short(value):
    return f"{value:.2f}".rstrip("0").rstrip(".") if isinstance(value, float) else str(value)


def table(titles, rows):
    """Columns as wide as their widest cell; columns of numbers to the right."""
    columns = list(zip(titles, *([str(cell) for cell in row] for row in rows)))
    aligned = []
    for title, *cells in columns:
        width = max(map(len, (title, *cells)))
        align = str.rjust if all(cell.isdigit() for cell in cells) else str.ljust
        aligned.append([align(cell, width) for cell in (title, *cells)])
    for row in zip(*aligned):
        print("  " + "   ".join(row).rstrip())


def latency(link, second):
    """Milliseconds, made up: each link has its own, the third one is in trouble for ten seconds."""
    trouble = 60 if link == 3 and 20 <= second < 30 else 0
    return 15 * link + trouble + 3 * math.sin(second / 4 + link) + random.random() * 2


class Demo:
    """The servers, the nodes, and the views of what they do."""

    def __init__(self, folder, on_exit):
        """`on_exit` stops the servers, the last one first."""
        self.folder = folder
        self.influx = Influxd(folder / "influxd")
        on_exit.callback(self.influx.stop)
        auth = self.influx.prepare(DATABASES)
        self.daemon = Pelorus(folder, {"INFLUX_AUTH": auth,
                                       "INFLUX_HTTP_CONNECTION": self.influx.address, **SETTINGS})
        on_exit.callback(self.daemon.stop)
        self.daemon.wait_ready()
        self.web = WebServer([key for name, key in NODES.items() if name != WITHDRAWN])
        on_exit.callback(self.web.close)
        self.collectd = Collectd(folder / "collectd", PLUGIN, self.daemon.socket)
        on_exit.callback(self.collectd.stop)
        first, *self.others = NODES
        self.node = Collectd(folder / first, PLUGIN, self.daemon.node_address, key=NODES[first],
                             hostname=first)
        on_exit.callback(self.node.stop)

    def send_values_of_links(self):
        """What the bonding software of nodes adds to the values of their collectd: one value of each
        link a second, for as long as the demonstration runs."""
        clients = {name: SkeinClient(self.daemon.node_address) for name in self.others}
        for second in range(RUN):
            for name, client in clients.items():
                lines = "".join(f"{name}.tunnel-4.link_{link}.latency.value "
                                f"{latency(link, second):.1f} {int(time.time())}\n"
                                for link in (1, 2, 3))
                client.call("collectd", {"key": NODES[name], "metrics": lines})
            time.sleep(1)
        for client in clients.values():
            client.close()

    def show_servers(self):
        heading("What runs")
        table(["server", "where", "what it does"], [
            ("collectd", self.collectd.folder, "reads this machine every second"),
            ("collectd", self.node.folder, "does the same as a remote node"),
            ("pelorus", self.daemon.socket, "translates, gathers and writes"),
            ("", "{}:{}".format(*self.daemon.node_address), "and lets nodes in by their keys"),
            ("influxd", self.influx.address, "stores, and wants a password"),
            ("web server", "a stand-in", "knows the keys of the nodes")])

    def gather(self):
        print(f"\nNodes and collectd send, for {RUN} seconds …", flush=True)
        self.send_values_of_links()
        wait_until(lambda: self.influx.query("SELECT last(value) FROM proxy_messages", "tidewell"),
                   "the daemon's statistics", 30)

    def show_measurements(self):
        heading('What collectd has brought into the database "tidewell"')
        counts = self.influx.count_values("tidewell")
        table(["measurement", "values", "newest", "one of its points"],
              [(name, count, *self.newest(name)) for name, count in sorted(counts.items())
               if not name.startswith("proxy_")])

    def newest(self, measurement):
        """Time of the newest point, and its tags and a few of its fields."""
        query = f'SELECT * FROM "{measurement}" GROUP BY * ORDER BY time DESC LIMIT 1'
        series = max(self.influx.query(query, "tidewell"), key=lambda each: each["values"][0][0])
        moment, *values = series["values"][0]
        cells = [f"{tag}={value}" for tag, value in series.get("tags", {}).items() if value]
        cells += [f"{field}={short(value)}" for field, value in
                  zip(series["columns"][1:], values) if value is not None]
        return (time.strftime("%H:%M:%S", time.localtime(moment)),
                "  ".join(cells[:3] + ["…"] * (len(cells) > 3)))

    def show_nodes(self):
        heading('What the nodes have brought into the database "bonding"')
        arrived = self.influx.query("SELECT count(*) FROM /.*/ GROUP BY node", "bonding")
        refusals = [line for line in self.daemon.lines(WARNING) if "no node found" in line]
        rows = []
        for name, key in NODES.items():
            series = [each for each in arrived if each["tags"]["node"] == name.removeprefix("node")]
            values = sum(sum(filter(None, each["values"][0][1:])) for each in series)
            said = next((line for line in refusals if key[-4:] in line), "its key is confirmed")
            rows.append((name, f"…{key[-4:]}", values, len(series), said))
        table(["node", "key", "values", "measurements", "the daemon says"], rows)

    def show_statistics(self):
        heading("What the daemon counted in its first 10 seconds")
        table(["measurement", "value"],
              [(series["name"], series["values"][0][1]) for series in
               self.influx.query("SELECT first(value) FROM /^proxy_/", "tidewell")])

    def show_status(self):
        heading("What the daemon says of itself (pelorusctl status)")
        reply = subprocess.run(self.pelorusctl(), check=True, timeout=20, text=True,
                               stdout=subprocess.PIPE)
        print("\n".join("  " + line for line in reply.stdout.splitlines()))

    def draw_charts(self):
        CHARTS.parent.mkdir(exist_ok=True)
        charts.draw(self.influx, CHARTS)
        heading("Charts, drawn out of InfluxDB")
        print(f"  {CHARTS}")

    def pelorusctl(self):
        return [str(BUILD / "bin" / "pelorusctl"), "--socket", str(self.daemon.socket), "status"]

    def show_commands(self):
        name, password = self.influx.ADMINISTRATOR
        influx = (f"influx -host 127.0.0.1 -port {self.influx.port} -username {name} "
                  f"-password {password} -database tidewell -precision rfc3339")
        heading("Look further, in another terminal")
        for command in (f"{influx} -execute 'SELECT * FROM cpu ORDER BY time DESC LIMIT 5'",
                        " ".join(self.pelorusctl()), f"tail -f {self.daemon.output}"):
            print(f"  {command}")


def main():
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(0))
    with ExitStack() as on_exit:
        folder = on_exit.enter_context(tempfile.TemporaryDirectory(prefix="pelorus-demo-"))
        demo = Demo(Path(folder), on_exit)
        demo.show_servers()
        demo.gather()
        demo.show_measurements()
        demo.show_nodes()
        demo.show_statistics()
        demo.show_status()
        demo.draw_charts()
        if sys.stdout.isatty():
            demo.show_commands()
            print("\nEverything stays until Ctrl-C, and leaves nothing behind.", flush=True)
            signal.pause()


if __name__ == "__main__":
    main()
