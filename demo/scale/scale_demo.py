#!/usr/bin/python3
"""scale_demo.py BUILD: two daemons behind one HAProxy, one store behind another, twenty nodes, and a
daemon that is killed under way and started again. Prints what was acknowledged to the nodes, what the
store has, and where the difference comes from; ends with status 1 when something else is missing."""

from collections import Counter
from contextlib import ExitStack
from pathlib import Path
import signal
import sys
import tempfile
import time

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))
import harness  # noqa: E402

if len(sys.argv) > 1:
    harness.use_build(sys.argv[1])

from harness.daemon import Pelorus  # noqa: E402
from harness.http_server import WebServer  # noqa: E402
from harness.process import end_with_cleanup, free_port, wait_until  # noqa: E402
from harness.skein_client import SkeinClient  # noqa: E402
from nodes import INTERVAL, SERIES, Node  # noqa: E402
from servers import HAProxy, VictoriaMetrics  # noqa: E402

LIMIT = 300  # seconds for everything
NODES = 20
LATE_NODES = 4   # begin when the killed daemon is back
RECORDS = 200_000
BLOCKS = RECORDS // NODES // SERIES  # of each node
PAUSE = 0.04     # seconds between the blocks of a node
# A daemon writes when 20 blocks wait, or 2 seconds after its last write.
SETTINGS = {"PELORUS_IDEAL_QUEUED_MESSAGES": 20, "PELORUS_BUFFER_TIME": 2,
            "PELORUS_MAX_BATCH_SIZE": 100, "PELORUS_MAX_PENDING_MESSAGES": 10_000}


class Scale:
    def __init__(self, folder, on_exit):
        """`on_exit` stops the servers, the last one first."""
        self.folder = folder
        self.on_exit = on_exit

        def started(process):
            on_exit.callback(lambda: process.running() and process.stop())
            return process

        self.started = started
        keys = [f"{number:032x}" for number in range(1001, 1001 + NODES)]
        on_exit.callback(WebServer(keys).close)
        self.store = started(VictoriaMetrics(folder / "store"))
        self.writes = started(HAProxy(folder, "store", store_port := free_port(),
                                      store_port=store_port, write_path="/influx/write",
                                      victoria_port=self.store.port))
        ports = [free_port(), free_port()]
        self.daemons = [self.start_daemon(name, port)
                        for name, port in zip(("daemon1", "daemon2"), ports)]
        self.front = started(HAProxy(folder, "nodes", nodes_port := free_port(),
                                     nodes_port=nodes_port, daemon1_port=ports[0],
                                     daemon2_port=ports[1]))
        wait_until(lambda: all(server["status"] == "UP" for server in self.front.servers().values()),
                   "both daemons to be seen")
        # Moments that lie a little back, so that the store takes them whatever their number.
        first = int(time.time()) - INTERVAL * BLOCKS
        moments = [first + INTERVAL * block for block in range(BLOCKS)]
        self.nodes = [Node(("127.0.0.1", nodes_port), 1001 + number, keys[number], moments, PAUSE)
                      for number in range(NODES)]

    def start_daemon(self, name, port):
        folder = self.folder / f"{name}-{time.monotonic_ns()}"
        folder.mkdir()
        daemon = Pelorus(folder, {"PELORUS_PORT": port,
                                  "INFLUX_HTTP_CONNECTION": f"127.0.0.1:{self.writes.port}",
                                  **SETTINGS})
        self.started(daemon)
        daemon.wait_ready()
        return daemon

    def acknowledged(self):
        return sum(node.records() for node in self.nodes)

    def wait_for(self, share):
        """Until so much of all records has been acknowledged."""
        wait_until(lambda: self.failure() or self.acknowledged() >= share * RECORDS,
                   "the nodes to go on", 120)

    def failure(self):
        return next((node.failure for node in self.nodes if node.failure), None)

    def run(self):
        """Returns the moment of the kill."""
        early, late = self.nodes[:-LATE_NODES], self.nodes[-LATE_NODES:]
        for node in early:
            node.start()
        self.wait_for(0.3)
        say(f"{self.acknowledged():,} records acknowledged; daemon1 is killed (SIGKILL)")
        killed = time.monotonic()
        self.daemons[0].send_signal(signal.SIGKILL)
        self.daemons[0].wait()
        wait_until(lambda: self.front.servers()["daemon1"]["status"] == "DOWN", "haproxy to see it")
        self.wait_for(0.5)
        say(f"{self.acknowledged():,} records acknowledged; daemon1 is started again")
        self.daemons[0] = self.start_daemon("daemon1", self.daemons[0].node_address[1])
        wait_until(lambda: self.front.servers()["daemon1"]["status"] == "UP", "haproxy to see it")
        say(f"daemon1 is back; {LATE_NODES} more nodes connect")
        for node in late:
            node.start()
        for node in self.nodes:
            node.join()
        if self.failure():
            raise self.failure()
        for daemon in self.daemons:
            wait_until(lambda: written(daemon), "the rest to be written", 30, pause=0.1)
        return killed


def written(daemon):
    """Whether nothing waits at a daemon any more."""
    with SkeinClient(daemon.socket) as client:
        answer = client.call("stats")
    buffers = [each for each in answer.values() if isinstance(each, dict)
               and "pending_data_len" in each]
    assert buffers, answer
    return all(not each["has_current_request"] and each["pending_data_len"] == 0
               for each in buffers)


def say(text):
    print(f"  {text}", flush=True)


def judge(scale, killed):
    """Prints the table; True when what is missing is what the killed daemon held."""
    stored = Counter((int(labels["node"]), moment)
                     for labels, moment in scale.store.values("bonding"))
    acknowledged = {(node.number, moment): when
                    for node in scale.nodes for when, moment in node.acknowledged}
    held = {node.number for node in scale.nodes if node.breaks}
    lost = {block: when for block, when in acknowledged.items() if stored[block] == 0}
    cut = [block for block in acknowledged if 0 < stored[block] < SERIES]
    explained = {block: when for block, when in lost.items()
                 if block[0] in held and when <= killed + 0.1}
    unknown = [block for block in stored if block not in acknowledged]
    servers = scale.front.servers()
    rows = [
        ("records acknowledged to the nodes", SERIES * len(acknowledged)),
        ("records in the store", sum(stored.values())),
        ("missing", SERIES * len(acknowledged) - sum(stored.values())),
        ("  of that acknowledged by the killed daemon, not written yet", SERIES * len(explained)),
        ("  of that anything else", SERIES * (len(lost) - len(explained)) + len(cut)),
        ("connections that the kill broke", sum(len(node.breaks) for node in scale.nodes)),
        ("blocks sent again after it", sum(node.sent_again for node in scale.nodes)),
        ("connections that haproxy gave daemon1 / daemon2, tries on the dead one included",
         f"{servers['daemon1']['stot']} / {servers['daemon2']['stot']}")]
    print()
    for name, value in rows:
        print(f"  {name:<80}{value if isinstance(value, str) else format(value, ','):>10}")
    if lost:
        oldest = killed - min(lost.values())
        print(f"\n  The oldest lost block had been acknowledged {oldest:.2f} s before the kill: a daemon "
              f"answers when\n  a block is queued, and writes when "
              f"{SETTINGS['PELORUS_IDEAL_QUEUED_MESSAGES']} wait or "
              f"{SETTINGS['PELORUS_BUFFER_TIME']} s have passed since its last write.")
    return (SERIES * len(acknowledged) == RECORDS and len(lost) == len(explained)
            and not cut and not unknown and len(held) > 0)


def main():
    end_with_cleanup(LIMIT)
    with ExitStack() as on_exit:
        folder = Path(on_exit.enter_context(tempfile.TemporaryDirectory(prefix="pelorus-scale-")))
        print(f"{NODES} nodes, {RECORDS:,} records, two daemons, one store", flush=True)
        scale = Scale(folder, on_exit)
        killed = scale.run()
        good = judge(scale, killed)
    print("\n  as expected" if good else "\n  NOT as expected: see the table")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
