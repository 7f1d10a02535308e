"""What the end-to-end suites stand on."""

from pathlib import Path
import sys
import tempfile
import unittest

from harness.daemon import Pelorus


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
