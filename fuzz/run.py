#!/usr/bin/python3
"""Runs the fuzz targets of build/fuzz and prints what came of it.

run.py SECONDS [TARGET...]   each target for SECONDS; new inputs go to build/fuzz/corpus, those
                             that break something to build/fuzz/findings. Exit status 1 with one.
run.py keep [TARGET...]      replaces the committed inputs by the fewest of theirs and of
                             build/fuzz/corpus that reach the same code. Those that are named after
                             the fault that they once found stay.
"""
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys

FUZZ = pathlib.Path(__file__).resolve().parent
BUILD = FUZZ.parent / "build/fuzz"
COMMITTED = FUZZ / "corpus"
DICTIONARIES = {
    "requests": ["frames", "local_requests", "node_requests"],
    "graphite": ["translate", "graphite_block"],
    "http": ["http_response"],
    "json": ["key_answer"],
}
TARGETS = {target: name for name, targets in DICTIONARIES.items() for target in targets}
LONGEST_INPUT = 1024  # bytes
LONGEST_EXECUTION = 10  # seconds
RARE = 16  # times that a feature was seen; libFuzzer's own 255 costs a third of a run's first minute
KEPT_BYTES = 4096  # longest input that is committed


def run(target, *arguments):
    """The exit status of a target and all that it printed."""
    command = [BUILD / "bin" / f"fuzz_{target}", *arguments]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    return result.returncode, result.stdout.decode(errors="replace")


def fuzz(target, seconds):
    """One row of the table, and the report of a finding."""
    found, findings = BUILD / "corpus" / target, BUILD / "findings" / target
    for folder in (found, findings):
        folder.mkdir(parents=True, exist_ok=True)
    arguments = [f"-max_total_time={seconds}", f"-timeout={LONGEST_EXECUTION}",
                 f"-max_len={LONGEST_INPUT}",
                 f"-entropic_feature_frequency_threshold={RARE}", "-print_final_stats=1",
                 "-verbosity=0", f"-artifact_prefix={findings}/"]
    arguments.append(f"-dict={FUZZ / 'dictionaries' / TARGETS[target]}.dict")
    before = set(findings.iterdir())
    status, printed = run(target, *arguments, found, COMMITTED / target)
    new = sorted(set(findings.iterdir()) - before)
    stats = dict(re.findall(r"stat::(\w+): *(\d+)", printed))
    row = [target] + [stats.get(name, "?") for name in (
        "number_of_executed_units", "average_exec_per_sec", "new_units_added")]
    row.append(str(sum(len(list(folder.iterdir())) for folder in (found, COMMITTED / target))))
    report = "" if status == 0 else f"== {target}\n{printed}\n{''.join(f'{f}{chr(10)}' for f in new)}"
    return row + [str(max(len(new), status != 0))], report


def keep(target):
    """Minimises the committed corpus of a target."""
    kept = BUILD / "kept" / target
    shutil.rmtree(kept, ignore_errors=True)
    kept.mkdir(parents=True)
    sources = [folder for folder in (COMMITTED / target, BUILD / "corpus" / target)
               if folder.is_dir()]
    status, printed = run(target, "-set_cover_merge=1", "-use_counters=0",
                          f"-max_len={KEPT_BYTES}", kept, *sources)
    if status != 0:
        sys.exit(f"== {target}\n{printed}")
    for replaced in COMMITTED.glob(f"{target}/*"):
        if re.fullmatch("[0-9a-f]{40}", replaced.name):
            replaced.unlink()
    shutil.copytree(kept, COMMITTED / target, dirs_exist_ok=True)
    inputs = list((COMMITTED / target).iterdir())
    print(f"{target:16} {len(inputs):5} inputs {sum(i.stat().st_size for i in inputs):7} bytes")


def main():
    what, *targets = sys.argv[1:]
    targets = targets or list(TARGETS)
    if what == "keep":
        for target in targets:
            keep(target)
        return 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(lambda target: fuzz(target, int(what)), targets))
    for _, report in results:
        print(report, end="")
    columns = ("executions", "a second", "new inputs", "corpus", "findings")
    for target, *figures in (("target", *columns), *(row for row, _ in results)):
        print(f"{target:16}" + "".join(f" {figure:>12}" for figure in figures))
    return 1 if any(report for _, report in results) else 0


if __name__ == "__main__":
    sys.exit(main())
