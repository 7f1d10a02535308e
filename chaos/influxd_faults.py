"""Faults of a real InfluxDB: after each, data flow again by themselves, and the daemon's account of
its messages agrees with what was handed to it and with what InfluxDB holds."""

from pathlib import Path
import signal
import tempfile
import threading
import time

from harness.daemon import Pelorus
from harness.process import wait_until
from harness.real_servers import Influxd
from harness.skein_client import SkeinClient
from harness.stage import KEY, Fault

DATABASE = "bonding"
FIRST_TIMESTAMP = 1_700_000_000
BATCH = 200  # messages
PAUSE = 0.005  # seconds between two messages


class Sender:
    """A verified node with one record in each message, no two for the same point."""

    def __init__(self, address):
        self.added = 0
        self.going = threading.Event()
        self._ended = False
        self._client = SkeinClient(address, 60)
        self._thread = threading.Thread(target=self._run, daemon=True)
        self.going.set()
        self._thread.start()

    def _run(self):
        while not self._ended:
            self.going.wait()
            self._client.call("collectd", {
                "key": KEY,
                "metrics": f"node7.load.load.shortterm 1 {FIRST_TIMESTAMP + self.added}\n"})
            self.added += 1
            time.sleep(PAUSE)

    def stop(self):
        self._ended = True
        self.going.set()
        self._thread.join()
        self._client.close()


class InfluxdStage:
    def __init__(self, web, folder):
        web.behave()
        self.influxd = Influxd(folder / "influxd")
        auth = self.influxd.prepare(["tidewell", DATABASE])
        self.daemon = Pelorus(folder, {
            "INFLUX_AUTH": auth, "INFLUX_HTTP_CONNECTION": self.influxd.address,
            "PELORUS_BUFFER_TIME": 0.1, "PELORUS_IDEAL_QUEUED_MESSAGES": 100,
            "PELORUS_MAX_BATCH_SIZE": BATCH, "PELORUS_MAX_PENDING_MESSAGES": 1500,
            "PELORUS_DISCARD_SIZE": 100})
        self.daemon.wait_ready()
        self.sender = Sender(self.daemon.node_address)
        self.stored_before = 0  # in databases that have been dropped since

    def account(self):
        """Messages of the database by what became of them."""
        with SkeinClient(self.daemon.socket) as local:
            buffer = local.call("status")["databases"][DATABASE]
        return {name: buffer[name]["messages"]
                for name in ("queued", "in_flight", "sent", "failed", "discarded")}

    def wait_more_sent(self, seconds=60):
        before = self.account()["sent"]
        wait_until(lambda: self.account()["sent"] > before + 50, "data to flow again", seconds,
                   pause=0.1)

    def wait_failing(self):
        before = self.account()["failed"]
        wait_until(lambda: self.account()["failed"] > before, "failed messages", 40, pause=0.1)

    def drain(self):
        """Until nothing is under way any more. What is behind the first batch goes out as messages
        come in: the sender goes on until less than that waits."""
        wait_until(lambda: self.account()["queued"] < BATCH / 2, "the queue to shrink", 60, pause=0.1)
        self.sender.going.clear()
        time.sleep(2 * PAUSE)
        wait_until(lambda: not any(self.account()[name] for name in ("queued", "in_flight")),
                   "the queue to empty", 60, pause=0.1)

    def stored(self):
        return self.influxd.count_values(DATABASE).get("load", 0)

    def close(self):
        self.sender.stop()
        code = self.daemon.stop()
        self.influxd.stop()
        if code != 0:
            raise AssertionError(f"exit status {code}")


def kill(stage):
    stage.influxd.send_signal(signal.SIGKILL)
    stage.influxd.wait()
    time.sleep(2)
    stage.influxd.start()


def stop_and_start(stage):
    stage.influxd.stop()
    time.sleep(2)
    stage.influxd.start()


def freeze(stage):
    """Longer than a write may stand still; the queue overflows meanwhile."""
    stage.influxd.send_signal(signal.SIGSTOP)
    time.sleep(25)
    stage.influxd.send_signal(signal.SIGCONT)


def drop_database(stage):
    stage.drain()
    stage.stored_before += stage.stored()
    stage.influxd.query(f"DROP DATABASE {DATABASE}")
    stage.sender.going.set()
    stage.wait_failing()
    stage.influxd.add_database(DATABASE)


def wrong_password(stage):
    name, password = stage.influxd.WRITER
    stage.influxd.query(f"SET PASSWORD FOR {name} = 'another'")
    stage.wait_failing()
    stage.influxd.query(f"SET PASSWORD FOR {name} = '{password}'")


def small_body_limit(stage):
    stage.influxd.stop()
    stage.influxd.start(stage.influxd.AUTHENTICATION + "max-body-size = 100\n")
    stage.wait_failing()
    stage.influxd.stop()
    stage.influxd.start()


FLOWS = "data flow again, and the account adds up"
INFLUXD_FAULTS = [
    Fault("influxd is restarted", FLOWS, stop_and_start),
    Fault("influxd is killed", FLOWS, kill),
    Fault("influxd is frozen for 25 s", FLOWS, freeze),
    Fault("influxd loses its database", FLOWS, drop_database),
    Fault("influxd refuses the credentials", FLOWS, wrong_password),
    Fault("influxd takes small bodies only", FLOWS, small_body_limit),
]


def on_influxd(web, fault):
    """What was seen of one fault, with the account."""
    with tempfile.TemporaryDirectory(prefix="pelorus-chaos-") as folder:
        stage = InfluxdStage(web, Path(folder))
        try:
            stage.wait_more_sent()
            fault.attempt(stage)
            stage.wait_more_sent()
            stage.drain()
            return check_account(stage)
        finally:
            stage.close()


def check_account(stage):
    """A failed batch may have been stored all the same: its answer was lost, or it failed in part.
    Nothing else may differ."""
    account, added = stage.account(), stage.sender.added
    stored = stage.stored() + stage.stored_before
    told = (f"added {added} = sent {account['sent']} + failed {account['failed']} + discarded "
            f"{account['discarded']} + queued {account['queued']}; stored {stored}")
    if added != sum(account.values()):
        raise AssertionError(f"the account does not add up: {told}")
    if not account["sent"] <= stored <= account["sent"] + account["failed"]:
        raise AssertionError(f"the store does not agree: {told}")
    return told
