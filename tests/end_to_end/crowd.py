"""python3 -m tests.end_to_end.crowd HOST PORT SOCKET KEYS: good and bad peers, until it is ended.
What costs much to make is made once, and each peer rests between two deeds, so that the daemon has
the work and not this."""

import random
import sys
import time

from harness.process import Repeated
from harness.skein_client import REQUEST, SkeinClient, frame
from tests.end_to_end.bad_peers import BROKEN, bomb

NODES, LOCAL = (sys.argv[1], int(sys.argv[2])), sys.argv[3]
KEYS = sys.argv[4].split(",")
SECONDS = 120  # that a reply may take
any_of = random.Random(7)


def request(**args):
    return frame([REQUEST, 1, "collectd", args])


BLOCK = "".join(f"m000.irq.irq-{number} {number} 1700000000\n" for number in range(240))
BAD_BLOCK = "two fields\n" * 20 + "m000.foo.bar 1 1\n" * 20 + "\0\xff 1 1\n"
BLOCKS = {key: [request(key=key, metrics=BLOCK)] * 19 + [request(key=key, metrics=BAD_BLOCK)] for key in KEYS}
LOCAL_BLOCK = request(metrics=BLOCK)
NO_KEY = request(key="unknown", metrics="x" * 20_000)
BOMB = bomb()


def talk(address, requests, longest_rest):
    """Over one connection, one request after the other."""
    with SkeinClient(address, SECONDS) as peer:
        for each in requests:
            peer.send_bytes(each)
            peer.receive()
            time.sleep(any_of.uniform(0.2, longest_rest))


def node_that_comes_and_goes():
    """Stays for a while, then comes again with another key."""
    talk(NODES, any_of.choices(BLOCKS[any_of.choice(KEYS)], k=any_of.randrange(1, 30)), 1)


def collectd():
    talk(LOCAL, [LOCAL_BLOCK] * 50, 0.2)


def bomber():
    talk(NODES, [BOMB], 5)


def breaker():
    """Bytes that end the connection."""
    with SkeinClient(any_of.choice([NODES, LOCAL]), SECONDS) as peer:
        peer.send_bytes(any_of.choice(BROKEN))
        peer.receive()


def keyless():
    talk(NODES, [NO_KEY] * 20, 0.2)


crowd = [(act.__name__, Repeated(act, 0.2)) for act, number in (
    (node_that_comes_and_goes, 60), (collectd, 2), (bomber, 3), (breaker, 4), (keyless, 5))
    for _ in range(number)]
while True:
    time.sleep(5)
    for name in dict(crowd):
        print(name, sum(peer.rounds for each, peer in crowd if each == name), end=" ")
    print(flush=True)
