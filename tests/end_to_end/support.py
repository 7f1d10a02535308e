"""What the end-to-end suites stand on."""

from pathlib import Path
import sys
import tempfile
import unittest

from harness.daemon import AUTH, WWW_KEY, Pelorus
from harness.http_server import HTTPServer, WebServer
from harness.process import wait_until
from harness.skein_client import SkeinClient
from tests.end_to_end.bystander import Bystander, record_of

KEY = "aaaabbbb-cccc-dddd-eeee-ffff00001111"
OTHER_KEY = "11112222333344445555666677778888"  # requests of one key wait for each other
LINE = "node7.load.load.midterm 0.5 1700000000\n"


class FolderTest(unittest.TestCase):
    """A case with a temporary folder and with processes that end with the case. The daemons' logs
    are shown when it fails."""

    def run(self, result=None):
        self._logs = []
        before = len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > before:
            for log in self._logs:
                print(f"--- end of a daemon's log\n{log[-4000:]}---", file=sys.stderr, flush=True)
        return result

    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="pelorus-")
        self.addCleanup(holder.cleanup)
        self.folder = Path(holder.name)

    def ends_with_case(self, started):
        """What was started: it is stopped or closed when the case ends."""
        self.addCleanup(getattr(started, "stop", None) or started.close)
        return started

    def start_pelorus(self, *arguments, ready=True, **options):
        """A daemon in a folder of its own, by default after it has reported to be ready."""
        daemon = Pelorus(tempfile.mkdtemp(dir=self.folder), *arguments, **options)
        self.addCleanup(self._end_pelorus, daemon, ready)
        if ready:
            daemon.wait_ready()
        return daemon

    def _end_pelorus(self, daemon, ready):
        status = daemon.stop()
        self._logs.append(daemon.text())
        if ready:
            self.assertEqual(status, 0, "exit status of the daemon")


class StageTest(FolderTest):
    """A daemon between stand-ins, with quiet peers beside it, to try a fault on: whatever happens it lives,
    keeps the quiet peers waiting for no more than a moment, loses nothing of theirs, and shows no secret."""

    worst_delay = 0.25  # seconds that a quiet peer may have to wait

    @classmethod
    def setUpClass(cls):
        cls.web = WebServer()
        cls.addClassCleanup(cls.web.close)

    def start_stage(self, settings=None, **options):
        self.influx = self.ends_with_case(HTTPServer())
        self.daemon = self.start_pelorus({
            "PELORUS_BUFFER_TIME": 0.05, "PELORUS_IDEAL_QUEUED_MESSAGES": 500,
            "PELORUS_MAX_PENDING_MESSAGES": 100_000, "PELORUS_MAX_BATCH_SIZE": 1000,
            "INFLUX_HTTP_CONNECTION": self.influx.address, **(settings or {})}, **options)
        self.bystander = self.ends_with_case(Bystander(self.daemon, KEY))
        self.bystander.look()  # what it took to get going does not count

    def expect_well(self, loses_nothing=True):
        """Call it at the end of a case."""
        looked = self.bystander.look()
        self.assertLess(max(looked["node"], looked["local"]), self.worst_delay * 1000)
        wanted = record_of(looked["sent"] + 1)
        wait_until(lambda: self.daemon.expect_running() and wanted in self.influx.lines(),
                   "data of the quiet node to be written", 45, pause=0.1)
        if loses_nothing:
            lines = [line for line in self.influx.lines() if line.startswith(b"load,node=7 shortterm=")]
            expected = [record_of(number) for number in range(1, looked["sent"] + 1)]
            self.assertEqual(lines[:len(expected)], expected, "each block is written once")
        for secret in (AUTH, WWW_KEY, KEY, KEY.replace("-", ""), OTHER_KEY):
            self.assertNotIn(secret, self.daemon.text())

    def node(self, seconds=30):
        return SkeinClient(self.daemon.node_address, seconds)

    def local(self, seconds=30):
        return SkeinClient(self.daemon.socket, seconds)

    def expect_memory(self, most):
        """MiB"""
        self.assertLess(self.daemon.memory("VmHWM"), most)
