"""Faults that take much memory or much traffic, each on a daemon of its own."""

import random
import re
import struct
import time

from harness.bad_peers import Crowd, bomb, many, pour, reset_flood, send_some
from harness.conduct import in_thread, linger
from harness.process import wait_until
from harness.skein_client import REPLY, REQUEST, SkeinClient, frame
from harness.stage import KEY, LAST_LINE_WARNING, Fault

BUDGET = 256  # MiB that all peers together may make the daemon hold
MOST_MEMORY = BUDGET + 150  # MiB, with the daemon itself, one message and one block under way
MOST_ADDRESSES = 600_000_000  # bytes; some 560 million are reserved from the start
STATS = frame([REQUEST, 3, "stats", {}])
RECORD = "load shortterm=1 1700000000000000000\n"
LINE = "node7.load.load.midterm 0.5 1700000000\n"
OTHER_KEY = "11112222333344445555666677778888"  # requests of one key wait for each other


def expect_memory(stage, most=MOST_MEMORY):
    peak = stage.daemon.memory("VmHWM")
    if peak > most:
        raise AssertionError(f"peak memory {peak:.0f} MiB, {most} are allowed")
    return f"peak memory {peak:.0f} MiB"


def bombs_from_64(stage, data):
    """Held by the daemon while the web server thinks about their keys."""
    stage.web.behave(linger)
    clients = many(stage.node, 64)
    threads = [in_thread(pour, client, data) for client in clients]
    for thread in threads:
        thread.join(60)
    time.sleep(2)  # with the web server silent, more and more of them are held
    stage.web.behave()
    for client in clients:
        client.close()
    return f"{len(data) / 1e6:.1f} MB each; {expect_memory(stage)}"


def small_bombs(stage):
    return bombs_from_64(stage, bomb())


def big_bombs(stage):
    """Content that does not compress."""
    content = random.Random(1).randbytes((16 << 20) - 200)
    return bombs_from_64(stage, frame([REQUEST, 1, "collectd",
                                       {"key": "unknown", "metrics": content}]))


def flood_of_bombs(stage):
    """Small enough to pass as ordinary requests, and one behind another."""
    data = bomb(size=1 << 20) * 20
    crowd = Crowd(many(stage.node, 64), send_some(data))
    time.sleep(5)  # of full flood, beside the bystanders
    crowd.stop()
    return f"{len(data) // 20_000} KB become 1 MiB; {expect_memory(stage)}"


def flood_of_elements(stage):
    """A byte each, and up to a million of them in 46 KB; a verified node's large block meanwhile."""
    frames = [frame([REQUEST, 1, "none", {"a": [None] * count}]) for count in (990_000, 60_000)]
    block = frame([REQUEST, 1, "collectd", {"key": OTHER_KEY, "metrics": "".join(
        f"node{i % 977}.load.load.longterm {i * i}.{i} {1_700_000_000 + i}\n" for i in range(9000))}])
    with stage.node(60) as node:
        stage.send_as(node, OTHER_KEY, LINE)
        crowds = [Crowd(many(stage.node, 32), send_some(data * 16)) for data in frames]
        time.sleep(2)  # of full flood
        begin = time.monotonic()
        node.send_bytes(block)
        assert node.receive() == [REPLY, 1, None, None]
        taken = time.monotonic() - begin
        for crowd in crowds:
            crowd.stop()
    assert taken < 1, f"{taken:.1f} s for a block of {len(block)} bytes"
    return f"a verified node's block of {len(block) // 1000} KB was taken in {taken * 1000:.0f} ms"


def memory_used_up(stage):
    """Frames for whose content there is no memory, and one that fits behind them."""
    data = bomb(size=(16 << 20) - 200)
    for _ in range(20):
        clients = many(stage.node, 4)
        for client in clients:
            client.send_bytes(data)
        for client in clients:
            client.receive()
            client.close()
    with stage.node() as node:
        stage.send_as(node, KEY, LINE)
    return f"{stage.log_count('bad_alloc')} allocations failed"


def local_bombs(stage):
    """Lines without an end by 64 local peers, who are trusted."""
    for client in (clients := many(stage.local, 64)):
        pour(client, bomb(key="", size=4 << 20))
    for client in clients:
        assert client.receive()[2] is None
    held = stage.daemon.memory("VmRSS")
    assert held > 64 * 4, f"{held} MiB"
    for client in clients:
        client.close()
    return expect_memory(stage)


def half_frames_of_200(stage):
    """200 peers without a key begin a frame of 19 MB, and each sends 1.5 MB of it, which is more
    than all of them may make the daemon hold."""
    head, piece = struct.pack(">I", 19_000_000), b"x" * 100_000
    clients = many(stage.node, 200)
    for client in clients:
        pour(client, head)
    for _ in range(15):
        for client in clients:
            pour(client, piece)
    stage.wait_logged("bytes are held for all connections", seconds=60)
    seen = expect_memory(stage)
    for client in clients:
        client.close()
    return f"300 MB of half frames; {seen}"


def lines_of_200(stage):
    clients = many(stage.node, 200)
    for turn in range(10):
        for client in clients:
            client.send([REQUEST, turn, "collectd", {"key": "unknown", "metrics": "x" * 100_000}])
    for client in clients:
        for turn in range(10):
            assert client.receive()[:2] == [REPLY, turn]
        client.close()
    return f"2,000 refused; {expect_memory(stage)}"


def connect_flood(stage):
    threads = [in_thread(reset_flood, stage, 1500) for _ in range(4)]
    for thread in threads:
        thread.join()
    assert SkeinClient(stage.daemon.node_address).call("add", {
        "key": KEY, "database": "bonding", "data": RECORD}) is None
    return "12,000 connections came and went"


def flood(stage):
    lines = LINE * 1500
    crowds = [Crowd(many(stage.local, 4), send_some(STATS * 5000)),
              Crowd(many(stage.local, 2),
                    send_some(frame([REQUEST, 1, "collectd", {"metrics": lines}]) * 20)),
              Crowd(many(stage.node, 4), send_some(b"\0\0\0\1\0" * 10_000))]
    time.sleep(5)  # of full flood, beside the bystanders
    for crowd in crowds:
        crowd.stop()
    return expect_memory(stage)


def use_up_descriptors(stage):
    clients = []
    for _ in range(300):
        try:
            clients.append(SkeinClient(stage.daemon.node_address, 1))
        except OSError:
            break
    before, begin = stage.daemon.processor_seconds(), time.monotonic()
    stage.wait_written_again()
    time.sleep(3)  # in which a daemon that tried again and again would burn the processor
    burnt = (stage.daemon.processor_seconds() - before) / (time.monotonic() - begin)
    assert burnt < 0.5, f"{burnt:.2f} of a processor"
    for client in clients:
        client.close()
    with stage.node() as node:
        node.call("add", {"key": KEY, "database": "bonding", "data": RECORD})
    return f"{len(clients)} connections at 128 descriptors, {burnt:.2f} of a processor"


def empty_line_warnings(stage):
    """Logged and dropped, without the bystanders' share of them: one for each of their blocks."""
    text, sent = stage.daemon.text(), stage.bystander.look(peek=True)["sent"]
    dropped = sum(map(int, re.findall(r"(\d+) log lines were dropped", text)))
    return text.count(LAST_LINE_WARNING) + dropped - 2 * sent


def line_feeds(stage):
    """A block of 1 MiB of line feeds by a verified node."""
    count, before = 1 << 20, empty_line_warnings(stage)
    with stage.node() as node:
        node.call("collectd", {"key": KEY, "metrics": "\n" * count})
        wait_until(lambda: "log lines were dropped" in stage.daemon.text(), "the count")
        after = empty_line_warnings(stage)
    beyond = after - before - (count + 1)
    assert abs(beyond) <= 4, f"{beyond} warnings too many"  # of blocks that came between two looks
    return f"{count + 1} warnings logged or counted"


def long_submit(stage):
    """Times that become numbers of 300 digits, in as many points as one request may have."""
    count, point = 333_000, [1.5e300, 1.7e308]
    submit = {"key": OTHER_KEY, "database": "bonding", "name": "node7.tunnel-1.state",
              "columns": ["time", "value"], "points": [point] * count}
    with stage.node(120) as node:
        begin = time.monotonic()
        stage.send_as(node, OTHER_KEY, LINE)
        node.call("submit", submit)
        return f"{count} points in {time.monotonic() - begin:.1f} s"


def let_through_at_once(stage):
    """Fifteen blocks of 16 MB of one node wait for the same answer of the web server."""
    def think(connected):
        time.sleep(0.9)
        stage.web.confirm(connected)

    stage.web.behave(think)
    line = "node7.load.load.midterm nan 1700000000\n"  # nothing that the far end has to take
    block = line * ((16 << 20) // len(line) - 10)
    clients = many(stage.node, 15)
    stage.keys.add(OTHER_KEY)
    for client in clients:
        client.send([REQUEST, 1, "collectd", {"key": OTHER_KEY, "metrics": block}])
    begin = time.monotonic()
    for client in clients:
        assert client.receive() == [REPLY, 1, None, None]
        client.close()
    return f"all are answered {time.monotonic() - begin:.1f} s later"


BOUNDED = f"at most {BUDGET} MiB are held"
SERVED = "quiet peers are served"
HEAVY = [
    Fault("bombs of 787 KB from 64 nodes whose keys are being verified", BOUNDED, small_bombs),
    Fault("bombs of 16 MB from 64 nodes whose keys are being verified", BOUNDED, big_bombs),
    Fault("a flood of bombs of 50 KB from 64 nodes", SERVED, flood_of_bombs),
    Fault("a flood of elements from 64 peers without a key", SERVED, flood_of_elements),
    Fault("memory used up", "it lives and goes on", memory_used_up,
          {"wrapper": ["prlimit", f"--as={MOST_ADDRESSES}", "--"]}),
    Fault("lines without an end from 64 local peers", "kept, 4 MiB each", local_bombs),
    Fault("half frames of 200 peers without a key", BOUNDED, half_frames_of_200),
    Fault("endless lines without a key from 200 peers", BOUNDED, lines_of_200),
    Fault("a flood of connections and resets", SERVED, connect_flood),
    Fault("ten flooding peers", SERVED, flood),
    Fault("a block of 1 MiB of line feeds", "an exact count; " + SERVED, line_feeds),
    Fault("a submit of 333,000 points with 300 digits each", SERVED, long_submit),
    Fault("15 blocks of 16 MB that wait for one answer", SERVED, let_through_at_once),
    Fault("descriptors used up", "existing peers and outputs are served, no spin",
          use_up_descriptors, {"wrapper": ["prlimit", "--nofile=128:128", "--"]}),
]
