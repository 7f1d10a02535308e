"""Faults of peers, each to be tried on a stage beside a quiet verified node and a quiet local peer,
which lose nothing and are not kept waiting."""

import signal
import time

from harness.bad_peers import (CONTENT_CLAIMS, LYING_PREFIXES, NO_SKEIN, NUMBERED, SNAPPY_CLAIMS,
                               UNNUMBERED, Crowd, bomb, many, odd_shapes, pour, reset_flood,
                               send_some, told_as)
from harness.process import wait_until
from harness.skein_client import REPLY, REQUEST, frame
from harness.stage import KEY, Fault

STATS = frame([REQUEST, 3, "stats", {}])
PEERS = {"node": r"127\.0\.0\.1:\d+", "local": r"a local peer \(process \d+, user \d+\)"}
QUICK = "its connection ends, with a warning that says why"


def each_ends(faults):
    """Every row on either socket: the daemon ends that connection, and says once why."""
    def attempt(stage):
        rows, logged = told_as(faults), stage.log_count("Closing the connection of ")
        for text, data in rows:
            for name, connect in stage.both():
                before = len(stage.daemon.text())
                with connect() as client:
                    pour(client, data)
                    while client.receive() is not None:
                        pass
                stage.wait_logged_again(rf"Closing the connection of {PEERS[name]}: {text}\b", before)
        assert stage.log_count("Closing the connection of ") - logged == 2 * len(rows)
        return f"{2 * len(rows)} connections ended"
    return attempt


def odd_shapes_are_answered(stage):
    shapes, before = list(odd_shapes()), stage.log_count("<3>Exception in ")
    for name, connect in stage.both():
        with connect() as client:
            for shape in shapes:
                client.send(shape)
            replies = [client.receive() for _ in shapes[len(UNNUMBERED):]]
            assert all(reply[:2] == [REPLY, 7] for reply in replies), name
            for reply in replies[:len(NUMBERED)]:
                assert isinstance(reply[2], str) and reply[3] is None, (name, reply)
            client.send([REQUEST, 99, "no such request", {}])
            assert client.receive()[1] == 99, name
    logged = stage.log_count("<3>Exception in ") - before
    assert logged >= 2 * len(UNNUMBERED + NUMBERED), f"{logged} failures logged"
    return f"{len(shapes)} shapes on each socket, connections stand"


def split_at_every_byte(stage):
    whole = frame([REQUEST, 1, "collectd", {"key": KEY, "metrics": "node7.a.b 1 1\n"}])
    with stage.node() as node, stage.local() as local:
        for at in range(1, len(whole)):
            for client in (node, local):
                client.send_bytes(whole[:at])
                client.send_bytes(whole[at:])
                assert client.receive() == [REPLY, 1, None, None]
    return f"{len(whole) - 1} places on each socket"


def thousand_frames_at_once(stage):
    with stage.local() as client:
        client.send_bytes(b"".join(frame([REQUEST, n, "stats", {}]) for n in range(1000)))
        assert [client.receive()[1] for _ in range(1000)] == list(range(1000))
    return "1,000 replies in order"


def drips(stage):
    crowd = many(stage.local, 25) + many(stage.node, 25)
    for byte in STATS + STATS[:3]:
        for client in crowd:
            pour(client, bytes([byte]))
    for client in crowd:
        assert client.receive()[:2] == [REPLY, 3]
        client.close()
    return "50 peers served byte by byte"


def half_close(stage):
    for _, connect in stage.both():
        with connect() as client:
            client.send_bytes(STATS + STATS[:-1])
            client.half_close()
            assert client.receive()[:2] == [REPLY, 3]
            assert client.receive() is None
    return "what was whole is answered, then the end"


def flood(stage):
    clients = many(stage.local, 2) + many(stage.node, 2)
    crowd = Crowd(clients, send_some(STATS * 2000))
    wait_until(lambda: crowd.rounds > 500, "the flood, with the bystanders beside it")
    crowd.stop()
    return f"{crowd.rounds} times as much as fits"


def no_reader(stage):
    """The replies of `stats` are longer than the requests, and nobody reads them."""
    client = stage.local()
    sent = 0
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        taken = client.send_now(STATS * 5000)
        sent += taken
        if taken == 0 and not wait_taken(client, 0.5):
            break
    client.close()
    peak = stage.daemon.memory("VmHWM")
    assert peak < 200, f"{peak} MiB"
    return f"not read any more after {sent / 1e6:.1f} MB; peak memory {peak:.0f} MiB"


def wait_taken(client, seconds):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if client.send_now(STATS):
            return True
        time.sleep(0.02)
    return False


def bombs(stage):
    data = bomb(content="x")
    for client in many(stage.node, 4) + many(stage.local, 4):
        pour(client, data)
        assert client.receive()[0] == REPLY
        client.close()
    return f"{len(data) // 1000} KB become 16 MiB; peak memory {stage.daemon.memory('VmHWM'):.0f} MiB"


def endless_lines(stage):
    with_key = many(stage.node, 10)
    without = many(stage.node, 10)
    for _ in range(5):
        for client in with_key:
            stage.send_as(client, "unknown-endless", "x" * 65_000)
        for client in without:
            client.send([REQUEST, 1, "collectd", {"metrics": "x" * 65_000}])
            assert client.receive()[2] is not None
    for client in with_key + without:
        client.close()
    assert stage.log_count("no node found for the key ending in less.") == 5 * len(with_key)
    return "refused"


def freeze(stage):
    stage.daemon.send_signal(signal.SIGSTOP)
    time.sleep(2)
    stage.daemon.send_signal(signal.SIGCONT)
    stage.bystander.look()
    return "goes on"


PEER_FAULTS = [
    Fault("length prefixes that lie", QUICK, each_ends(LYING_PREFIXES)),
    Fault("blocks that claim what they do not hold", QUICK, each_ends(SNAPPY_CLAIMS)),
    Fault("depth, elements and texts that are claimed", QUICK, each_ends(CONTENT_CLAIMS)),
    Fault("bytes of other protocols, and random ones", QUICK, each_ends(NO_SKEIN)),
    Fault("odd shapes", "answered with an error where they have a number",
          odd_shapes_are_answered),
    Fault("split at every byte", "served", split_at_every_byte),
    Fault("1,000 frames at once", "served in order", thousand_frames_at_once),
    Fault("slow drips", "served", drips),
    Fault("half-close", "what was whole is answered", half_close),
    Fault("a flooding peer", "quiet peers are served", flood),
    Fault("a peer that never reads", "is not read any more", no_reader),
    Fault("bombs", "bounded memory", bombs),
    Fault("endless lines without a key", "refused", endless_lines),
    Fault("connections that are reset", "forgotten",
          lambda stage: reset_flood(stage, 200)),
    Fault("stopped and continued", "goes on", freeze, seconds=3),
]
