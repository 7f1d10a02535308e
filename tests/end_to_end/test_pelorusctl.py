"""pelorusctl beside a real daemon: what it shows is what the daemon has done."""

import json
import os
import re
import subprocess

from harness import BUILD
from harness.conduct import status
from harness.daemon import AUTH, WWW_KEY
from harness.process import wait_until
from harness.skein_client import SkeinClient, SkeinError
from harness.stub_influx import HANG, NO_CONTENT, StubInflux
from harness.web_server import WebServer
from tests.end_to_end.support import FolderTest

KEY = "0000aaaa-1111-2222-3333-44445555cccc"
LINE = "m000.load.load.shortterm 0.5 1700000000\n"
PARTIAL = b'{"error":"partial write: field type conflict: points dropped=3"}'


class Pelorusctl(FolderTest):
    def ctl(self, *arguments, stdin="", exit_status=0, **environment):
        """Standard output and error of one run."""
        run = subprocess.run([BUILD / "bin" / "pelorusctl", *map(str, arguments)], input=stdin,
                             text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             timeout=30, env={**os.environ, **environment})
        self.assertEqual(run.returncode, exit_status, f"{arguments}: {run.stdout}")
        for secret in (AUTH, WWW_KEY, KEY, KEY.replace("-", "")):
            self.assertNotIn(secret, run.stdout)
        return run.stdout

    def start_influx(self, answer=NO_CONTENT):
        influx = StubInflux(answer=answer)
        self.addCleanup(influx.close)
        return influx

    def status(self, daemon):
        return json.loads(self.ctl("status", "--json", "--socket", daemon.socket))

    def test_status_accounts_for_every_message(self):
        influx = self.start_influx()
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address,
                                     "PELORUS_MAX_PENDING_MESSAGES": 5, "PELORUS_DISCARD_SIZE": 2,
                                     "PELORUS_MAX_BATCH_SIZE": 1})
        local = SkeinClient(daemon.socket)
        self.addCleanup(local.close)

        def tidewell(**wanted):
            def amounts():
                now = self.status(daemon)["databases"]["tidewell"]
                seen = {name: now[name]["messages"] for name in wanted}
                return now if seen == wanted else None
            return wait_until(amounts, f"{wanted} messages in the status")

        local.collectd(LINE)
        tidewell(sent=1, queued=0, in_flight=0)
        influx.answer = status(400, PARTIAL)
        local.collectd(LINE)
        now = tidewell(failed=1, in_flight=0)
        record = len("load shortterm=0.5 1700000000000000000\n")
        self.assertEqual((now["sent"]["bytes"], now["failed"]["bytes"], now["largest_body"]),
                         (record, record, record))
        self.assertEqual((now["partial_writes"], now["dropped_points"]), (1, 3))
        self.assertIn("status 400: ", now["last_failure"])
        influx.answer = HANG
        local.collectd(LINE)
        tidewell(in_flight=1)
        for _ in range(6):
            local.collectd(LINE)
        now = tidewell(queued=4, discarded=2)
        self.assertEqual(now["max_pending"], 5)
        text = self.ctl("status", "--socket", daemon.socket)
        for words in (f"tidewell  4 ({4 * record} B)", "points that it dropped: 3",
                      "last failure", "local: 2 open"):
            self.assertIn(words, text)
        self.assertNotIn("\033", text)

    def test_status_shows_which_connection_is_in_trouble(self):
        daemon = self.start_pelorus()
        good, bad = SkeinClient(daemon.socket), SkeinClient(daemon.node_address)
        for client in (good, bad):
            self.addCleanup(client.close)
        good.collectd(LINE + LINE)
        good.collectd("two fields\nm000.foo.bar 1 1700000000\n")
        bad.call("collectd", {"key": KEY, "metrics": LINE})
        now = self.status(daemon)
        [node] = now["nodes"]["connections"]
        self.assertRegex(node["address"], r"^127\.0\.0\.1:\d+$")
        self.assertEqual((node["requests"], node["records"], node["refused_auths"],
                          node["key_ending"]), (1, 0, 1, "cccc"))
        sender = now["local"]["connections"][0]
        self.assertEqual((sender["requests"], sender["records"], sender["bad_lines"]), (2, 2, 2))
        self.assertEqual(sender["last_warning"],
                         "Could not translate \"b'm000.foo.bar'\": No match for series")
        self.assertEqual(now["totals"]["refused_auths"], 1)
        one = self.ctl("status", "--connections", 1, "--socket", daemon.socket)
        self.assertIn("local: 2 open, 1 listed", one)
        with self.assertRaisesRegex(SkeinError, "must be trouble, records"):
            good.call("status", {"order": "age"})

    def test_prometheus_text_can_be_parsed(self):
        daemon = self.start_pelorus({"INFLUX_DATABASES": [{"name": "tidewell"},
                                                          {"name": 'a"b\\c'}]})
        text = self.ctl("stats", "--prometheus", "--socket", daemon.socket)
        types, labels = set(), r'(\{\w+="([^"\\]|\\["\\n])*"\})?'
        for line in text.splitlines():
            if kind := re.fullmatch(r"# TYPE (pelorus_\w+) (counter|gauge)", line):
                types.add(kind[1])
            elif not line.startswith("# HELP "):
                sample = re.fullmatch(rf"(pelorus_\w+){labels} [-+.e\d]+", line)
                self.assertTrue(sample and sample[1] in types, line)
        self.assertIn('pelorus_queue_messages{database="a\\"b\\\\c"} 0', text)

    def test_monitoring(self):
        influx = self.start_influx(status(500))
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address})
        with SkeinClient(daemon.socket) as local:
            local.collectd(LINE)
        wait_until(lambda: self.status(daemon)["databases"]["tidewell"]["failure_count"], "failure")
        for arguments, exit_status, words in (
                (["--warn", "queue=1000,failures=9"], 0, "OK - 2 databases are well"),
                (["--warn", "failures=1"], 1, "WARNING - tidewell: failed writes: 1 (limit 1)"),
                (["--warn", "failures=1", "--crit", "failures=1"], 2, "CRITICAL - tidewell: "),
                (["--crit", "age=0", "--database", "bonding"], 2, "CRITICAL - bonding: seconds"),
                (["--crit", "failures=1", "--database", "bonding"], 0, "OK - 1 database is well"),
                (["--crit", "failures=1", "--database", "none"], 3, "none: no such database"),
                (["--crit", "length=1"], 3, "UNKNOWN - 'length=1' is no threshold"),
                (["--crit", "queue=1", "--json"], 3, "excludes"),
                (["--crit", "queue=1", "--socket", "/nowhere"], 3, "UNKNOWN - cannot connect")):
            if "--socket" not in arguments:
                arguments += ["--socket", daemon.socket]
            self.assertIn(words, self.ctl("stats", *arguments, exit_status=exit_status))

    def test_watch_draws_in_place_on_a_terminal(self):
        daemon = self.start_pelorus()
        command = f"{BUILD}/bin/pelorusctl status --watch 0.1 --socket {daemon.socket}"
        for environment, coloured in (({}, True), ({"NO_COLOR": "1"}, False)):
            run = subprocess.Popen(["script", "-qefc", command, "/dev/null"],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   env={**os.environ, "TERM": "xterm", **environment})
            shown = b""
            while shown.count(b"\033[H") < 3:
                more = os.read(run.stdout.fileno(), 4096)
                self.assertTrue(more, shown)
                shown += more
            run.terminate()
            run.stdout.close()
            run.wait(15)
            self.assertEqual(b"\033[1m" in shown, coloured)

    def test_translate(self):
        for text, words in (
                ("node7.load.load.shortterm", "tags         node=7"),
                ("m000.processes-nginx.ps_count.processes 4 1700000000",
                 'rule         process (starts with "processes-")')):
            self.assertIn(words, self.ctl("translate", text))
            self.assertIn(words, self.ctl("translate", stdin=f"{text}\n\n"))
        for text, words in (
                ("m000.foo.bar", "Could not translate \"b'm000.foo.bar'\": No match for series"),
                ("two fields", "Improperly formatted metric: \"b'two fields'\""),
                ("m000", "too few parts")):
            self.assertIn(words, self.ctl("translate", LINE, text, exit_status=1))
        both = LINE + LINE.replace("0.5", "1") + LINE.replace("short", "long")
        self.assertRegex(self.ctl("translate", "--lint", stdin=both, exit_status=1),
                         r"^field shortterm of measurement load is an integer in .* 1\" and a float "
                         r"in .* 0.5\"\n3 lines, 0 not translated, 1 field of two types\n$")
        self.assertEqual(json.loads(self.ctl("translate", "--json", "node7.load.load.a"))["tags"],
                         {"node": "7"})

    def test_check(self):
        good = {"PELORUS_MAX_PENDING_MESSAGES": 10000, "PELORUS_BUFFER_TIME": 10,
                "PELORUS_IDEAL_QUEUED_MESSAGES": 500, "PELORUS_MAX_BATCH_SIZE": 1000,
                "PELORUS_DISCARD_SIZE": 1000,
                "INFLUX_DATABASES": [{"name": "tidewell"}, {"name": "bonding"}],
                "INFLUX_UNIX_SOCKET": str(self.folder / "socket"), "INFLUX_AUTH": AUTH,
                "INFLUX_HTTP_CONNECTION": "127.0.0.1:8086", "PELORUS_SERVER": "0.0.0.0",
                "PELORUS_PORT": 8995, "LOCAL_WWW_KEY": WWW_KEY}
        file = self.folder / "settings.json"

        def check(changes, exit_status):
            changed = {**good, **changes}
            file.write_text(json.dumps({k: v for k, v in changed.items() if v is not None}))
            file.chmod(0o600)
            return self.ctl("check", exit_status=exit_status, PELORUS_SETTINGS=str(file))

        self.assertEqual(check({}, 0), f"{file} can be used\n")
        for changes, words in (
                ({"INFLUX_DATABASES": [{"name": "tidewell"}, {"name": "a b"}]}, "holds a blank"),
                ({"PELORUS_PORT": 70000}, "is no TCP port"),
                ({"PELORUS_SERVER": "::1"}, "is an IPv6 address"),
                ({"INFLUX_UNIX_SOCKET": "/" + 107 * "x"}, "has 108 bytes"),
                ({"INFLUX_AUTH": f"{AUTH} "}, "INFLUX_AUTH in"),
                ({"LOCAL_WWW_KEY": f"{WWW_KEY}\n"}, "holds a control byte"),
                ({"PELORUS_MAX_BATCH_SIZE": 0}, "must be 1 or more")):
            self.assertIn(words, check(changes, 1))
        for key in good:
            self.assertIn(f"Setting {key} is missing", check({key: None}, 1))
            self.assertIn(f"Setting {key} in {file} must be", check({key: {}}, 1))
        for changes, words in (
                ({"PELORUS_MAX_BATCH_SIZE": 2000}, "InfluxDB takes 25,000,000"),
                ({"PELORUS_DISCARD_SIZE": 10000}, "is not below PELORUS_MAX_PENDING_MESSAGES"),
                ({"INFLUX_DATABASES": [{"name": "bonding"}]}, 'lacks "tidewell"'),
                ({"INFLUX_DATABASES": [{"name": "tidewell"}] * 2}, "twice"),
                ({"INFLUX_UNIX_SOCKET": "/nowhere/socket"}, "there is no folder /nowhere"),
                ({"PELORUS_IDEAL_QUEUED_MESSAGES": 10000}, "only the time lets a batch go")):
            self.assertRegex(check(changes, 0), f"can be used\nwarning: .*{words}")
        file.chmod(0o644)
        self.assertIn("open to every account", self.ctl("check", file))
        file.write_text('{"INFLUX_AUTH": ' + AUTH)
        self.assertIn("are no valid JSON", self.ctl("check", file, exit_status=1))

    def test_send_takes_every_kind_of_line(self):
        web = WebServer(self.folder / "web", keys=[KEY.replace("-", "")])
        self.addCleanup(web.stop)
        influx = self.start_influx()
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address})
        key_file = self.folder / "key"
        key_file.write_text(KEY + "\n")
        remote = ["--host", "127.0.0.1", "--port", daemon.node_address[1]]
        name = "node12.tunnel_7.link_wan1.overall_state"
        points = f"{name} 1500000000000 up\n{name} 1500000001000 no carrier\nnode12.tunnel_7.x 5 y"
        for kind, lines, written in (
                ("graphite", LINE.replace("m000", "node7"),
                 ["load,node=7 shortterm=0.5 1700000000000000000"]),
                ("add", "a,b=c d=1i 5\n", ["a,b=c d=1i 5"]),
                ("submit", points,
                 ['link_state,node=12,tunnel=7,link=wan1 overall="up" 1500000000000000000',
                  'link_state,node=12,tunnel=7,link=wan1 overall="no carrier" 1500000001000000000',
                  'tunnel_state,node=12,tunnel=7 x="y" 5000000'])):
            file = self.folder / kind
            file.write_text(lines)
            output = self.ctl("send", "--kind", kind, file, *remote, "--key-file", key_file)
            self.assertRegex(output, rf"^{len(lines.splitlines())} lines? sent\n$")
            wait_until(lambda: all(line.encode() in influx.lines() for line in written), kind)
        self.assertIn("bonding", self.ctl("stats", "--socket", daemon.socket))
        for arguments, stdin, words in (
                (["--kind", "submit", *remote], "a b c\n", "'a b c' is no point"),
                (["--kind", "add", *remote, "--database", "none"], "a b=1 5\n", "no database 'none'"),
                ([self.folder / "none"], "", "cannot read")):
            output = self.ctl("send", *arguments, stdin=stdin, PELORUS_NODE_KEY=KEY,
                              exit_status=7 if "none" in words and arguments[0] == "--kind" else 1)
            self.assertIn(words, output)
        self.assertIn("need --host", self.ctl("send", "--kind", "add", exit_status=2))
