"""Every quick fault of a peer, of InfluxDB and of the web server, on the real daemon."""

from harness.far_end_faults import INFLUX_FAULTS, WEB_FAULTS
from harness.peer_faults import PEER_FAULTS
from harness.stage import Stage, Web
from tests.end_to_end.support import FolderTest, run_faults


class Faults(FolderTest):
    @classmethod
    def setUpClass(cls):
        cls.web = Web()
        cls.addClassCleanup(lambda: cls.web.close())

    def setUp(self):
        super().setUp()
        self.stage = Stage(self.web)
        self.addCleanup(self.stage.close)

    def test_peers(self):
        run_faults(self, self.stage, PEER_FAULTS)
        self.stage.expect_nothing_lost()

    def test_influxdb(self):
        run_faults(self, self.stage, INFLUX_FAULTS)

    def test_web_server(self):
        run_faults(self, self.stage, WEB_FAULTS)
        self.stage.expect_nothing_lost()
