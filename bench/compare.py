#!/usr/bin/python3
"""compare.py BASE [ROW…]: how much processor time this tree's build/bench takes beside the build in the
folder BASE (another tree's build/bench), row by row of doc/performance.md: 1, 2, 3, 5, 6, 9, 10, 13 or
those that are named. Both are measured in turn in one run; a figure is the median of the ratios of
the pairs, with their quartiles. 1.00: as fast as the base."""

from pathlib import Path
import sys
import tempfile

sys.dont_write_bytecode = True

from setting import Setting  # noqa: E402  first: it finds the harness and says which build

from harness import BUILD  # noqa: E402
import rows  # noqa: E402

ROUNDS = 5  # of rows that start their daemons anew each time


def alternate(setting, base, how, level="error", **settings):
    """Daemons of both builds under the same load, in turn."""
    ours = setting.daemon("ours", level=level, **settings)
    theirs = setting.daemon("base", level=level, build=base, **settings)
    answer = setting.load(run="alternate", pairs=2 * rows.PAIRS,
                          sides=[setting.side(each, **how) for each in (ours, theirs)])
    for each in (ours, theirs):
        setting.stop(each)
        (setting.folder / ("ours" if each is ours else "base")).rename(
            setting.folder / f"done-{each.pid}")
    return rows.ratios(answer["cpu"])


def blocks(base):
    """The block path of both programs, for two sizes of blocks."""
    pairs = []
    for _ in range(ROUNDS):
        pairs.append([rows.block_figures(build) for build in (BUILD, base)])
    return [[ours[size] / theirs[size] for ours, theirs in pairs] for size in (0, 1)]


def crowd(setting, base):
    """Rows 5 and 6: a line's time among 10,000 active connections, and beside 10,000 idle ones."""
    pairs = []
    for number in range(ROUNDS):
        pair = []
        for name, build in (("ours", BUILD), ("base", base)):
            crowded = setting.daemon(f"{name}-crowded-{number}", build=build)
            alone = setting.daemon(f"{name}-alone-{number}", build=build)
            answer = setting.load(run="crowd", pairs=3, connections=rows.CROWD,
                                  lines=rows.CROWD * 100, per_frame=100, in_flight=64,
                                  idle_seconds=1, idle_windows=1, crowded=setting.side(crowded),
                                  alone=setting.side(alone))
            setting.stop(crowded)
            setting.stop(alone)
            pair.append([sorted(figures)[1] for figures in zip(*answer["cpu"])])
        pairs.append(pair)
    beside, everyone = 0, 2
    return [[ours[column] / theirs[column] for ours, theirs in pairs]
            for column in (everyone, beside)]


def stats(setting, base):
    """Row 10: the 99th percentile of "stats" while a key verification hangs."""
    figures = []
    for name, build in (("ours", BUILD), ("base", base)):
        daemon = setting.daemon(f"{name}-stats", build=build)
        figures.append(rows.stats_rounds(daemon))
        setting.stop(daemon)
    return [ours[1] / theirs[1] for ours, theirs in zip(*figures)]


def main(base, wanted):
    with tempfile.TemporaryDirectory(prefix="pelorus-compare-") as folder:
        setting = Setting(folder)
        frames = {"lines": 100_000, "per_frame": 1, "in_flight": 2000}
        path = {"lines": 1_000_000, "per_frame": 1000, "per_write": 5}
        bad = {"lines": 500_000, "per_frame": 1000, "per_write": 5, "bad_every": 5}
        measures = {
            (1, 2): lambda: blocks(base),
            (3,): lambda: [alternate(setting, base, path, PELORUS_MAX_BATCH_SIZE=5)],
            (5, 6): lambda: crowd(setting, base),
            (9,): lambda: [alternate(setting, base, frames, PELORUS_IDEAL_QUEUED_MESSAGES=1000)],
            (10,): lambda: [stats(setting, base)],
            (13,): lambda: [alternate(setting, base, bad, level="info", PELORUS_MAX_BATCH_SIZE=5)],
        }
        try:
            for numbers, measure in measures.items():
                if wanted and not wanted & set(numbers):
                    continue
                for number, ratios in zip(numbers, measure()):
                    low, high = rows.quartiles(ratios)
                    middle = rows.statistics.median(ratios)
                    print(f"{number:>2}  {middle:.3f}  ({low:.3f} … {high:.3f})", flush=True)
        finally:
            setting.close()


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve(), {int(row) for row in sys.argv[2:]})
