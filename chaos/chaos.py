#!/usr/bin/python3
"""chaos.py BUILD [WORD...]: every fault on the real daemon, between stand-ins and beside a real
InfluxDB, with quiet peers beside it. Ends with a table, and with status 1 if anything failed.
With words only the faults in whose names one of them stands."""

from concurrent.futures import ThreadPoolExecutor
import sys
import tempfile

from surroundings import prepare, use_resolver

prepare(sys.argv[1])

from harness.far_end_faults import INFLUX_FAULTS, WEB_FAULTS  # noqa: E402
from harness.peer_faults import PEER_FAULTS  # noqa: E402
from harness.stage import Stage, Web  # noqa: E402
from heavy_faults import HEAVY  # noqa: E402
from influxd_faults import INFLUXD_FAULTS, on_influxd  # noqa: E402
from report import Report  # noqa: E402
from slow_faults import LOOKUPS, SLOW, on_named_stage, on_own_stage  # noqa: E402

WORDS = sys.argv[2:]
AT_A_TIME = 6  # of the faults that mostly wait


def chosen(faults):
    return [fault for fault in faults
            if not WORDS or any(word in fault.name for word in WORDS)]


def run_table(web, report, faults, loses_nothing):
    if not (faults := chosen(faults)):
        return
    stage = Stage(web)
    try:
        for fault in faults:
            report.run(fault.name, fault.wanted, lambda fault=fault: stage.attempt(fault))
        if loses_nothing:
            report.run("all of these faults", "a quiet verified node loses nothing",
                       stage.expect_nothing_lost)
    finally:
        stage.close()


def run_slow(web, report, folder):
    """All at once, as far as that goes: what they share, the web server, stays well."""
    with ThreadPoolExecutor(AT_A_TIME) as pool:
        for fault in chosen(SLOW):
            pool.submit(report.run, fault.name, fault.wanted,
                        lambda fault=fault: on_own_stage(web, fault))
        for fault in chosen(INFLUXD_FAULTS):
            pool.submit(report.run, fault.name, fault.wanted,
                        lambda fault=fault: on_influxd(web, fault))
        if chosen(LOOKUPS) and use_resolver(folder):
            pool.submit(on_named_stage, web, report)


def main():
    report, web = Report(), Web()
    with tempfile.TemporaryDirectory(prefix="pelorus-chaos-") as folder:
        run_table(web, report, PEER_FAULTS, loses_nothing=True)
        run_table(web, report, INFLUX_FAULTS, loses_nothing=False)
        run_table(web, report, WEB_FAULTS, loses_nothing=True)
        for fault in chosen(HEAVY):
            report.run(fault.name, fault.wanted, lambda fault=fault: on_own_stage(web, fault))
        run_slow(web, report, folder)
    web.close()
    return report.finish()


if __name__ == "__main__":
    sys.exit(main())
