"""What somebody can do who wants to harm others: each attack goes on while good nodes are measured, which come
from the attacker's own address. A part of `make chaos`."""

import contextlib
import socket
import time

from harness.http_server import NO_CONTENT, Connection, WebServer
from harness.process import Repeated, in_thread
from harness.skein_client import REPLY, REQUEST, SkeinClient, frame
from tests.end_to_end.support import LINE, OTHER_KEY, StageTest

BLOCK = LINE * 1500  # 60 KB
ATTACKERS_KEY = "99998888777766665555444433332222"
TRIES = 20


def block(key, metrics=BLOCK):
    return frame([REQUEST, 1, "collectd", {"key": key, "metrics": metrics}])


def submit(key, points):
    return frame([REQUEST, 1, "submit", {
        "key": key, "database": "bonding", "name": "node7.tunnel-1.state",
        "columns": ["time", "value"], "points": [[1_700_000_000_000, "up"]] * points}])


def receive_all(client):
    with contextlib.suppress(OSError):
        while client.receive() is not None:
            pass


def slow(client):
    """InfluxDB with a slow disk: 5,000 messages a second."""
    client.read_request()
    time.sleep(0.2)
    client.send(NO_CONTENT)
    client.linger()


class Attacks(StageTest):
    @classmethod
    def setUpClass(cls):
        cls.web = WebServer(seconds=0.02)
        cls.addClassCleanup(cls.web.close)

    def start_stage(self, **options):
        super().start_stage(**options)
        for key in (OTHER_KEY, ATTACKERS_KEY):
            self.assertIsNotNone(self.answered_in(key))

    def throw(self, data):
        """Sends and goes, without a look at the reply."""
        with socket.create_connection(self.daemon.node_address) as thrower:
            thrower.sendall(data)

    def answered_in(self, key):
        """Seconds until a node that connects has the reply to a block that comes in two segments; none if it
        gets none."""
        data, begin = block(key), time.monotonic()
        with contextlib.suppress(OSError), SkeinClient(self.daemon.node_address, 15) as node:
            node.send_bytes(data[:1000])
            time.sleep(0.005)
            node.send_bytes(data[1000:])
            if node.receive() == [REPLY, 1, None, None]:
                return time.monotonic() - begin
        return None

    def expect_service(self, tries=TRIES):
        """Known nodes that reconnect, nodes that were never seen, and an operator are answered."""
        times = {"known": [], "new": []}
        for number in range(tries):
            times["known"].append(self.answered_in(OTHER_KEY))
            times["new"].append(self.answered_in(f"{number:032x}"))
        with self.local(5) as operator:
            delay = operator.call("status")["loop_delay"] * 1000
        name = self.id().rpartition(".")[2]
        print(f"{name}: the loop's longest iteration took {delay:.0f} ms")
        for who, each in times.items():
            answered = [seconds for seconds in each if seconds is not None]
            print(f"{name}: {len(answered)} of {tries} {who} nodes answered, "
                  f"the slowest after {max(answered, default=0) * 1000:.0f} ms")
            self.assertEqual(len(answered), tries, who)

    def attack(self, act, before, a_second):
        """Does `act` so many times, and goes on while good nodes are served."""
        for _ in range(before):
            act()
        with Repeated(act, 1 / a_second):
            self.expect_service()

    def test_one_bad_key_of_peers_that_go(self):
        self.start_stage()
        data = block("unknown-bad", LINE * 430)  # some 800 bytes that become 17 KB
        self.attack(lambda: self.throw(data), 15_800, 100)
        self.expect_well()

    def test_made_up_keys_of_peers_that_go(self):
        self.start_stage()
        numbers = iter(range(10**9))
        self.attack(lambda: self.throw(block(f"unknown{next(numbers)}", LINE)), 20_000, 500)
        self.expect_well()

    def test_dead_connections_with_a_valid_key(self):
        self.start_stage(wrapper=["prlimit", "--nofile=1024:1024", "--"])
        good, bad = block(ATTACKERS_KEY, LINE), block("unknown-bad", LINE)
        def show_and_ask():
            with self.node(5) as peer:
                peer.send_bytes(good)
                peer.receive()
                peer.send_bytes(bad)
        self.attack(show_and_ask, 1500, 100)
        self.expect_well()

    def test_live_connections_with_a_valid_key(self):
        self.start_stage(wrapper=["prlimit", "--nofile=1024:1024", "--"])
        good, peers = block(ATTACKERS_KEY, LINE), []
        def show_and_stay():
            peers.append(self.node(5))
            peers[-1].send_bytes(good)
            peers[-1].receive()
        self.attack(show_and_stay, 1500, 100)
        for peer in peers:
            peer.close()
        self.expect_well()

    def test_lines_without_an_end(self):
        self.start_stage()
        line = block(ATTACKERS_KEY, "x" * (16_000_000))
        attackers = [self.node(30) for _ in range(17)]
        for attacker in attackers:
            attacker.send_bytes(block(ATTACKERS_KEY, LINE))
            attacker.receive()
            attacker.send_bytes(line)
            self.assertEqual(attacker.receive(), [REPLY, 1, None, None])
        self.expect_service()
        for attacker in attackers:
            attacker.close()
        self.expect_well()

    def test_one_submit_of_100000_points(self):
        self.start_stage(settings={"PELORUS_MAX_PENDING_MESSAGES": 10_000})
        self.expect_no_drops()

    def test_one_submit_of_100000_points_while_a_write_takes_long(self):
        self.start_stage(settings={"PELORUS_MAX_PENDING_MESSAGES": 10_000})
        self.influx.conduct = slow
        self.expect_no_drops()

    def expect_no_drops(self):
        with self.node(60) as attacker:
            attacker.send_bytes(submit(ATTACKERS_KEY, 100_000))
            self.expect_service()
            self.assertEqual(attacker.receive(), [REPLY, 1, None, None])
        self.assertNotIn("Queue filled up", self.daemon.text())
        self.expect_well()

    def test_frames_of_16_mb_while_nothing_is_written(self):
        self.start_stage(settings={"PELORUS_MAX_QUEUED_BYTES": 100 << 20})
        self.influx.conduct = Connection.linger
        data = block(ATTACKERS_KEY, "".join(
            f"node7.load.load.midterm {number} {1_700_000_000 + number}\n" for number in range(350_000)))
        with self.node(60) as attacker:
            for _ in range(20):
                attacker.send_bytes(data)
                self.assertEqual(attacker.receive(), [REPLY, 1, None, None])
            self.expect_service(5)
        self.assertIn("Queue filled up", self.daemon.text())
        print(f"peak memory {self.daemon.memory('VmHWM'):.0f} MiB")
        self.expect_memory(100 + 150)

    def test_requests_of_an_unknown_name(self):
        self.start_stage()
        data, sent, before = frame([REQUEST, 1, "none", {}]) * 1000, 0, len(self.daemon.text())
        with self.node(5) as attacker:
            in_thread(receive_all, attacker)
            end = time.monotonic() + 3
            while time.monotonic() < end:
                attacker.send_bytes(data)
                sent += len(data)
            self.expect_service(5)
        logged = len(self.daemon.text()) - before
        print(f"{logged} bytes of log for {sent}")
        self.assertLess(logged, sent / 10)
        self.expect_well()

    def test_half_frames(self):
        self.start_stage()
        halves = []
        def begin():
            halves.append(self.node(5))
            halves[-1].send_bytes(b"\x00\xff\x00\x00" + bytes(100_000))
        self.attack(begin, 2000, 100)
        for half in halves:
            half.close()
        self.expect_well()

    def test_long_submits_with_a_bad_key(self):
        self.start_stage()
        data = submit("unknown-bad", 300_000)
        self.attack(lambda: self.throw(data), 0, 5)
        self.expect_well()
