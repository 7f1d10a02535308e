"""What the benchmarks run against: daemons of the build under measurement, the floor, the load."""

import json
import os
from pathlib import Path
import subprocess
import sys

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
import harness  # noqa: E402

harness.use_build(os.environ.get("PELORUS_BUILD", harness.REPOSITORY / "build" / "bench"))

from harness import BUILD  # noqa: E402
from harness.daemon import Pelorus  # noqa: E402
from harness.http_server import WebServer  # noqa: E402
from harness.process import Process, free_port, wait_until  # noqa: E402
from harness.skein_client import SkeinClient  # noqa: E402

KEY = "0b1e2c3d4e5f60718293a4b5c6d7e8f9"
HANGING_KEY = "hanging"


class Setting:
    """Holds what one run of the benchmarks has started."""

    def __init__(self, folder):
        self.folder = Path(folder)
        self.sink_port = free_port()
        self._started = []
        self.corpus = self._corpus_file()
        self._web = WebServer([KEY], hang=[HANGING_KEY])

    def _corpus_file(self):
        """The lines of all benchmarks: the file that PELORUS_CORPUS names, or our own."""
        if "PELORUS_CORPUS" not in os.environ:
            file = self.folder / "corpus.txt"
            self.load(run="corpus", file=str(file))
            os.environ["PELORUS_CORPUS"] = str(file)
        return os.environ["PELORUS_CORPUS"]

    def close(self):
        for process in self._started:
            if process.running():
                process.stop()
        self._web.close()

    def daemon(self, name, level="error", build=BUILD, **settings):
        """A daemon with its own folder that knows the key. Logs from `level` on, to a file."""
        folder = self.folder / name
        folder.mkdir()
        usual = {"PELORUS_BUFFER_TIME": 1e6, "PELORUS_MAX_PENDING_MESSAGES": 200_000,
                 "PELORUS_IDEAL_QUEUED_MESSAGES": 5, "PELORUS_MAX_BATCH_SIZE": 1000,
                 "INFLUX_HTTP_CONNECTION": f"127.0.0.1:{self.sink_port}"}
        daemon = Pelorus(folder, {**usual, **settings}, environment={"PELORUS_LOG_LEVEL": level},
                         program=build / "bin" / "pelorus")
        self._started.append(daemon)
        daemon.wait_ready()
        with SkeinClient(daemon.node_address) as node:
            node.call("collectd", {"key": KEY, "metrics": ""})
        return daemon

    def floor(self, stage):
        """The floor: "walk", "decode" or "write"."""
        port = free_port()
        floor = Process([BUILD / "bin" / "pelorus_floor", stage, port, self.sink_port],
                        self.folder / f"floor-{stage}.log")
        floor.port = port
        self._started.append(floor)
        wait_until(lambda: floor.expect_running() and "listening" in floor.text(), "the floor")
        return floor

    key = KEY

    def confirm(self, keys):
        """Makes the web server confirm these keys, too."""
        self._web.keys.update(keys)

    def stop(self, process):
        process.stop()
        self._started.remove(process)

    def load(self, **wanted):
        """Runs pelorus_load; its answer."""
        wanted = {"sink": self.sink_port, "key": KEY, **wanted}
        done = subprocess.run([BUILD / "bin" / "pelorus_load", json.dumps(wanted)],
                              stdout=subprocess.PIPE, check=True)
        return json.loads(done.stdout)

    @staticmethod
    def side(process, **how):
        """One side of an alternate run: a daemon, or the floor, which does not answer."""
        if isinstance(process, Pelorus):
            return {"pid": process.pid, "port": process.node_address[1], **how}
        return {"pid": process.pid, "port": process.port, "answers": False, **how}
