"""The rows of the table, each measured by one function. A ratio is taken of every pair of runs; the
figure is the median of the ratios, the spread their quartiles."""

from dataclasses import dataclass, field
import json
import resource
import statistics
import subprocess
import threading

from harness import BUILD
from harness.skein_client import SkeinClient
from influxd_graphite import InfluxdGraphite
from setting import HANGING_KEY

PAIRS = 9
CROWD = 10_000
DESCRIPTORS_BESIDE = 200  # what the daemon and the load need besides the crowd


@dataclass
class Row:
    number: int
    text: str
    goal: float
    figures: list = None   # one for each pair
    summary: tuple = None  # median and quartiles, where they are known already
    why_missing: str = ""
    form: str = "{:.2f}"
    notes: list = field(default_factory=list)

    def cells(self):
        """Number, what it is, goal, figure, spread, judgement."""
        goal = "≤ " + self.form.format(self.goal)
        if self.figures is None and self.summary is None:
            return [str(self.number), self.text, goal, "–", "–", self.why_missing]
        figure, low, high = self.summary or (statistics.median(self.figures),
                                             *quartiles(self.figures))
        one = self.figures is not None and len(self.figures) == 1
        spread = "one run" if one else f"{self.form.format(low)} … {self.form.format(high)}"
        return [str(self.number), self.text, goal, self.form.format(figure), spread,
                "met" if figure <= self.goal else "missed"]


def quartiles(values):
    if len(values) == 1:
        return values * 2
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, high


def measures(*numbers):
    """Marks what measures the rows of these numbers."""
    def mark(function):
        function.numbers = numbers
        return function
    return mark


def ratios(pairs):
    return [one / other for one, other, *_ in pairs]


def nanoseconds(seconds, count):
    return f"{statistics.median(seconds) * 1e9 / count:.0f} ns"


def block_figures(build):
    """Nanoseconds a line of the block path of a build: in blocks of 1000 and of 24 lines."""
    said = subprocess.run([build / "bin" / "pelorus_bench", "1000", "24"], stdout=subprocess.PIPE,
                          check=True).stdout
    return [json.loads(line)["add_graphite_ns"] for line in said.splitlines()]


@measures(1, 2)
def block_rows(setting):
    """1 and 2: the block path in one process beside scanning, splitting and copying."""
    said = subprocess.run([BUILD / "bin" / "pelorus_bench", "1000", "24"],
                          stdout=subprocess.PIPE, check=True).stdout
    for number, goal, line in zip((1, 2), (2.0, 3.0), said.splitlines()):
        answer = json.loads(line)
        row = Row(number, f"`add_graphite`, {answer['lines_per_block']}-line blocks, message copy "
                  "and `add` included / scan for line ends, split in three fields, copy out", goal)
        row.summary = (answer["ratio"], answer["ratio_low"], answer["ratio_high"])
        row.notes.append("{add_graphite_ns:.0f} ns / {floor_ns:.0f} ns a line".format(**answer))
        yield row


@measures(3)
def path_row(setting):
    """3: the whole path of a block."""
    lines = 1_000_000
    how = {"lines": lines, "per_frame": 1000, "per_write": 5}
    daemon = setting.daemon("path", PELORUS_MAX_BATCH_SIZE=5)
    floor = setting.floor("write")
    answer = setting.load(run="alternate", pairs=PAIRS,
                          sides=[setting.side(daemon, **how), setting.side(floor, **how)])
    setting.stop(daemon)
    setting.stop(floor)
    row = Row(3, "daemon, 1000-line frames, 5 messages a write / receive, uncompress, decode, scan, "
              "split and copy, and connect + POST + 204 + close per 5 blocks", 2.2,
              ratios(answer["cpu"]))
    ours, floors = zip(*answer["cpu"])
    row.notes.append(f"{nanoseconds(ours, lines)} / {nanoseconds(floors, lines)} a line")
    yield row


@measures(4)
def influxd_row(setting):
    """4: the same lines through influxd's own Graphite listener."""
    lines = 100_000
    with open(setting.corpus, "rb") as file:
        corpus = file.read().splitlines(keepends=True)
    influxd = InfluxdGraphite(setting.folder / "influxd")
    daemon = setting.daemon("beside-influxd", PELORUS_MAX_BATCH_SIZE=5)
    pairs = []
    try:
        for pair in range(8):
            first = pair * lines % len(corpus)
            answer = setting.load(run="alternate", pairs=1, sides=[setting.side(
                daemon, first_line=first, lines=lines, per_frame=1000, per_write=5)])
            part = (corpus + corpus)[first:first + lines]
            before = influxd.processor_seconds()
            influxd.take(b"".join(part))
            pairs.append((answer["cpu"][0][0], influxd.processor_seconds() - before))
    finally:
        influxd.stop()
    setting.stop(daemon)
    del pairs[0]  # the first run makes influxd's index
    row = Row(4, "daemon / influxd's own Graphite listener with templates like our rules (it also "
              "stores)", 1 / 40, ratios(pairs), form="{:.4f}")
    row.notes.append("{:.2f} s / {:.1f} s a million lines".format(
        *(statistics.median(each) * 1e6 / lines for each in zip(*pairs))))
    yield row


@measures(5, 6, 7, 14)
def crowd_rows(setting):
    """5, 6, 7 and 14: ten thousand connections."""
    rows = [Row(5, "CPU a line with 10,000 active connections / with 1, 100-line frames", 1.35),
            Row(6, "CPU a line, 1 active beside 10,000 idle connections / 1 alone", 1.1),
            Row(7, "resident bytes of an idle connection that has sent one frame", 400,
                form="{:.0f}"),
            Row(14, "CPU s in 10 s, 10,000 silent connections, statistics timer on", 0.02,
                form="{:.4f}")]
    allowed = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    if allowed != resource.RLIM_INFINITY and allowed < CROWD + DESCRIPTORS_BESIDE:
        for row in rows:
            row.why_missing = f"only {allowed} descriptors are allowed (ulimit -Hn)"
        yield from rows
        return
    lines = CROWD * 100
    crowded, alone = setting.daemon("crowded"), setting.daemon("alone")
    answer = setting.load(run="crowd", pairs=PAIRS, connections=CROWD, lines=lines, per_frame=100,
                          in_flight=64, idle_seconds=10, idle_windows=3,
                          crowded=setting.side(crowded), alone=setting.side(alone))
    setting.stop(crowded)
    setting.stop(alone)
    beside, single, everyone = zip(*answer["cpu"])
    rows[0].figures = ratios(zip(everyone, single))
    rows[1].figures = ratios(zip(beside, single))
    rows[2].figures = [answer["bytes_per_connection"]]
    rows[3].figures = answer["idle_cpu"]
    for row, ours in ((rows[0], everyone), (rows[1], beside)):
        row.notes.append(f"{nanoseconds(ours, lines)} / {nanoseconds(single, lines)} a line")
    yield from rows


@measures(8)
def peak_row(setting):
    """8: the most memory that the daemon ever had in a million lines that a sink keeps up with."""
    daemon = setting.daemon("peak", PELORUS_MAX_BATCH_SIZE=5)
    setting.load(run="alternate", pairs=1, sides=[setting.side(
        daemon, lines=1_000_000, per_frame=1000, per_write=5)])
    peak = daemon.memory("VmHWM")
    setting.stop(daemon)
    yield Row(8, "peak RSS in MiB over a million paced lines", 24, [peak], form="{:.1f}")


@measures(9)
def frame_row(setting):
    """9: what a frame costs whatever is in it."""
    frames = 100_000
    how = {"lines": frames, "per_frame": 1, "in_flight": 2000}
    daemon = setting.daemon("frames", PELORUS_IDEAL_QUEUED_MESSAGES=1000)
    floors = [setting.floor("decode"), setting.floor("walk")]
    answer = setting.load(run="alternate", pairs=PAIRS,
                          sides=[setting.side(each, **how) for each in (daemon, *floors)])
    for each in (daemon, *floors):
        setting.stop(each)
    row = Row(9, "CPU a one-line frame / receive, uncompress and decode of the same frames", 3,
              ratios(answer["cpu"]))
    ours, decode, walk = zip(*answer["cpu"])
    row.notes.append(f"{nanoseconds(ours, frames)} / {nanoseconds(decode, frames)} a frame; a floor "
                     f"that walks through the value and keeps nothing takes "
                     f"{nanoseconds(walk, frames)}: {statistics.median(ratios(zip(ours, walk))):.1f}")
    yield row


class HangingVerification:
    """A node whose key is being verified all the time; never an answer about it."""

    def __init__(self, address):
        self._node = SkeinClient(address)
        self._ended = False
        self._thread = threading.Thread(target=self._ask, daemon=True)
        self._thread.start()

    def close(self):
        self._ended = True
        self._thread.join()
        self._node.close()

    def _ask(self):
        while not self._ended:
            self._node.call("collectd", {"key": HANGING_KEY, "metrics": ""})


def stats_rounds(daemon):
    """Round trips of "stats", as pelorus_load describes them: rounds while a key verification hangs, and
    quiet ones, in turn."""
    wanted = {"run": "stats", "socket": str(daemon.socket), "count": 1000, "rounds": 2 * PAIRS}
    asking = subprocess.Popen([BUILD / "bin" / "pelorus_load", json.dumps(wanted)], text=True,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def one_round():
        asking.stdin.write("go\n")
        asking.stdin.flush()
        asking.stdout.readline()

    for _ in range(PAIRS):
        node = HangingVerification(daemon.node_address)
        one_round()
        node.close()
        one_round()
    rounds = json.loads(asking.stdout.read())
    asking.wait()
    return rounds


@measures(10)
def stats_row(setting):
    """10: a question to the daemon while another one hangs on the web server."""
    daemon = setting.daemon("stats")
    rounds = stats_rounds(daemon)
    setting.stop(daemon)
    pairs = [(hanging[1], quiet[1]) for hanging, quiet in zip(rounds[::2], rounds[1::2])]
    row = Row(10, "\"stats\" round trip, 99th percentile, one key verification always hanging / "
              "none", 2, ratios(pairs))
    row.notes.append("{:.0f} µs / {:.0f} µs".format(
        *(statistics.median(each) for each in zip(*pairs))))
    yield row


@measures(11, 12)
def buffer_rows(setting):
    """11 and 12: the write buffer alone."""
    answer = json.loads(subprocess.run([BUILD / "bin" / "pelorus_buffer_bench"],
                                       stdout=subprocess.PIPE, check=True).stdout)
    row = Row(11, "ns of an `add` with 100,000 messages queued / with 10", 1.2,
              ratios(answer["add_ns"]))
    row.notes.append("{:.0f} ns / {:.0f} ns".format(
        *(statistics.median(each) for each in zip(*answer["add_ns"]))))
    yield row
    yield Row(12, "RSS growth in KiB over a million `add`s that re-arm the timer", 64,
              [answer["re_arm_bytes"] / 1024], form="{:.0f}")


@measures(13)
def bad_lines_row(setting):
    """13: every fifth line is bad and is logged to a file."""
    lines = 500_000
    how = {"lines": lines, "per_frame": 1000, "per_write": 5}
    daemon = setting.daemon("bad", level="info", PELORUS_MAX_BATCH_SIZE=5)
    answer = setting.load(run="alternate", pairs=PAIRS,
                          sides=[setting.side(daemon, bad_every=5, **how),
                                 setting.side(daemon, **how)])
    setting.stop(daemon)
    row = Row(13, "CPU with 20 % bad lines, each logged to a file / clean lines", 2.5,
              ratios(answer["cpu"]))
    bad, clean = zip(*answer["cpu"])
    row.notes.append(f"{nanoseconds(bad, lines)} / {nanoseconds(clean, lines)} a line")
    yield row


MEASUREMENTS = (block_rows, path_row, influxd_row, crowd_rows, peak_row, frame_row, stats_row,
                buffer_rows, bad_lines_row)
