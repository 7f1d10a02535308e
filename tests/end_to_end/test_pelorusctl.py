"""pelorusctl beside a real daemon: what it shows is what the daemon has done."""

import json
import os
from pathlib import Path
import re
import socket
import subprocess
import time
import unittest

from harness import BUILD, REPOSITORY
from harness.daemon import AUTH, WWW_KEY
from harness.http_server import NO_CONTENT, HTTPServer, WebServer, answering, hanging, status
from harness.ledger import account
from harness.process import wait_until
from harness.real_servers import Influxd
from harness.skein_client import HANG_UP, SILENCE, SkeinClient, SkeinError, SkeinServer
from tests.end_to_end.support import FolderTest

KEY = "0000aaaa-1111-2222-3333-44445555cccc"
LINE = "m000.load.load.shortterm 0.5 1700000000\n"
EXAMPLE = REPOSITORY / "packaging" / "settings.example.json"
PARTIAL = b'{"error":"partial write: field type conflict: points dropped=3"}'


def example(**changes):
    """The example's settings with changes, and with a token that must not be shown."""
    settings = json.loads(EXAMPLE.read_text())
    return {**{key: value for key, value in settings.items() if key[0] != "_"},
            "PELORUS_SERVER": "127.0.0.1", "LOCAL_WWW_KEY": WWW_KEY, **changes}


class CtlTest(FolderTest):
    def ctl(self, *arguments, stdin="", exit_status=0, wrapper=(), **environment):
        """Standard output and error of one run."""
        run = subprocess.run([*wrapper, BUILD / "bin" / "pelorusctl", *map(str, arguments)],
                             input=stdin, text=True, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, timeout=30, env={**os.environ, **environment})
        self.assertEqual(run.returncode, exit_status, f"{arguments}: {run.stdout}")
        for secret in (AUTH, WWW_KEY, KEY, KEY.replace("-", "")):
            self.assertNotIn(secret, run.stdout)
        return run.stdout


class PelorusctlAlone(CtlTest):
    """Beside a server that answers as told, or without one."""

    def start(self, answer=lambda *_: (None, None), name="socket"):
        return self.ends_with_case(SkeinServer(self.folder / name, answer))

    def test_stats_for_people_and_for_programs(self):
        stats = {"tidewell": {"has_current_request": True, "pending_data_len": 12,
                              "failure_count": 0, "last_sent_time": 1700000000.75},
                 "bonding": {"failure_count": "many"}}
        stub = self.start(lambda *_: (None, stats))
        self.assertEqual(self.ctl("stats", "--socket", stub.address, TZ="UTC"),
                         "database  writing  waiting  failures  last write\n"
                         "tidewell  yes           12         0  2023-11-14 22:13:20\n"
                         "bonding   ?              ?         ?  ?\n")
        self.assertIn("bonding", self.ctl("stats", PELORUS_SOCKET=str(stub.address)))
        self.assertEqual(self.ctl("--socket", stub.address, "stats", "--json"),
                         json.dumps(stats, indent=2) + "\n")

    def test_watch_prints_one_object_a_line(self):
        stub = self.start(lambda *_: (None, {"a": {"b": 1}}))
        for command in ("stats", "status"):
            run = subprocess.Popen([BUILD / "bin" / "pelorusctl", command, "--watch", "0.1", "--json",
                                    "--socket", stub.address], stdout=subprocess.PIPE)
            with run:
                self.assertEqual([run.stdout.readline() for _ in range(2)], [b'{"a":{"b":1}}\n'] * 2)
                run.terminate()

    def test_watch_fits_the_terminal(self):
        looks = []

        def status_reply(*_):
            looks.append(1)
            peer = {"address": "10.0.0.1:40000", "since": 1e9, "last_seen": time.time(), "requests": 5,
                    "records": 7000 * len(looks), "bad_lines": 1, "last_warning": "",
                    "refused_auths": 0, "key_ending": "cccc"}
            amount = {"messages": 10 * len(looks), "bytes": 9**9}
            return None, {
                "version": "1", "started": 1e9, "uptime": 10.0 * len(looks), "loop_delay": 0.001,
                "totals": {"messages": 20 * len(looks), "records": 4},
                "databases": {**{f"good{n}": {"sent": amount} for n in range(8)},
                              "tidewell": {"queued": amount, "sent": amount, "failed": amount,
                                           "failure_count": 7, "last_failure": "x" * 500,
                                           "max_pending": 10000}},
                "nodes": {"open": 60, "connections": [peer] * 20},
                "local": {"open": 1, "connections": [peer]}}

        stub = self.start(status_reply)
        tmux = ["tmux", "-S", self.folder / "tmux", "-f", "/dev/null"]

        def run(*words):
            return subprocess.run([*tmux, *words], stdout=subprocess.PIPE, text=True, check=True,
                                  timeout=10, env={**os.environ, "NO_COLOR": ""}).stdout

        def screen(*words):
            """As soon as it shows all words and its last line is left to the cursor."""
            def shown():
                lines = run("capture-pane", "-p").split("\n")[:-1]
                found = all(word in "\n".join(lines) for word in words) and not lines[-1]
                return found and [line for line in lines if line]
            return wait_until(shown, words)

        ended = Path(self.folder, "ended")
        run("new-session", "-d", "-x", "80", "-y", "24", "sh", "-c",
            "trap '' HUP; program=$1 ended=$2; shift 2; \"$program\" \"$@\"; echo $? > \"$ended\"", "sh",
            BUILD / "bin" / "pelorusctl", ended, "status", "--watch", "0.1", "--socket", stub.address)
        # It fails when its terminal is closed, although it ignores the hang-up.
        self.addCleanup(wait_until, lambda: ended.exists() and ended.read_text() == "1\n", "the end")
        self.addCleanup(run, "kill-server")
        lines = screen("messages received: ", "(2.0/s)", "sent/s", "700", "last good write",
                       "bad lines", "local: 1 open")
        self.assertTrue(lines[0].startswith("pelorus 1"))
        self.assertNotIn("largest write", "".join(lines))
        nodes = [line for line in lines if line.startswith("10.0.0.")][:-1]  # the last is local
        self.assertIn(f"… and {60 - len(nodes)} more", lines)
        self.assertGreater(len(nodes), 2)
        self.assertTrue(any(line.endswith("x…") and len(line) == 80 for line in lines))
        self.assertEqual(run("display", "-p", "#{history_size}"), "0\n")
        run("resize-window", "-x", "130", "-y", "60")
        self.assertEqual(len([line for line in screen("largest write", "… and 40 more")
                              if line.startswith("10.0.0.")]), 21)
        run("resize-window", "-x", "60", "-y", "15")
        shown = screen("… and 8 more", "… and 59 more")
        self.assertTrue(shown[5].startswith("tidewell "), shown)
        run("resize-window", "-x", "20", "-y", "8")
        screen("… and 9 more", "nodes: 60 open")
        self.assertEqual(screen("pelorus 1")[1], "longest iteration o…")
        self.assertIn("\033[1m", run("capture-pane", "-pe"))

    def test_send_cuts_blocks_at_line_ends_and_ends_the_last_line(self):
        stub = self.start()
        send = ("send", "--socket", stub.address)
        self.assertEqual(self.ctl(*send, stdin=(LINE * 20000)[:-1]), "20000 lines sent\n")
        self.assertEqual(stub.metrics(), LINE * 20000)
        for _, args in stub.calls:
            self.assertEqual(list(args), ["metrics"])
            self.assertLessEqual(len(args["metrics"]), 65536)
            self.assertEqual(args["metrics"][-1], "\n")
        self.assertEqual(self.ctl(*send), "0 lines sent\n")
        longest = "x" * 65535 + "\n"
        self.assertRegex(
            self.ctl(*send, stdin=f"a b 1\n{longest}{'y' * 70000}\nz\n", exit_status=1),
            "(?s)2 lines sent, then it failed.*a line is longer than 65536 bytes")
        self.assertEqual(stub.calls[-1][1]["metrics"], longest)

    def test_every_failure_has_its_words_and_its_status(self):
        failing = self.start(lambda *_: ("it is late", None), "failing").address
        silent = self.start(lambda *_: SILENCE, "silent").address
        closing = self.start(lambda *_: HANG_UP, "closing").address
        with socket.socket(socket.AF_UNIX) as dead:
            dead.bind(str(self.folder / "dead"))
        for arguments, exit_status, words in (
                (f"stats --socket {failing}", 7, "pelorusctl: the server answered: it is late\n"),
                (f"stats --timeout 0.05 --socket {silent}", 6, "took too long (--timeout)"),
                (f"send --socket {closing}", 9, "closed the connection"),
                (f"stats --socket {self.folder}/none", 3, "pelorus does not run"),
                (f"stats --socket {self.folder}/dead", 4, "nobody listens there"),
                (f"stats --socket {self.folder}/{'x' * 120}", 8, "File name too long"),
                ("send --host h", 2, "--host needs a node key"),
                ("send --host h --socket /run/x", 2, "exclude each other"),
                (f"send --host h --key-file {self.folder}/none", 1, "cannot read the key file"),
                ("send --port 5", 2, "--port requires --host"),
                ("stats --timeout 0", 2, "--timeout"),
                ("", 2, "subcommand is required"),
                ("frob", 2, "pelorusctl: no subcommand 'frob', there are stats, status, "),
                ("chekc", 2, "help; did you mean check?\n"),
                ("help frob", 2, "no subcommand 'frob'"),
                ("help", 0, "Usage: pelorusctl [OPTIONS] SUBCOMMAND"),
                ("help send", 0, "  6  time-out\n"),
                ("send --kind x", 2, "--kind: x not in {graphite,add,submit}"),
                ("send --kind add", 2, "need --host"),
                ("stats --database x", 2, "--database needs"),
                ("--version", 0, "pelorusctl "),
                ("send --help", 0, "  6  time-out\n")):
            self.assertIn(words, self.ctl(*arguments.split(), stdin="a b 1\n",
                                          exit_status=exit_status))

    @unittest.skipIf(os.geteuid(), "only root can become another account")
    def test_socket_of_another_account_is_not_permitted(self):
        stub = self.start()
        os.chmod(stub.address, 0o600)
        self.folder.chmod(0o755)
        said = self.ctl("stats", "--socket", stub.address, exit_status=5,
                        wrapper=["setpriv", "--reuid=65534", "--clear-groups"])
        self.assertIn("only the socket's owner and root may use it", said)


class Pelorusctl(CtlTest):
    def start_influx(self, answer=NO_CONTENT):
        return self.ends_with_case(HTTPServer(conduct=answering(answer)))

    def status(self, daemon):
        return json.loads(self.ctl("status", "--json", "--socket", daemon.socket))

    def test_status_accounts_for_every_message(self):
        influx = self.start_influx()
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address,
                                     "PELORUS_MAX_PENDING_MESSAGES": 5, "PELORUS_DISCARD_SIZE": 2,
                                     "PELORUS_MAX_BATCH_SIZE": 1})
        local = self.ends_with_case(SkeinClient(daemon.socket))

        def tidewell(**wanted):
            wait_until(lambda: wanted.items() <= account(daemon.socket, "tidewell").items(), wanted)
            return self.status(daemon)["databases"]["tidewell"]

        local.collectd(LINE)
        tidewell(sent=1, queued=0, in_flight=0)
        influx.conduct = answering(status(400, PARTIAL))
        local.collectd(LINE)
        now = tidewell(partial=1, failed=0, in_flight=0)
        record = len("load shortterm=0.5 1700000000000000000\n")
        self.assertEqual((now["sent"]["bytes"], now["partial"]["bytes"], now["largest_body"]),
                         (record, record, record))
        self.assertEqual((now["partial_writes"], now["dropped_points"]), (1, 3))
        self.assertIn("status 400: ", now["last_failure"])
        influx.conduct = hanging
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
        good, bad = (self.ends_with_case(SkeinClient(address))
                     for address in (daemon.socket, daemon.node_address))
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
        self.assertRegex(one, r"(?s)local: 2 open\n.*… and 1 more\n")
        with self.assertRaisesRegex(SkeinError, "must be trouble, records"):
            good.call("status", {"order": "age"})
        bad.send_bytes(b"\0\0\0\1x")
        self.assertIsNone(bad.receive())
        now = self.status(daemon)["totals"]
        self.assertEqual(now["ended_connections"]["protocol"], 1)
        self.assertEqual({kind: n for kind, n in now["bad_lines"].items() if n},
                         {"format": 1, "no_rule": 1})
        self.assertEqual((now["refused_requests"], now["dropped_log_lines"]), (1, 0))

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
        shown = set(re.findall(r"pelorus_\w+", (REPOSITORY / "packaging/grafana/losses.json").read_text()))
        self.assertLessEqual(shown, types)

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
                (["--crit", "failures=1", "--database", "tidewell", "--database", "none"], 2,
                 "none: no such database"),
                (["--crit", "length=1"], 3, "UNKNOWN - 'length=1' is no threshold"),
                (["--crit", "failed=1"], 3, "UNKNOWN - failed, partial and discarded need --state"),
                (["--crit", "failed=1", "--state", self.folder / "seen"], 2,
                 "messages lost in failed writes since the last check: 1"),
                (["--crit", "failed=1", "--state", self.folder / "seen"], 0, "_failed'=0;;1;0"),
                (["--crit", "failed=1", "--state", self.folder], 3, "UNKNOWN - "),
                (["--crit", "queue=1", "--json"], 3, "excludes"),
                (["--crit", "queue=1", "--socket", "/nowhere"], 3, "UNKNOWN - cannot connect")):
            if "--socket" not in arguments:
                arguments += ["--socket", daemon.socket]
            self.assertIn(words, self.ctl("stats", *arguments, exit_status=exit_status))
        seen = self.folder / "seen"  # as if the daemon had been started again since
        seen.write_text(re.sub(r'("started": )[^,]*', r"\g<1>1", seen.read_text()))
        self.assertIn("last check: 1", self.ctl("stats", "--crit", "failed=1", "--state", seen,
                                                         "--socket", daemon.socket, exit_status=2))

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
                         r"^field shortterm of measurement load is a float in .* 0.5\" and an "
                         r"integer in .* 1\"\n3 lines, .*, 1 field of two types, 0 overwritten\n$")
        for values, conflicts in ((("true", "1.5"), 1), (("1i", "1.5"), 1), (('"a"', "1.0"), 1),
                                  (("1i", "1"), 0), (("5,b=6", "1.5"), 0), (("inf", "1"), 0)):
            said = self.ctl("translate", "--lint", "--json", exit_status=conflicts or "inf" in values,
                            *(f"m000.load.load.a {value} 5" for value in values))
            self.assertEqual(json.loads(said.split("\n")[-2])["two_types"], conflicts, values)
        same = "m000.disk-sda.disk_octets.read 1.5 5\n"
        self.assertRegex(self.ctl("translate", "--lint", exit_status=1,
                                  stdin=same * 2 + same.replace("disk_", "dask_")),
                         r"^field read_octets of disk,device=sda is overwritten: it comes from "
                         r'"m000.disk-sda.disk_octets.read" and "m000.disk-sda.dask_octets.read"\n'
                         r"3 lines, .*, 0 fields of two types, 1 overwritten\n$")
        said = json.loads(self.ctl("translate", "--json", "node7.load.load.a nan 5"))
        self.assertEqual((said["tags"], said["left_out"]), ({"node": "7"}, "its value is nan"))
        self.assertNotIn("record", said)
        self.assertIn('rule         vmem (equals "vmem")\n  error  ',
                      self.ctl("translate", "m000.vmem.x.y", exit_status=1))

    def test_translate_knows_what_influxdb_refuses(self):
        influx = self.ends_with_case(Influxd(self.folder / "influxd"))
        auth = influx.prepare(["a"])
        values = ("7", "9223372036854775807", "9223372036854775808", "-1", "+1", "1.", ".5", "1e5",
                  "1E+5", "1e", "e5", "-", ".", "-1i", "1.5i", "0x10", "1e999", "1e-999", "inf",
                  "NaN", "1,5", "true", "T", "tRUE", "U", '"abc"', '"abc', "1.5.5", "1-5", "5%",
                  '"\\"', '"a\\"b"', '"a\\\\"', "5,b=6", "5,b", "5,c=t", "5,=6", '"a,b"', '5"', '""',
                  '"a"b"c"', "5\\", "5,")
        times = ("0000000000", "-100000000", "9223372036", "9223372037", "5", "1700000000.5", "1e9")
        lines = ([f"m000.load.load.v{n} {value} 1700000000"
                  for n, value in enumerate(values)] +
                 [f"m000.load.load.t 1.5 {time}" for time in times] +
                 [f"m000.load.load.{key} 1.5 5"
                  for key in ("time", "a\\", "a\\b", "a,b", "a=b", "a=1,b", '"a', "\\")] +
                 [f"m000.cpu-{tag}.cpu-idle.v 1.5 5"
                  for tag in ("", "a,b", "a,b=c", "a=b", "a\\b", "a\\", "a\\,b", "a,cpu=b", "a,time=b", "a,")])
        swallowing = set()
        for second, line in enumerate(lines):
            run = subprocess.run([BUILD / "bin" / "pelorusctl", "translate", "--json", line],
                                 stdout=subprocess.PIPE, timeout=30)
            said = json.loads(run.stdout)
            with self.subTest(line, said=said):
                answer = influx.write("a", said["record"], auth)
                self.assertEqual("note" in said, answer != 204)
                self.assertEqual(run.returncode, answer != 204)
            influx.write("a", f"{said['record']}\nnext v=1 {second}000000000", auth)
            if "swallows what follows" in said.get("note", ""):
                swallowing.add(second)
        [stored] = influx.query("SELECT v FROM next", "a")
        self.assertEqual(set(range(len(lines))) - {second for second, _ in stored["values"]}, swallowing)

    def test_check(self):
        good = example(INFLUX_UNIX_SOCKET=str(self.folder / "socket"), INFLUX_AUTH=AUTH)
        file = self.folder / "settings.json"

        def check(changes, exit_status):
            changed = {**good, **changes}
            file.write_text(json.dumps({k: v for k, v in changed.items() if v is not None}))
            file.chmod(0o600)
            return self.ctl("check", exit_status=exit_status, PELORUS_SETTINGS=str(file))

        self.assertEqual(check({}, 0), f"{file} can be used\n")
        for key, value, demand in (
                ("PELORUS_MAX_PENDING_MESSAGES", 0, "1 or more"),
                *(("PELORUS_MAX_PENDING_MESSAGES", value, "an integer")
                  for value in (AUTH, True, 4711.5, 2**63)),
                ("PELORUS_BUFFER_TIME", -0.5, "0 or more seconds"),
                ("PELORUS_BUFFER_TIME", False, "a number"),
                ("PELORUS_IDEAL_QUEUED_MESSAGES", -1, "0 or more"),
                ("PELORUS_MAX_BATCH_SIZE", 0, "1 or more"),
                ("PELORUS_DISCARD_SIZE", -7, "1 or more"),
                ("INFLUX_AUTH", 4711, "text"),
                *(("INFLUX_DATABASES", value, 'a list of maps that have a text under "name"')
                  for value in (AUTH, [AUTH], [{"name": AUTH}, {"name": 4711}])),
                *(("INFLUX_HTTP_CONNECTION", value, "host, host:port, [v6] or [v6]:port")
                  for value in (":8086", "influx:", "influx:0", "influx:65536", "influx:80a",
                                "influx:-1", "http://influx", "influx/write", "user@influx", "::1",
                                "[::1", "[::1]8086", "[influx]:80", "[]:80", "influx]")),
                *((key, value, "visible ASCII characters")
                  for key in ("INFLUX_AUTH", "INFLUX_HTTP_CONNECTION")
                  for value in ("", AUTH + "\r\nX:1", AUTH + " ", "\t" + AUTH, AUTH + "\0",
                                AUTH + "\x7f", AUTH + "é"))):
            self.assertIn(f"error: Setting {key} in {file} must be {demand}\n",
                          check({key: value}, 1))
        for changes, words in (
                ({"INFLUX_DATABASES": [{"name": "tidewell"}, {"name": "a b"}]}, "holds a blank"),
                ({"PELORUS_PORT": 70000}, "is no TCP port"),
                ({"PELORUS_SERVER": "::1"}, "is an IPv6 address"),
                ({"INFLUX_UNIX_SOCKET": "/" + 107 * "x"}, "has 108 bytes"),
                ({"LOCAL_WWW_KEY": f"{WWW_KEY}\n"}, "holds a control byte")):
            self.assertIn(words, check(changes, 1))
        for key in good:
            self.assertIn(f"Setting {key} is missing", check({key: None}, 1))
            self.assertIn(f"Setting {key} in {file} must be", check({key: {}}, 1))
        self.assertEqual(check({"PELORUS_BUFFER_TIME": -1, "PELORUS_DISCARD_SIZE": 0,
                                "INFLUX_AUTH": "", "PELORUS_PORT": -1}, 1).count("error: "), 4)
        for changes, words in (
                ({"INFLUX_AUTH": "YWRtaW4="}, "not the Base64 of"),  # no ":"
                ({"INFLUX_AUTH": "user:password=="}, "not the Base64 of"),
                ({"PELORUS_SERVER": ""}, "is empty, which is every address"),
                ({"PELORUS_SERVER": "0.0.0.0"}, "0.0.0.0 is every address"),
                ({"PELORUS_MAX_PENDING_MESSAGES": 70000}, "2 full queues .* half of the memory"),
                ({"PELORUS_MAX_QUEUED_BYTES": 2**31}, "is not below the memory limit of 2.0 GiB"),
                ({"PELORUS_MAX_BATCH_SIZE": 2000}, "InfluxDB takes 25,000,000"),
                ({"PELORUS_DISCARD_SIZE": 10000}, "is not below PELORUS_MAX_PENDING_MESSAGES"),
                ({"INFLUX_DATABASES": [{"name": "bonding"}]}, 'lacks "tidewell"'),
                ({"INFLUX_DATABASES": [{"name": "tidewell"}] * 2}, "twice"),
                ({"INFLUX_UNIX_SOCKET": "/nowhere/socket"}, "there is no folder /nowhere"),
                ({"PELORUS_IDEAL_QUEUED_MESSAGES": 10000}, "only the time lets a batch go")):
            self.assertRegex(check(changes, 0), f"can be used\nwarning: .*{words}")
        file.chmod(0o644)
        self.assertIn("open to every account", self.ctl("check", file))
        for words in ("INFLUX_AUTH is that of the example", "LOCAL_WWW_KEY is the text of the example"):
            self.assertIn(words, self.ctl("check", EXAMPLE))
        os.mkfifo(self.folder / "fifo")
        for path in (self.folder / "fifo", self.folder):
            self.assertEqual(self.ctl("check", path, exit_status=1),
                             f"error: Cannot read the settings in {path}: not a regular file\n")
        for text, fault in (
                ("", "are no valid JSON: line 1, column 1 (byte 1)"),
                (f'{{"KEY":\n  "{AUTH}" {AUTH}}}', "are no valid JSON: line 2, column 34 (byte 42)"),
                (f'{{"KEY": "{AUTH}\n"}}', "are no valid JSON: line 1, column 38 (byte 38)"),
                (f'{{"{AUTH}": 1e999}}', "hold a number out of range"),
                (f'["{AUTH}"]', "are no JSON object")):
            file.write_text(text)
            self.assertEqual(self.ctl("check", file, exit_status=1),
                             f"error: The settings in {file} {fault}\n")

    def test_check_connects(self):
        influx = self.ends_with_case(Influxd(self.folder / "influxd"))
        file = self.folder / "settings.json"
        good = example(INFLUX_AUTH=influx.prepare(["tidewell", "bonding"]),
                       INFLUX_HTTP_CONNECTION=influx.address)
        influx.query("CREATE DATABASE closed")

        def check(exit_status, **changes):
            file.write_text(json.dumps({**good, **changes}))
            return self.ctl("check", "--connect", file, exit_status=exit_status)

        self.assertIn("web server at https://", check(1))
        web = self.ends_with_case(WebServer(keys=[]))
        check(0)
        for changes, words in (
                ({"INFLUX_AUTH": "YTpi"}, '"bonding": status 401: .*unknown account or password'),
                ({"INFLUX_DATABASES": [{"name": "none"}]}, r'"none": status 404: .*no such database'),
                ({"INFLUX_DATABASES": [{"name": "closed"}]}, r'"closed": status 403: .*may not write'),
                ({"INFLUX_HTTP_CONNECTION": "127.0.0.1:1"}, r"refused \(INFLUX_HTTP_CONNECTION\)")):
            self.assertRegex(check(1, **changes), words)
        web.behave(answering(status(403)))
        self.assertIn("answers with status 403 (LOCAL_WWW_KEY)", check(1))
        self.assertEqual(influx.query("SHOW MEASUREMENTS", "tidewell"), [])

    def test_send_takes_every_kind_of_line(self):
        web = self.ends_with_case(WebServer([KEY]))
        influx = self.start_influx()
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address})
        key_file = self.folder / "key"
        key_file.write_text(f" {KEY} \nnot the key\n")
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
            credentials = [] if kind == "add" else ["--key-file", key_file]  # which comes first
            output = self.ctl("send", "--kind", kind, file, *remote, *credentials,
                              PELORUS_NODE_KEY="unknown" if credentials else KEY)
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
