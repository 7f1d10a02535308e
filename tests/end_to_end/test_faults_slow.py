"""Faults that take much memory, much traffic or a real InfluxDB: the part of `make chaos`."""

import contextlib
import signal
import time

from harness.daemon import ERROR
from harness.http_server import Connection
from harness.ledger import account, expect_accounted
from harness.process import in_thread, wait_until
from harness.real_servers import Influxd
from harness.skein_client import SkeinClient
from tests.end_to_end.bad_peers import bomb, many, pour
from tests.end_to_end.stage import KEY, RECORD, StageTest

MOST_MEMORY = 256 + 150  # MiB: what all peers may make it hold, and itself with what is under way
MOST_ADDRESSES = 600_000_000  # bytes; some 560 million are reserved from the start


class HeavyFaults(StageTest):
    def test_bombs_of_64_nodes_whose_keys_are_being_verified(self):
        self.start_stage()
        self.web.behave(Connection.linger)
        clients = many(self.node, 64)
        for thread in [in_thread(pour, client, bomb()) for client in clients]:
            thread.join(60)
        time.sleep(2)  # with the web server silent, more and more of them are held
        self.web.behave()
        for client in clients:
            client.close()
        self.expect_memory(MOST_MEMORY)
        self.expect_well()

    def test_memory_used_up(self):
        """Frames for whose content there is no memory, and one that fits behind them."""
        self.start_stage(wrapper=["prlimit", f"--as={MOST_ADDRESSES}", "--"])
        data = bomb(size=(16 << 20) - 200)
        for _ in range(20):
            clients = many(self.node, 4)
            for client in clients:
                client.send_bytes(data)
            for client in clients:
                client.receive()
                client.close()
        self.assertTrue(any("bad_alloc" in line for line in self.daemon.lines(ERROR)))
        self.expect_well()

    def test_descriptors_used_up(self):
        self.start_stage(wrapper=["prlimit", "--nofile=128:128", "--"])
        clients = []
        with contextlib.suppress(OSError):  # the listener's backlog is full, too
            for _ in range(300):
                clients.append(SkeinClient(self.daemon.node_address, 1))
        before, begin = self.daemon.processor_seconds(), time.monotonic()
        time.sleep(3)  # in which a daemon that tried again and again would burn the processor
        burnt = (self.daemon.processor_seconds() - before) / (time.monotonic() - begin)
        self.assertLess(burnt, 0.5, "of a processor")
        for client in clients:
            client.close()
        with self.node() as node:
            node.call("add", {"key": KEY, "database": "bonding", "data": RECORD})
        self.expect_well()


class Sender:
    """A verified node with one record in each message, no two for the same point."""

    def __init__(self, address):
        self.added, self._going = 0, True
        self._client = SkeinClient(address, 60)
        self._thread = in_thread(self._run)

    def _run(self):
        while self._going:
            self._client.call("collectd", {
                "key": KEY, "metrics": f"node7.load.load.shortterm 1 {1_700_000_000 + self.added}\n"})
            self.added += 1
            time.sleep(0.005)

    def stop(self):
        self._going = False
        self._thread.join()
        self._client.close()


class RealInfluxDB(StageTest):
    """After each fault data flow again by themselves, and the ledger agrees with what was handed over and with
    what InfluxDB holds."""

    def setUp(self):
        super().setUp()
        self.influxd = Influxd(self.folder / "influxd")
        self.addCleanup(self.influxd.stop)
        self.daemon = self.start_pelorus({
            "INFLUX_AUTH": self.influxd.prepare(["tidewell", "bonding"]),
            "INFLUX_HTTP_CONNECTION": self.influxd.address,
            "PELORUS_BUFFER_TIME": 0.1, "PELORUS_IDEAL_QUEUED_MESSAGES": 100,
            "PELORUS_MAX_BATCH_SIZE": 200, "PELORUS_MAX_PENDING_MESSAGES": 1500,
            "PELORUS_DISCARD_SIZE": 100})
        self.sender = Sender(self.daemon.node_address)
        self.addCleanup(self.sender.stop)
        self.wait_more("sent")

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
        print(expect_accounted(account(self.daemon.socket, "bonding"), self.sender.added,
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
