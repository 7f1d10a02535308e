"""The life of the daemon's process: start, readiness, signals, failures at start, profiling."""

import os
import resource
import shutil
import signal
import subprocess
import time

from harness.daemon import AUTH, WWW_KEY, NotifySocket, journal_stream
from harness.process import Process, wait_until
from harness.skein_client import SkeinClient
from tests.end_to_end.support import FolderTest

LOAD = "m000.load.load.shortterm 0.5 1700000000\n"


class Life(FolderTest):
    def test_hang_up_changes_nothing_and_interrupt_ends_silently(self):
        daemon = self.start_pelorus()
        daemon.send_signal(signal.SIGHUP)
        with SkeinClient(daemon.socket) as client:
            client.call("stats")
        before = daemon.text()
        daemon.send_signal(signal.SIGINT)
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(daemon.text(), before)

    def test_help_and_version_need_no_settings(self):
        for argument, begin in ("--help", "pelorus, a"), ("--version", "pelorus "):
            daemon = self.start_pelorus(arguments=[argument], ready=False,
                                        environment={"PELORUS_SETTINGS": "/nowhere"})
            self.assertEqual(daemon.wait(), 0)
            self.assertTrue(daemon.text().startswith(begin), daemon.text())

    def test_readiness_reaches_an_abstract_socket(self):
        manager = self.ends_with_case(NotifySocket(f"@pelorus-test-{os.getpid()}"))
        self.start_pelorus(environment={"NOTIFY_SOCKET": manager.name}, ready=False)
        self.assertEqual(wait_until(manager.receive, "readiness"), b"READY=1")

    def test_service_manager_hears_signs_of_life_the_status_and_the_end(self):
        alive = b"WATCHDOG=1\nSTATUS=2 databases, 0 messages queued"
        daemon = self.start_pelorus(environment={"WATCHDOG_USEC": "100000"})
        for _ in range(3):
            self.assertEqual(wait_until(daemon.notify.receive, "a sign of life"), alive)
        daemon.send_signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)
        while (state := daemon.notify.receive()) == alive:
            pass
        self.assertEqual(state, b"STOPPING=1")

    def test_no_core_is_left_that_could_hold_the_secrets(self):
        def allow_cores():
            resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY,) * 2)

        control = Process(["sleep", "100"], self.folder / "control.log", cwd=self.folder,
                          preexec_fn=allow_cores)
        daemon = self.start_pelorus(preexec_fn=allow_cores, ready=False)
        daemon.wait_ready()
        for process in control, daemon:
            process.send_signal(signal.SIGQUIT)
            self.assertEqual(process.wait(), -signal.SIGQUIT)
        if not list(self.folder.glob("core*")):
            self.skipTest("this system leaves no cores in the working directory")
        self.assertEqual(list(daemon.folder.glob("core*")), [])

    def test_log_has_a_level_and_outside_the_journal_a_time(self):
        moment = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}"
        for level, begin in (("debug", f"{moment} info Starting"),
                             ("loud", f'{moment} warning [^\n]*"loud" is no level[^\n]*\n'
                                      f"{moment} info Starting"),
                             ("warning", f"{moment} warning Improperly formatted"),
                             ("error", r"\Z")):
            daemon = self.start_pelorus(
                environment={"JOURNAL_STREAM": "1:1", "PELORUS_LOG_LEVEL": level})
            with SkeinClient(daemon.socket) as client:
                client.collectd(LOAD + LOAD)
            self.assertRegex(daemon.text(), rf"\A{begin}")


class StartUpFailures(FolderTest):
    def fail_to_start(self, settings=None, environment=None):
        daemon = self.start_pelorus(settings, environment=environment, ready=False)
        code = daemon.wait()
        self.assertIsNone(daemon.notify.receive())
        self.assertNotIn(AUTH, daemon.text())
        self.assertNotIn(WWW_KEY, daemon.text())
        return code, daemon.text()

    def test_what_is_settled_while_loading_ends_it_with_status_1(self):
        missing = str(self.folder / "nowhere.json")
        rows = [
            ({}, {"PELORUS_SETTINGS": missing}, missing),
            ({"PELORUS_MAX_BATCH_SIZE": "12345"}, {}, "PELORUS_MAX_BATCH_SIZE"),
            ({"INFLUX_AUTH": None}, {}, "INFLUX_AUTH is missing")]
        for settings, environment, expected in rows:
            with self.subTest(expected):
                code, text = self.fail_to_start(settings, environment)
                self.assertEqual(code, 1, text)
                self.assertIn(expected, text)
                self.assertNotIn("12345", text)
                self.assertIn("SettingsError: ", text.splitlines()[0])
                self.assertIn("main", text)  # the trace

    def test_what_is_read_later_is_logged_and_ends_it_with_status_0(self):
        long_path = str(self.folder / ("x" * 200))
        for settings, expected in [({"INFLUX_DATABASES": None}, "INFLUX_DATABASES"),
                                   ({"INFLUX_UNIX_SOCKET": None}, "INFLUX_UNIX_SOCKET"),
                                   ({"INFLUX_UNIX_SOCKET": long_path}, long_path)]:
            with self.subTest(expected):
                code, text = self.fail_to_start(settings)
                self.assertEqual(code, 0, text)
                self.assertRegex(text, f"(?m)^<3>Unhandled exception: .*{expected}")
                self.assertNotIn("Quitting.", text)


class LogReaders(FolderTest):
    """What becomes of the log, and of the daemon, when nobody takes what it logs."""

    def test_dead_reader_does_not_hold_up_the_end(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        daemon = self.start_pelorus(environment={"JOURNAL_STREAM": journal_stream(writer)},
                                    preexec_fn=lambda: os.dup2(writer, 2))
        os.close(writer)
        with SkeinClient(daemon.socket) as client:
            client.collectd("x\n" * 10_000)
        begin = time.monotonic()
        self.assertEqual(daemon.stop(), 0)
        self.assertLess(time.monotonic() - begin, 1)

    def test_full_disk_gone_reader_and_closed_descriptors_change_nothing(self):
        reader, gone = os.pipe()
        os.close(reader)
        full = os.open("/dev/full", os.O_WRONLY)
        for name, prepare in {"full": lambda: os.dup2(full, 2), "gone": lambda: os.dup2(gone, 2),
                              "closed": lambda: os.closerange(0, 3)}.items():
            with self.subTest(name):
                daemon = self.start_pelorus(preexec_fn=prepare)
                with SkeinClient(daemon.socket) as client:
                    client.collectd("x\n" * 100_000)
                    self.assertEqual(client.call("stats")["bonding"]["failure_count"], 0)
                if name == "closed" and os.geteuid() == 0:  # others may not look into the daemon
                    self.assertEqual({os.readlink(f"/proc/{daemon.pid}/fd/{i}") for i in range(3)},
                                     {"/dev/null"})
                daemon.send_signal(signal.SIGTERM)
                self.assertEqual(daemon.wait(), 0)


class Profiling(FolderTest):
    def test_profile_is_printed_and_left_for_callgrind_annotate(self):
        daemon = self.start_pelorus(arguments=["--profile"])
        with SkeinClient(daemon.socket) as client:
            client.collectd(LOAD)
        daemon.send_signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)
        text = daemon.text()
        self.assertTrue(text.startswith("Starting to profile!\n"), text)
        for row in "wait", "receive", "decode", "req_collectd", "load", "process_data", "start":
            self.assertIn(f"({row})\n", text)
        [profile] = daemon.folder.glob("pelorus.profile*")
        self.assertRegex(profile.name, r"^pelorus\.profile\d+\.\d+$")
        if shutil.which("callgrind_annotate") is None:
            self.skipTest("callgrind_annotate is not installed")
        report = subprocess.run(
            ["callgrind_annotate", "--auto=no", "--threshold=100", profile], check=True,
            timeout=60, stdout=subprocess.PIPE, text=True).stdout
        self.assertIn("add_graphite", report)
