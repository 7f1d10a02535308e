#!/usr/bin/python3
"""make_seeds.py FOLDER: writes good inputs for every fuzz target, one folder each.

Those in fuzz/corpus are committed. When a request, rule or setting is added, so is a line here.
"""
import json
import pathlib
import struct
import sys

import msgpack
import snappy

KEY = "0a1b-2c3d"
SERIES = """load.load.shortterm entropy.entropy.value uptime.uptime.value redis.memory
memory.memory-used cpu-3.cpu-idle.value cpufreq.cpufreq-1 processes-nginx.ps_rss.value
processes.ps_state-running processes.fork_rate disk-sda.disk_octets.read
interface-eth0.if_octets.rx postgresql-main.pg_n_tup_c-ins swap.swap_io-in swap.swap-free
filecount-influxdb.files df-root.df_complex-free df-var-log.df_complex-used irq.irq-12 irq.irq-NMI
conntrack.percent-used conntrack.conntrack-max conntrack.conntrack vmem.vmpage_number-free_pages
vmem.vmpage_io-memory.in vmem.vmpage_faults.majflt vmem.vmpage_action-dirtied
nginx.connections-accepted nginx.nginx_connections-active nginx.nginx_requests
ntpd.time_offset-192.168.1.1.value ntpd.frequency_offset-loop.value
tunnel-4.link_2.latency.value tunnel-4.link_2.link_traffic.rx tunnel-4.tun_traffic.rx
tunnel-4.reorderer.drops.count tunnel-4.compressor.ratios.in tunnel-4.balancer.flows.active.value
tunnel-4.packet_protocols_udp.value tunnel-4.link-2.interface_statistics.rx_packets
link-7.packet_loss.value aggregation-cpu-average.cpu-idle aggregator.tun_sent.bytes
aggregator.flows.open aggfail.gauge-link1_failed_checks aggfail.gauge-link1_successful_checks
status.config_updates.sent bridge-main.open_connections.value bridge-main.pending_connections.value
bridge-main.failures.total bridge-main.local_message_queue_size.value
bridge-main.outside_connection_queues.value bridge-main.traffic_bytes.outside_tx""".split()
NAMES = ["m000." + name for name in SERIES] + ["node1234." + SERIES[0], "node.load.load.x", "abc.x"]
LINES = [f"{name} {value} 1700000000\n".encode()
         for name, value in zip(NAMES, ["5", "2.5", "-3", "nan", "12345678901234567890"] * 20)]
POINTS = [[1500000000000, "up"], [1500000000000.5, 2.5], [-1, None], [True, [1, {"a": b"\xff"}]],
          [0, msgpack.ExtType(5, b"x")]]
SUBMIT = "node12.tunnel_7.link_wan1.overall_state"


def request(msgid, name, /, **arguments):
    return msgpack.packb([0, msgid, name, arguments])


def framed(*messages):
    blocks = [snappy.compress(message) for message in messages]
    return b"".join(struct.pack(">I", len(block)) + block for block in blocks)


def sections(lines):
    """Lines in blocks of a few hundred bytes."""
    return [b"".join(lines[at:at + 8]) for at in range(0, len(lines), 8)]


def requests_of_a_node():
    yield request(1, "add", key=KEY, database="bonding", data="m v=1 1\nm v=2")
    yield request(2, "submit", key=KEY, database="bonding", name=SUBMIT, columns=["time", "state"],
                  points=POINTS, time_precision="s")
    for letter in "ntcxo":
        yield request(3, "collectd", key=letter + KEY, metrics=LINES[0].decode())
    yield request(4, "collectd", key=KEY, metrics="m000.load.load.short")
    yield request(5, "collectd", key=KEY, metrics="term 5 1700000000\nrubbish\n")
    yield msgpack.packb([2, "collectd", {"key": KEY, "metrics": LINES[1].decode()}])


def requests_of_collectd():
    for block in sections(LINES):
        yield request(1, "collectd", metrics=block.decode())
    yield request(2, "collectd", metrics="")
    yield request(3, "stats")
    yield request(4, "status")
    yield request(5, "fail")
    yield msgpack.packb([2, "collectd", {"metrics": b"m000.load.load.x 1"}])


SHAPES = [request(1, "unknown"), msgpack.packb([0, 1, "add"]), msgpack.packb([0, -1, "add", {}]),
          msgpack.packb([0, 1, 5, {}]), msgpack.packb([0, 1, "add", {1: 2}]), msgpack.packb({}),
          msgpack.packb([1, 1, None, None]), msgpack.packb([0, 1, "add", []]), b"\xc1", b"\x94\x00"]
ALL_SETTINGS = {
    "PELORUS_MAX_PENDING_MESSAGES": 1000, "PELORUS_BUFFER_TIME": 0.5,
    "PELORUS_IDEAL_QUEUED_MESSAGES": 10, "PELORUS_MAX_BATCH_SIZE": 100, "PELORUS_DISCARD_SIZE": 50,
    "INFLUX_DATABASES": [{"name": "tidewell"}, {"name": "bonding"}], "INFLUX_AUTH": "sEcReTYTpi",
    "INFLUX_HTTP_CONNECTION": "127.0.0.1:8086", "PELORUS_SERVER": "0.0.0.0", "PELORUS_PORT": 4000}
HEADS = ["204 No Content\r\n\r\n", "200 OK\r\nContent-Length: 4\r\n\r\nbody",
         "100 Continue\r\n\r\nHTTP/1.1 204 No Content\r\n\r\n", "500 x\r\n\r\nuntil the close",
         "200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\nA;x=y\r\n0123456789\r\n0\r\nT: 1\r\n\r\n",
         "400 Bad\nContent-Length: 2\nContent-Length: 3\n\n{}", "413 x\r\n folded\r\n"]


def seeds():
    """Target to inputs. A leading byte chooses how the rest is cut, or the size of a buffer. A nil
    between requests lets the server go on before the next one comes."""
    node, local = list(requests_of_a_node()), list(requests_of_collectd())
    served = [request(number, name, a="b") for number, name in enumerate(["now", "later", "fail"])]
    yield "frames", [bytes([cut]) + framed(*messages) for cut in (0, 3, 7)
                     for messages in (served, served * 4, SHAPES[:4] + served, SHAPES[8:])]
    yield "frames", [b"\x01" + framed(served[0]) + tail for tail in
                     (b"\0\0\0\0", b"\xff\xff\xff\xff", b"\0\0\0\x05rubbish", b"\0\0\0\x02\xff\xff")]
    yield "local_requests", local + SHAPES + [b"\xc0".join(local[-4:]), b"".join(SHAPES),
                                              b"".join(local[-4:] * 5)]  # too many for one turn
    yield "node_requests", node + SHAPES + [b"".join(node), b"\xc0".join(node[-3:] * 2)]
    yield "translate", [name.encode() for name in NAMES]
    yield "graphite_block", [bytes([size]) + block for size, block in enumerate(sections(LINES))]
    yield "graphite_block", [b"\x04" + LINES[0] + b"\0m000.load.load.x 1 17000000001234567\n x\n\n"]
    yield "remainder", [b"\x03a\nbc\n\nd", b"\x07" + b"".join(LINES[:3]), b"\x00\n", b"\x02none"]
    yield "submit", [msgpack.packb([SUBMIT, POINTS]), msgpack.packb(["node1.tunnel-2.state", POINTS]),
                     msgpack.packb(["a.b", POINTS]), msgpack.packb([SUBMIT, [[1]]]),
                     msgpack.packb([SUBMIT, [[float("inf"), 1]]]), msgpack.packb([SUBMIT, 5])]
    yield "http_response", [bytes([cut]) + b"HTTP/1.1 " + head.encode() for cut in (3, 0x82)
                            for head in HEADS]
    yield "key_answer", [text.encode() for text in
                         ('{"key": "0a1b2c3d4e5f"}', '{"key": "other"}', '{"key": 5}', "{}", "[]",
                          '<p>0a1b-2c3d4e5f</p>', '{"x": "t0ken-of-the-web-server"}', "")]
    yield "settings", [json.dumps(ALL_SETTINGS).encode()] + [
        json.dumps(ALL_SETTINGS | {key: value}).encode() for key in ALL_SETTINGS
        for value in (0, "[::1]:1", None)]


def main():
    folder = pathlib.Path(sys.argv[1])
    inputs_of = {}
    for target, inputs in seeds():
        inputs_of.setdefault(target, []).extend(inputs)
    for target, inputs in inputs_of.items():
        (folder / target).mkdir(parents=True, exist_ok=True)
        for number, content in enumerate(inputs):
            (folder / target / f"seed{number:02}").write_bytes(content)


if __name__ == "__main__":
    main()
