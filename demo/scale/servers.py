"""HAProxy and VictoriaMetrics as Debian packages them, started by hand on free ports, with folders of
their own."""

import csv
import json
import os
from pathlib import Path
import socket
import urllib.parse
import urllib.request

from harness.process import Process, free_port, listens, wait_until

HERE = Path(__file__).resolve().parent


class HAProxy(Process):
    """One haproxy with one of the configurations of this folder."""

    def __init__(self, folder, configuration, port, **environment):
        """`environment`: what the configuration names, in capitals behind "SCALE_"."""
        self.port = port
        self._stats = Path(folder) / f"{configuration}.stats"
        names = {f"SCALE_{name.upper()}": str(value) for name, value in environment.items()}
        super().__init__(["haproxy", "-db", "-f", HERE / f"{configuration}.cfg"],
                         Path(folder) / f"haproxy-{configuration}.log",
                         env={**os.environ, "SCALE_FOLDER": str(folder), **names})
        wait_until(lambda: self.expect_running() and listens(port),
                   f"haproxy to listen ({configuration})")

    def servers(self):
        """What it says of each server behind it: by name, a map of its columns."""
        with socket.socket(socket.AF_UNIX) as stream:
            stream.connect(str(self._stats))
            stream.sendall(b"show stat\n")
            answer = b"".join(iter(lambda: stream.recv(65536), b"")).decode()
        rows = csv.DictReader(answer.lstrip("# ").splitlines())
        return {row["svname"]: row for row in rows
                if row["svname"] not in ("FRONTEND", "BACKEND")}


class VictoriaMetrics(Process):
    """A single-node store."""

    def __init__(self, folder):
        folder = Path(folder)
        folder.mkdir()
        self.port = free_port()
        super().__init__(["victoria-metrics", f"-storageDataPath={folder / 'data'}",
                          f"-httpListenAddr=127.0.0.1:{self.port}", "-retentionPeriod=100y"],
                         folder / "victoria-metrics.log")
        wait_until(lambda: self.expect_running() and listens(self.port), "the store", 30)

    def values(self, database):
        """Every stored value: pairs of the labels of its series and its time in seconds."""
        self._ask("/internal/force_flush")
        query = urllib.parse.urlencode({"match[]": f'{{db="{database}"}}'})
        for line in self._ask(f"/api/v1/export?{query}").splitlines():
            series = json.loads(line)
            for moment in series["timestamps"]:
                yield series["metric"], moment // 1000

    def _ask(self, path):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}{path}", timeout=60) as answer:
            return answer.read().decode()
