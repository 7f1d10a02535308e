"""A quiet verified node and a quiet local peer, beside whatever else goes on: how long the daemon
keeps them waiting, and what they have handed over. A process of its own, so that the troublemakers
do not slow it down."""

import json
from pathlib import Path
import select
import subprocess
import sys
import time

from harness import REPOSITORY
from harness.skein_client import SkeinClient

PAUSE = 0.02  # seconds between two rounds
WAIT = 120    # seconds that a reply may take at most before all is given up
FIRST_TIMESTAMP = 1_700_000_000


def record_of(number):
    """What the node's line of this number becomes."""
    return b"load,node=7 shortterm=%di %d000000000" % (number, FIRST_TIMESTAMP + number)


class Bystander:
    """The process, seen from the outside."""

    def __init__(self, daemon, key):
        self._child = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", "/usr/bin/python3", "-m", __name__,
             *map(str, daemon.node_address), key, str(daemon.socket), str(daemon.pid)],
            cwd=REPOSITORY, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True)

    def look(self):
        """Since the last look: "node" and "local", the worst delays in milliseconds without the
        time for which the machine had no processor to spare. Since the start: "sent", blocks
        that the node has handed over. Fails when the daemon has ended or not replied."""
        self._child.stdin.write("look\n")
        self._child.stdin.flush()
        answer = self._child.stdout.readline()
        if not answer:
            raise AssertionError("the daemon has dropped or not answered a quiet peer")
        return json.loads(answer)

    def close(self):
        self._child.stdin.close()
        self._child.wait(WAIT + 10)
        self._child.stdout.close()


def waited_for_processor(pid):
    """Seconds that the process was ready to run and another one ran."""
    return int(Path(f"/proc/{pid}/schedstat").read_text().split()[1]) / 1e9


class Delays:
    def __init__(self, daemon_pid):
        self._pids = (daemon_pid, "self")
        self.worst = {}

    def measure(self, who, call):
        begin, waited = time.monotonic(), self._waited()
        call()
        taken = time.monotonic() - begin - (self._waited() - waited)
        self.worst[who] = max(self.worst.get(who, 0), round(taken * 1000, 1))

    def _waited(self):
        return sum(map(waited_for_processor, self._pids))


def main(host, port, key, local_socket, daemon_pid):
    delays, sent = Delays(daemon_pid), 0
    with SkeinClient((host, int(port)), WAIT) as node, SkeinClient(local_socket, WAIT) as local:
        while True:
            sent += 1
            rest = f"load.load.shortterm {sent} {FIRST_TIMESTAMP + sent}\n"
            delays.measure("node", lambda: node.call(
                "collectd", {"key": key, "metrics": "node7." + rest}))
            delays.measure("local", lambda: local.call("stats"))
            local.collectd("m000." + rest)
            if not select.select([sys.stdin], [], [], PAUSE)[0]:
                continue
            if not sys.stdin.readline():
                return
            print(json.dumps({**delays.worst, "sent": sent}), flush=True)
            delays.worst = {}


if __name__ == "__main__":
    main(*sys.argv[1:])
