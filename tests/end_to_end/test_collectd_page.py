"""What doc/collectd.md says of collectd's plugins, against a real collectd and the daemon's translator."""

import json
import re
import subprocess
import unittest

from harness import BUILD, REPOSITORY
from harness.daemon import PLUGIN
from harness.process import Process, wait_until
from harness.real_servers import collectd_configuration
from harness.skein_client import SkeinServer
from tests.end_to_end.support import FolderTest

UNTRIED = ("cpufreq", "ntpd")
TWO_READS = 2.5  # seconds: rates need two values


def documented_rows():
    """(plugin, options, and the sets of the three other columns) of the page's table."""
    for line in (REPOSITORY / "doc" / "collectd.md").read_text().splitlines():
        cells = [cell.strip() for cell in line.split("|")[1:-1]]
        if len(cells) == 5 and cells[0].startswith("`"):
            spans = [re.findall(r"`([^`]+)`", cell) for cell in cells]
            options = [option for text in spans[1] for option in text.split("; ")]
            yield spans[0][0], options, [set(span) for span in spans[2:]]


def translated(lines):
    run = subprocess.run([BUILD / "bin" / "pelorusctl", "translate", "--json"], input=lines, text=True,
                         stdout=subprocess.PIPE, timeout=60)
    return [json.loads(line) for line in run.stdout.splitlines()]


def facts(lines):
    """Measurements, refused names and overwritten fields."""
    measurements, refused, series = set(), set(), {}
    for line in translated(lines):
        if "error" in line:
            refused.add(re.sub(r"-.*", "", ".".join(line["series"].split(".")[1:3])))
            continue
        measurements.add(line["measurement"])
        target = (line["measurement"], *sorted(line["tags"].items()), line["key"])
        series.setdefault(target, set()).add(line["series"])
    return [measurements, refused, {name[-1] for name, names in series.items() if len(names) > 1}]


@unittest.skipUnless(PLUGIN.exists(), f"this build has no {PLUGIN.name}")
class CollectdPage(FolderTest):
    def start_collectd(self, name, plugin, options):
        """A collectd that sends what the plugin reads; where it sends it."""
        server, folder = self.ends_with_case(SkeinServer()), self.folder / name
        folder.mkdir()
        others = f"LoadPlugin {plugin}\n<Plugin {plugin}>\n" + "\n".join(options) + "\n</Plugin>"
        configuration = collectd_configuration(
            folder, PLUGIN, f'<Node "a">\nHost "127.0.0.1"\nPort {server.address[1]}\n</Node>', others)
        self.ends_with_case(Process(["collectd", "-f", "-C", configuration], folder / "log"))
        return server

    def test_every_row_of_the_table(self):
        rows = [row for row in documented_rows() if row[0] not in UNTRIED]
        servers = [self.start_collectd(f"row{number}", plugin, options)
                   for number, (plugin, options, _) in enumerate(rows)]
        seen = 0
        for (plugin, options, said), server in zip(rows, servers):
            with self.subTest(plugin, options=options):
                try:
                    wait_until(lambda: facts(server.metrics()) == said, said, TWO_READS * 4, pause=0.3)
                except AssertionError:
                    if server.metrics():  # else this machine has nothing for the plugin to read
                        self.assertEqual(facts(server.metrics()), said)
                    continue
                seen += 1
        self.assertGreater(seen, 15)

    def test_recommended_configurations_lose_nothing(self):
        for name in ("node", "server"):
            server = self.ends_with_case(SkeinServer())
            folder = self.folder / name
            folder.mkdir()
            text = (REPOSITORY / "packaging" / "collectd" / f"{name}.conf").read_text()
            text = re.sub(r"(?s)<Node .*</Node>", f'<Node "a">\nHost "127.0.0.1"\n'
                          f'Port {server.address[1]}\n</Node>', text)
            text = text.replace("Interval 10", "Interval 1").replace("/var/lib/influxdb", str(folder))
            text = text.replace("LoadPlugin write_skein",
                                f'PluginDir "{PLUGIN.parent}"\nLoadPlugin write_skein')
            (folder / "conf").write_text(
                f'BaseDir "{folder}"\nPIDFile "{folder}/pid"\nTypesDB "/usr/share/collectd/types.db"\n' +
                text)
            collectd = self.ends_with_case(Process(["collectd", "-f", "-C", folder / "conf"], folder / "log"))
            with self.subTest(name):
                wait_until(lambda: "cpu-0.cpu-idle" in server.metrics(), "rates", 20, pause=0.3)
                measurements, *lost = facts(server.metrics())
                self.assertEqual(lost, [set(), set()])
                self.assertLessEqual({"cpu", "load", "memory", "processes", "vmem"}, measurements)
                self.assertNotRegex(collectd.text(), r"(?i)error|warn|fail")
