"""Faults that take much memory, much traffic or a real InfluxDB: the part of `make chaos`."""

import contextlib
import signal
import time

from harness.http_server import Connection
from harness.ledger import account, expect_accounted
from harness.process import Repeated, in_thread, wait_until
from harness.real_servers import Influxd
from tests.end_to_end.bad_peers import bomb
from tests.end_to_end.support import KEY, StageTest

MOST_MEMORY = 256 + 150  # MiB: what all peers may make it hold, and itself with what is under way


class HeavyFaults(StageTest):
    def test_bombs_of_64_nodes_whose_keys_are_being_verified(self):
        self.start_stage()
        self.web.behave(Connection.linger)
        clients = [self.node() for _ in range(64)]
        data = bomb()

        def pour(client):
            with contextlib.suppress(OSError):  # the daemon may end it before all is sent
                client.send_bytes(data)

        for thread in [in_thread(pour, client) for client in clients]:
            thread.join(60)
        time.sleep(2)  # with the web server silent, more and more of them are held
        self.web.behave()
        for client in clients:
            client.close()
        self.expect_memory(MOST_MEMORY)
        self.expect_well()


class RealInfluxDB(StageTest):
    """After each fault data flow again by themselves, and the ledger agrees with what was handed over and with
    what InfluxDB holds."""

    def setUp(self):
        super().setUp()
        self.influxd = self.ends_with_case(Influxd(self.folder / "influxd"))
        self.daemon = self.start_pelorus({
            "INFLUX_AUTH": self.influxd.prepare(["tidewell", "bonding"]),
            "INFLUX_HTTP_CONNECTION": self.influxd.address,
            "PELORUS_BUFFER_TIME": 0.1, "PELORUS_IDEAL_QUEUED_MESSAGES": 100,
            "PELORUS_MAX_BATCH_SIZE": 200, "PELORUS_MAX_PENDING_MESSAGES": 1500,
            "PELORUS_DISCARD_SIZE": 100})
        self.client = self.ends_with_case(self.node(60))
        self.sender = self.ends_with_case(Repeated(self.send_a_record, 0.005))
        self.wait_more("sent")

    def send_a_record(self):
        """No two for the same point."""
        self.client.call("collectd", {"key": KEY, "metrics": "node7.load.load.shortterm 1 "
                                      f"{1_700_000_000 + self.sender.rounds}\n"})

    def amount(self, *names):
        amounts = account(self.daemon.socket, "bonding")
        return sum(amounts[name] for name in names)

    def wait_more(self, name):
        before = self.amount(name)
        wait_until(lambda: self.amount(name) > before, f"more messages {name}", 60, pause=0.1)

    def tearDown(self):
        """A queue is written as messages arrive, so the sender stops when one batch is left."""
        self.wait_more("sent")
        wait_until(lambda: self.amount("queued") < 100, "the queue to shrink", 60, pause=0.1)
        self.sender.stop()
        wait_until(lambda: not self.amount("queued", "in_flight"), "the queue to empty", 60, pause=0.1)
        print(expect_accounted(account(self.daemon.socket, "bonding"), self.sender.rounds,
                               self.influxd.count_values("bonding")["load"]))

    def test_killed(self):
        self.influxd.send_signal(signal.SIGKILL)
        self.influxd.wait()
        time.sleep(2)
        self.influxd.start()

    def test_frozen_for_longer_than_a_write_may_stand_still(self):
        self.influxd.send_signal(signal.SIGSTOP)
        time.sleep(25)  # the queue overflows meanwhile
        self.influxd.send_signal(signal.SIGCONT)
