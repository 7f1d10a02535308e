#!/usr/bin/python3
"""table.py [ROW…]: measures the table of doc/performance.md on the build in build/bench (PELORUS_BUILD
names another), prints it, and when all rows were measured writes it into the page. PELORUS_CORPUS
names a file of Graphite lines to measure on; without it the benchmarks make their own."""

import os
import re
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True

from setting import Setting  # noqa: E402  first: it finds the harness and says which build

from harness import REPOSITORY  # noqa: E402
from rows import MEASUREMENTS, PAIRS  # noqa: E402

GIVEN = dict(os.environ)  # before a corpus is made
PAGE = REPOSITORY / "doc" / "performance.md"
BEGIN, END = "<!-- table: begin -->", "<!-- table: end -->"
HEAD = ["#", "ratio or figure", "goal", "measured", "spread", ""]


def markdown(rows):
    yield f"| {' | '.join(HEAD)} |"
    yield "|---" * len(HEAD) + "|"
    for row in rows:
        yield f"| {' | '.join(row.cells())} |"


def plain(rows):
    """The same for a terminal: one line a row, the text last, where it may be long."""
    yield f"{'#':>2}  {'goal':>9}  {'measured':>9}  {'spread':<19}  {'':<7} ratio or figure"
    for row in rows:
        number, text, goal, figure, spread, judgement = row.cells()
        yield f"{number:>2}  {goal:>9}  {figure:>9}  {spread:<19}  {judgement:<7} {text}"
        for note in row.notes:
            yield f"{'':60}{note}"


def processor():
    with open("/proc/cpuinfo") as file:
        for line in file:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return "a processor without a name"


def corpus_text(path):
    with open(path, "rb") as file:
        lines = sum(1 for _ in file)
    own = "" if "PELORUS_CORPUS" in GIVEN else ", made by bench/corpus.cc"
    return f"{lines:,} lines of {os.path.getsize(path) / lines:.0f} bytes{own}"


def circumstances(setting, seconds, load):
    """Where and when the table was measured."""
    release = subprocess.run(["uname", "-sr"], stdout=subprocess.PIPE, text=True, check=True)
    return (f"Measured on {time.strftime('%Y-%m-%d %H:%M', time.gmtime())} UTC in {seconds:.0f} s: "
            f"{processor()}, {os.cpu_count()} cores, {release.stdout.strip()}; load of the machine "
            f"before it: {load:.1f}. Corpus: {corpus_text(setting.corpus)}. "
            f"{PAIRS} pairs unless a row says otherwise.")


def keep(rows, about):
    """Puts the table between the marks of the page."""
    notes = [f"- {row.number}: {note}" for row in rows for note in row.notes]
    table = "\n".join([BEGIN, "", about, "", *markdown(rows), "", "In absolute figures:", "",
                       *notes, "", END])
    page = PAGE.read_text()
    PAGE.write_text(re.sub(f"{BEGIN}.*{END}", lambda _: table, page, flags=re.DOTALL))


def main(wanted):
    begin, load = time.monotonic(), os.getloadavg()[0]
    rows = []
    with tempfile.TemporaryDirectory(prefix="pelorus-bench-") as folder:
        setting = Setting(folder)
        try:
            for measure in MEASUREMENTS:
                if wanted and not wanted & set(measure.numbers):
                    continue
                print(f"measuring {', '.join(map(str, measure.numbers))} …", flush=True)
                rows += measure(setting)
            about = circumstances(setting, time.monotonic() - begin, load)
        finally:
            setting.close()
    rows.sort(key=lambda row: row.number)
    print(f"\n{about}\n")
    for line in plain(rows):
        print(line)
    if not wanted:
        keep(rows, about)
        print(f"\nThe table stands in {PAGE.relative_to(REPOSITORY)}.")


if __name__ == "__main__":
    main({int(argument) for argument in sys.argv[1:]})
