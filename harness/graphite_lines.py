"""Graphite lines as a collectd sends them: every series once per interval, one type per field."""

import itertools

CPU_STATES = ("idle", "user", "system", "wait", "nice", "interrupt", "softirq", "steal")
FIRST_TIMESTAMP = 1_700_000_000
INTERVAL = 10  # seconds


def _series():
    """Names behind the source, and whether the values are whole numbers."""
    for cpu, state in itertools.product(range(4), CPU_STATES):
        yield f"cpu-{cpu}.cpu-{state}", False
    for name, way in itertools.product(("octets", "packets", "errors", "dropped"), ("rx", "tx")):
        yield f"interface-eth0.if_{name}.{way}", True
        yield f"interface-eth1.if_{name}.{way}", True
    for name, way in itertools.product(("octets", "ops", "time", "merged"), ("read", "write")):
        yield f"disk-sda.disk_{name}.{way}", True
    for path, state in itertools.product(("root", "var-log"), ("free", "used", "reserved")):
        yield f"df-{path}.df_complex-{state}", True
    for name in ("used", "free", "cached", "buffered", "slab_unrecl", "slab_recl"):
        yield f"memory.memory-{name}", True
    for name in ("running", "sleeping", "zombies", "stopped", "paging", "blocked"):
        yield f"processes.ps_state-{name}", True
    for name in ("shortterm", "midterm", "longterm"):
        yield f"load.load.{name}", False
    for number in range(20):
        yield f"irq.irq-{number}", True
    yield "uptime.uptime.value", True
    yield "entropy.entropy.value", True


def collectd_lines(count):
    """`count` lines, none of them for the same field of the same point as another."""
    series = list(_series())
    for number in range(count):
        interval, place = divmod(number, len(series))
        name, whole = series[place]
        value = number if whole else f"{number / 8:.3f}"
        yield f"m000.{name} {value} {FIRST_TIMESTAMP + INTERVAL * interval}\n"
