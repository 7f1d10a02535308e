"""Faults of InfluxDB and of the web server, each to be tried on a stage: quiet peers are not kept
waiting, and when the far end is well again, so is everything else, without anybody's help."""

import itertools
import time

from harness.conduct import (NO_CONTENT, FullListener, answering, chunked, endings, forgiving,
                             linger, never_read, read_half_a_body, read_head, read_nothing,
                             read_request, reset, status)
from harness.stage import KEY, Fault
from harness.stub_influx import StubInflux

LOST = "one warning, the batch is lost"
NEW_KEYS = (f"new-key-{number:04}-dddd" for number in itertools.count())
BIG = "load shortterm=1 1700000000000000000\n" * 200_000  # more than sockets buffer

# name, conduct, what the warning says
INFLUX_FAILURES = [
    *((name, conduct, r"(closed|receiving|sending)") for name, conduct in [
        *endings(read_nothing, "connecting"), *endings(read_head, "the head"),
        *endings(read_request, "the request")]),
    ("closes after half an answer", answering(NO_CONTENT[:20]), "closed in the middle"),
    ("resets after half an answer", answering(NO_CONTENT[:20], then=reset), "receiving: "),
    ("closes inside a body", answering(status(500, b"x" * 100)[:-50]), "status 500"),
    *((f"answers {code}", answering(status(code)), f"status {code}")
      for code in (200, 401, 404, 429, 500, 503)),
    ("answers 301", answering(status(301, more=b"Location: http://127.0.0.1:1/\r\n")),
     "status 301"),
    ("repeats the request", lambda connected: connected.sendall(
        status(400, b"\r\n".join(read_request(connected)))), "repeats the credentials"),
    ("rubbish", answering(b"\xff\x00rubbish\r\n\r\n"), "does not begin with"),
    ("a head of 1 MB", answering(b"HTTP/1.1 204 Any\r\nX: " + b"x" * 1_000_000), "too long"),
    ("heads of 1 MB", answering(b"HTTP/1.1 100 Any\r\n\r\n" * 50_000), "too long"),
    ("answers 500 in chunks", answering(chunked(500, b"disk is full")), "status 500: b'disk is full'"),
    ("a body without an end", answering(b"HTTP/1.1 500 Any\r\n\r\n" + b"x" * 3_000_000),
     "status 500"),
]

INFLUX_ODDITIES = [
    ("100 before the answer", answering(b"HTTP/1.1 100 Continue\r\n\r\n" + NO_CONTENT)),
    ("byte by byte", answering(NO_CONTENT, piece=1, pause=0.002)),
    ("204 with a body", answering(NO_CONTENT + b"x" * 1000)),
    ("204 in chunks", answering(chunked(204, b"x"))),
    ("204 with line feeds alone", answering(b"HTTP/1.0 204\n\n")),
]


def failing(conduct, warning, seconds=15):
    def attempt(stage):
        before = len(stage.daemon.text())
        stage.influx.conduct = forgiving(conduct)
        line = rf"InfluxDB write \(\w+ database\) failed: .*{warning}"
        return stage.wait_logged_again(line, before, seconds).split("failed: ")[1]
    return attempt


def odd_but_good(conduct):
    def attempt(stage):
        failures = stage.log_count("InfluxDB write (")
        stage.influx.conduct = forgiving(conduct)
        with stage.local() as local:
            before = local.call("stats")["bonding"]["last_sent_time"]
            while local.call("stats")["bonding"]["last_sent_time"] <= before:
                pass
        assert stage.log_count("InfluxDB write (") == failures
        return "a success"
    return attempt


def refused(stage):
    port, before = stage.influx.port, len(stage.daemon.text())
    stage.influx.close()
    seen = stage.wait_logged_again("could not connect", before)
    stage.influx = StubInflux(port)
    return seen.split("failed: ")[1]


def failing_with_a_big_batch(conduct, warning):
    """More than fits into the sockets' buffers, so that it happens while the batch is sent."""
    def attempt(stage):
        before = len(stage.daemon.text())
        stage.influx.conduct = forgiving(conduct)
        with stage.node() as node:
            node.call("add", {"key": KEY, "database": "bonding", "data": BIG})
        return stage.wait_logged_again(rf"({warning}).*\d{{7}} bytes", before).split("failed: ")[1]
    return attempt


INFLUX_FAULTS = [
    *(Fault(f"InfluxDB {name}", LOST, failing(conduct, warning))
      for name, conduct, warning in INFLUX_FAILURES),
    *(Fault(f"InfluxDB: {name}", "taken as what it is", odd_but_good(conduct))
      for name, conduct in INFLUX_ODDITIES),
    Fault("InfluxDB refuses connections", "what waits is kept", refused),
    *(Fault(f"InfluxDB {name} while it is being sent to", LOST,
            failing_with_a_big_batch(conduct, warning)) for name, conduct, warning in [
                ("answers 413", answering(status(413), read_head, never_read), "status 413"),
                *((name, conduct, "sending: |receiving: ")
                  for name, conduct in endings(read_half_a_body, "half the body"))]),
]


REFUSED = "the request is dropped, its peer answered"
TIMED_OUT = "Timed out trying to authenticate to web server"
NOT_CONNECTED = "Failed to connect to web server"
STATUS = "Received response with unexpected status code {} while"
CONTENT = "Received response with unexpected response content"
OTHER = "Exception in NodeServer: node key verification: "
GOOD_HEAD = status(200, b'{"key": "')[:-9]

# name, conduct, what the log says
WEB_FAILURES = [
    *((f"{name} of TLS", (conduct, False), NOT_CONNECTED)
      for name, conduct in endings(read_nothing, "connecting")),
    ("speaks no TLS", (answering(status(200), lambda _: None), False), NOT_CONNECTED),
    ("never shakes hands", (linger, False), TIMED_OUT),
    *((name, (conduct, True), f"({OTHER}|{NOT_CONNECTED})") for name, conduct in [
        *endings(read_nothing, "the handshake"), *endings(read_head, "the head"),
        *endings(read_request, "the request")]),
    ("closes after half an answer", (answering(GOOD_HEAD), True), OTHER),
    ("resets after half an answer", (answering(GOOD_HEAD, then=reset), True), OTHER),
    ("never answers", (answering(b"", then=linger), True), TIMED_OUT),
    ("never reads", (never_read, True), TIMED_OUT),
    ("never goes on after half an answer", (answering(GOOD_HEAD, then=linger), True), TIMED_OUT),
    *((f"answers {code}", (answering(status(code)), True), STATUS.format(code))
      for code in (204, 401, 403, 404, 413, 500)),
    ("answers 301", (answering(status(301, more=b"Location: http://127.0.0.1:1/\r\n")), True),
     STATUS.format(301)),
    ("rubbish", (answering(b"\xff\x00rubbish\r\n\r\n"), True), OTHER),
    ("a body of rubbish", (answering(status(200, b"\xff\x00{")), True), CONTENT),
    ("a head of 1 MB", (answering(b"HTTP/1.1 200 Any\r\nX: " + b"x" * 1_000_000), True),
     TIMED_OUT),
    ("a body of 20 MB", (answering(status(200, b"x" * 20_000_000)), True), TIMED_OUT),
    ("JSON that is no object", (answering(status(200, b"[1]")), True), "Exception in NodeServer"),
    ("deep JSON", (answering(status(200, b"[" * 10_000)), True), CONTENT),
    ("JSON without the key", (answering(status(200, b"{}")), True),
     'Received response without "key"'),
    ("another key", (answering(status(200, b'{"key": "5"}')), True), "no node found"),
]


def ask(stage, key):
    with stage.node() as node:
        try:
            stage.send_as(node, key, "node7.load.load.longterm 0.5 1700000000\n")
        except Exception as failure:  # a failure of the exchange is the answer
            return str(failure)
    return None


def expect_confirmed(stage):
    """A new key, and that its data are written."""
    key = next(NEW_KEYS)
    begin = len(stage.influx.requests)
    with stage.node() as node:
        stage.send_as(node, key, f"node7.load.load.longterm {begin} 1600000000\n")
    wanted = b"load,node=7 longterm=%di" % begin
    while not any(wanted in request.bytes for request in stage.influx.requests[begin:]):
        stage.daemon.expect_running()


def web_failing(conduct, tls, line):
    def attempt(stage):
        before, key = len(stage.daemon.text()), next(NEW_KEYS)
        stage.web.behave(conduct, tls)
        ask(stage, key)
        seen = stage.wait_logged_again(line, before)
        stage.web.behave()
        expect_confirmed(stage)
        return seen[3:]
    return attempt


def web_odd_but_good(stage):
    def in_pieces(connected):
        while True:
            _, body = read_request(connected)
            answer = b'{"key": "%s"}' % body.removeprefix(b"key=")
            for byte in b"HTTP/1.1 100 Any\r\n\r\n" + chunked(200, answer):
                connected.sendall(bytes([byte]))
    stage.web.behave(in_pieces)
    expect_confirmed(stage)
    return "confirmed"


def web_refused(stage):
    before = len(stage.daemon.text())
    stage.web.close()
    ask(stage, next(NEW_KEYS))
    seen = stage.wait_logged_again(NOT_CONNECTED, before)
    stage.web.listen()
    expect_confirmed(stage)
    return seen[3:]


def web_does_not_answer_at_all(stage):
    before, port = len(stage.daemon.text()), stage.web.server.port
    stage.web.close()
    full = FullListener(port)
    ask(stage, next(NEW_KEYS))
    seen = stage.wait_logged_again(TIMED_OUT, before)
    full.close()
    stage.web.listen()
    expect_confirmed(stage)
    return seen[3:]


def keys_of_peers_that_have_gone(stage):
    """Many made-up ones before a new good one, and a web server that takes its time."""
    asked = []

    def slow(connected):
        while True:
            key = read_request(connected)[1].removeprefix(b"key=")
            asked.append(key)
            time.sleep(0.05)
            connected.sendall(status(200, b'{"key": "%s"}' % key))
    stage.web.behave(slow)
    for number in range(400):
        with stage.node() as node:
            node.send([2, "collectd", {"key": f"unknown{number}", "metrics": ""}])
    expect_confirmed(stage)
    assert len(asked) < 300, f"{len(asked)} made-up keys were asked about before the good one"
    return "the good key went before those that nobody waits for"


WEB_FAULTS = [
    *(Fault(f"web server {name}", REFUSED, web_failing(*behaviour, line))
      for name, behaviour, line in WEB_FAILURES),
    Fault("web server: 100, then chunks, byte by byte", "confirmed", web_odd_but_good),
    Fault("made-up keys of peers that have gone", "they wait behind a good one",
          keys_of_peers_that_have_gone),
    Fault("web server refuses connections", REFUSED, web_refused),
    Fault("web server leaves a SYN unanswered", REFUSED, web_does_not_answer_at_all),
]
