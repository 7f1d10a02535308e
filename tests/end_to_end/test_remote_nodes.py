"""Remote nodes: over TCP, with keys that a web server confirms or not."""

import signal
import time

from harness.daemon import ERROR, INFO, WARNING
from harness.http_server import HTTPServer, WebServer, hanging, hold_origin
from harness.process import wait_until
from harness.skein_client import REQUEST, SkeinClient
from tests.end_to_end.support import FolderTest

GOOD_KEY = "11112222-3333-4444-5555-66667777aaaa"
BAD_KEY = "99998888-7777-6666-5555-44443333bbbb"
LINE = "node7.load.load.shortterm 0.5 1700000000\n"


class RemoteNodes(FolderTest):
    @classmethod
    def setUpClass(cls):
        hold_origin()

    def start_web_server(self, **known):
        self.addCleanup(WebServer(**known).close)

    def test_questions_and_writes_without_an_answer_hold_up_nobody_else_nor_the_end(self):
        self.start_web_server(keys=[GOOD_KEY], hang=[BAD_KEY.replace("-", "")])
        influx = HTTPServer(conduct=hanging)
        self.addCleanup(influx.close)
        daemon = self.start_pelorus({"INFLUX_HTTP_CONNECTION": influx.address})
        with (SkeinClient(daemon.node_address) as good, SkeinClient(daemon.node_address) as waiting):
            waiting.send([REQUEST, 1, "collectd", {"key": BAD_KEY, "metrics": LINE}])
            for _ in range(20):
                good.call("collectd", {"key": GOOD_KEY, "metrics": LINE})
            wait_until(influx.written, "the request that hangs")
            self.assertNotIn("Timed out trying to authenticate to web server.", daemon.text())
            begin = time.monotonic()
            daemon.send_signal(signal.SIGTERM)
            self.assertEqual(daemon.wait(), 0)
            self.assertLess(time.monotonic() - begin, 1)
        texts = daemon.lines(INFO)
        self.assertEqual((texts[0], daemon.lines()[-1]), ("Starting.", (INFO, "Quitting.")))
        self.assertRegex(daemon.lines(WARNING)[-1], r"^Messages left unwritten: 20 of bonding "
                         r"\(\d+ of them in a write that was not answered\)\.$")
        self.assertEqual(sum(text.startswith("Disconnecting skein") for text in texts), 2)
        self.assertFalse([line for line in daemon.lines(WARNING) if "failed" in line])

    def test_second_instance_leaves_the_first_one_its_socket(self):
        daemon = self.start_pelorus()
        second = self.start_pelorus({"PELORUS_PORT": daemon.node_address[1],
                                     "INFLUX_UNIX_SOCKET": str(daemon.socket)}, ready=False)
        self.assertEqual(second.wait(), 0)
        self.assertTrue(any("Unhandled exception: bind to 127.0.0.1" in line
                            for line in second.lines(ERROR)))
        self.assertIsNone(second.notify.receive())
        with SkeinClient(daemon.socket) as local:
            local.call("stats")
        started = [text.split(" at ")[0] for _, text in daemon.lines()]
        self.assertEqual(started[:3], ["Starting.", "Started skein socket", "Started local socket"])
