"""A daemon between stand-ins with bystanders beside it, for trying faults on it: whatever happens,
it lives, keeps nobody else waiting, and writes again by itself."""

from dataclasses import dataclass, field
import json
from pathlib import Path
import re
import tempfile
from typing import Callable
import urllib.parse

from harness import conduct
from harness.bystander import Bystander, record_of
from harness.daemon import AUTH, WWW_KEY, Pelorus
from harness.process import wait_until
from harness.skein_client import SkeinClient
from harness.stub_influx import StubInflux
from harness.tidewell_stand_in import throw_away_certificate
from harness.web_server import ORIGIN, hold_origin

KEY = "aaaabbbb-cccc-dddd-eeee-ffff00001111"
BARE_KEY = KEY.replace("-", "")
WORST_DELAY = 250  # milliseconds
LAST_LINE_WARNING = "Improperly formatted metric: \"b''\""


@dataclass
class Fault:
    """One thing that can go wrong, and how to make it happen. `attempt` returns what was seen."""
    name: str
    wanted: str
    attempt: Callable
    options: dict = field(default_factory=dict)  # of the stage
    seconds: float = WORST_DELAY / 1000          # for which a quiet peer may have to wait


class Web:
    """Stands in for the administration web server within this process, so that its conduct can
    change. Confirms all keys but those that begin with "unknown"."""

    def __init__(self):
        hold_origin()
        self.context = throw_away_certificate()
        self.server = None
        self._opened = []  # connections, behind their handshake
        self.listen()

    def listen(self):
        self.server = StubInflux(int(ORIGIN[1]))
        self.behave()

    def behave(self, behaviour=None, tls=True):
        """For connections from now on; those that the daemon has kept are ended."""
        conduct.hang_up(self._opened)
        self._opened = []
        behaviour = behaviour or self.confirm
        self.server.conduct = conduct.forgiving(
            conduct.over_tls(self.context, behaviour, self._opened) if tls else behaviour)

    def confirm(self, connected):
        while True:
            _, body = conduct.read_request(connected)
            key = urllib.parse.parse_qs(body.decode())["key"][0]
            known = None if key.startswith("unknown") else key
            connected.sendall(conduct.status(200, json.dumps({"key": known}).encode()))

    def close(self):
        conduct.hang_up(self._opened)
        self.server.close()


class Stage:
    """The daemon, its two far ends and the bystanders. `web` may be shared with other stages."""

    def __init__(self, web, settings=None, influx_host="127.0.0.1", **options):
        self.web = web
        self._folder = tempfile.TemporaryDirectory(prefix="pelorus-")
        self.influx = StubInflux()
        self.daemon = Pelorus(Path(self._folder.name), {
            "PELORUS_BUFFER_TIME": 0.05, "PELORUS_IDEAL_QUEUED_MESSAGES": 500,
            "PELORUS_MAX_PENDING_MESSAGES": 100_000, "PELORUS_MAX_BATCH_SIZE": 1000,
            "INFLUX_HTTP_CONNECTION": f"{influx_host}:{self.influx.port}", **(settings or {})}, **options)
        self.keys = {KEY, BARE_KEY}
        try:
            self.daemon.wait_ready()
            self.bystander = Bystander(self.daemon, KEY)
            self.bystander.look()
        except BaseException:
            self.daemon.stop()
            self.influx.close()
            raise

    def node(self, seconds=30):
        return SkeinClient(self.daemon.node_address, seconds)

    def local(self, seconds=30):
        return SkeinClient(self.daemon.socket, seconds)

    def both(self):
        return ((name, connect) for name, connect in (("node", self.node), ("local", self.local)))

    def send_as(self, client, key, line):
        """A node's block; the key is looked for in the log at the end."""
        self.keys |= {key, key.replace("-", "")}
        return client.call("collectd", {"key": key, "metrics": line})

    def log_count(self, text):
        return self.daemon.text().count(text)

    def wait_logged(self, text, more_than=0, seconds=30):
        wait_until(lambda: self.log_count(text) > more_than, f"log line with {text!r}", seconds,
                   pause=0.05)

    def wait_logged_again(self, expression, before, seconds=15):
        """The first line behind the `before` bytes of the log in which the expression stands."""
        return wait_until(lambda: re.search(f"(?m)^.*{expression}.*$", self.daemon.text()[before:]),
                          f"log line with {expression!r}", seconds, pause=0.05)[0]

    def wait_written_again(self, seconds=45):
        """Until a block that was handed over after this call has reached the far end."""
        begin, sent = len(self.influx.requests), self.bystander.look()["sent"]
        wanted = record_of(sent + 1)
        wait_until(lambda: any(wanted in request.bytes for request in self.influx.requests[begin:])
                   and self.daemon.expect_running(), "data of the quiet node to be written",
                   seconds, pause=0.02)

    def attempt(self, fault):
        """Tries one fault. Returns what was seen; fails when the daemon has not borne it."""
        self.bystander.look()
        seen = fault.attempt(self)
        looked = self.bystander.look()
        delay = max(looked["node"], looked["local"])
        if delay > fault.seconds * 1000:
            raise AssertionError(f"{fault.name}: a quiet peer waited {delay} ms ({seen})")
        self.influx.conduct = None
        self.web.behave()
        self.wait_written_again()
        return f"{seen or 'as wanted'}; worst delay {delay:.0f} ms"

    def expect_nothing_lost(self):
        """Every block of the quiet node has been written, once. Holds where the far end was well
        all the time."""
        sent = self.bystander.look()["sent"]
        wait_until(lambda: record_of(sent) in self.influx.lines(), "the last block", pause=0.1)
        lines = [line for line in self.influx.lines()
                 if line.startswith(b"load,node=7 shortterm=")]
        expected = [record_of(number) for number in range(1, sent + 1)]
        if lines[:sent] != expected:
            raise AssertionError(f"{sent} blocks sent, {len(set(lines) & set(expected))} written")
        return f"{sent} blocks, each written once"

    def expect_no_secret(self):
        text = self.daemon.text()
        for secret in (AUTH, WWW_KEY, *self.keys):
            if secret in text:
                raise AssertionError(f"the log shows a secret: {secret[:4]}...")

    def close(self):
        """Ends all of it, and fails when the daemon did not end well."""
        try:
            self.bystander.close()
            code = self.daemon.stop()
            text = self.daemon.text()
        finally:
            self.influx.close()
            log = self.daemon.text()[-4000:]
        self.expect_no_secret()
        self._folder.cleanup()
        if code != 0 or "Sanitizer" in text:
            raise AssertionError(f"exit status {code}\n{log}")
