"""Our write plugin inside a real collectd."""

import signal
import socket
import unittest

from harness.daemon import PLUGIN
from harness.process import Process, wait_until
from harness.real_servers import collectd_configuration
from harness.skein_client import SkeinServer
from tests.end_to_end.support import FolderTest

NODE = '<Node "a">\n{}\n</Node>'
KEY_FILE = 'Host "h"\nNodeKeyFile "{folder}'

# Options of a node, and the complaint about them; none: they are good.
CONFIGURATIONS = [
    ('Socket "/run/a"\nStoreRates false\nQueueLimit 131072', ""),
    ('Host "10.1.2.3"\nPort 8995\nNodeKey "12-ab"\nSendTimeout 2\nReconnectInterval 3600', ""),
    (KEY_FILE + '/key"\nPort "8995"', ""),
    ("", 'Node "a": needs a Socket or a Host'),
    ('Socket "/run/a"\nHost "h"', 'Node "a": has both a Socket and a Host'),
    ('Socket "/run/a"\nPort 1', "has a Port, but no Host"),
    ('Socket "/run/a"\nNodeKey "12"', "has a key, which goes with a Host only"),
    ('Socket "run/a"', "Socket needs an absolute path"),
    ("Socket 7", "Socket needs one text in quotes"),
    ('Host "h"\nPort 65536', "Port needs a whole number from 1 to 65535"),
    ('Host "h"\nPort "http"', "Port needs a number from 1 to 65535"),
    ('Host "h"\nStoreRates "maybe"', "StoreRates needs true or false"),
    ('Host "h"\nQueueLimit 1000', "QueueLimit needs a whole number from 131072"),
    ('Host "h"\nReconnectInterval -1', "ReconnectInterval needs a whole number from 0 to 86400"),
    ('Host "h"\nNodeKey "secret key"', "NodeKey holds blanks"),
    ('Host "h"\nColour "red"', 'Node "a": Colour is no option of a node'),
    (KEY_FILE + '/none"', "cannot read the key file"),
    (KEY_FILE + '/key"\nNodeKey "12"', "stands beside another key"),
    ('Socket "/run/a"\n</Node>\n<Node "a">\nHost "h"', 'Node "a": there are two')]


@unittest.skipUnless(PLUGIN.exists(), f"this build has no {PLUGIN.name}")
class CollectdPlugin(FolderTest):
    def start_collectd(self, nodes, mode, name="collectd"):
        self.commands = self.folder / "commands"
        configuration = collectd_configuration(
            self.folder, PLUGIN, nodes, "WriteThreads 1\nLoadPlugin unixsock\n<Plugin unixsock>\n"
            f'SocketFile "{self.commands}"\n</Plugin>', interval=300)
        return self.ends_with_case(Process(["collectd", mode, "-C", configuration],
                                           self.folder / f"{name}.log"))

    def command(self, text):
        """To collectd itself."""
        with socket.socket(socket.AF_UNIX) as stream:
            stream.settimeout(10)
            stream.connect(str(self.commands))
            stream.sendall(f"{text}\n".encode())
            self.assertEqual(stream.recv(1), b"0", text)

    def flush_until(self, node, stub, *texts):
        """A flush may overtake values that collectd's own threads still hold."""
        def come():
            self.command(f"FLUSH timeout=0 plugin=write_skein/{node}")
            return all(text in stub.metrics() for text in texts)
        wait_until(come, texts, pause=0.1)

    def test_takes_good_and_refuses_bad_configurations(self):
        (self.folder / "key").write_text("1234-abcd\n")
        for number, (options, complaint) in enumerate(CONFIGURATIONS):
            with self.subTest(options):  # its -t reads no configuration at all
                node = NODE.format(options.replace("{folder}", str(self.folder)))
                collectd = self.start_collectd(node, "-T", number)
                self.assertEqual(collectd.wait(), 1 if complaint else 0)
                self.assertIn(complaint, collectd.text())
                self.assertNotIn("secret", collectd.text())

    def test_rates_or_counts_go_out_on_flush_and_at_the_end(self):
        rates = self.ends_with_case(SkeinServer(self.folder / "rates"))
        counts = self.ends_with_case(SkeinServer())
        collectd = self.start_collectd(
            f'<Node "rates">\nSocket "{rates.address}"\n</Node>\n<Node "counts">\n'
            f'Host "127.0.0.1"\nPort {counts.address[1]}\nNodeKey "12-ab"\nStoreRates false\n</Node>',
            "-f")
        wait_until(self.commands.exists, "collectd's socket")
        octets = "PUTVAL m000/interface-eth0/if_octets interval=10 "
        self.command("PUTVAL m000/load/load interval=10 1700000000:0.5:2:U")
        self.command(octets + "1700000000:100:7")
        self.command(octets + "1700000010:300:7")
        for sample in ("1700000000:100", "1700000010:300"):
            self.command(f"PUTVAL m000/a/counter interval=10 {sample}")
        self.flush_until("rates", rates, "m000.load.load.shortterm 0.5 1700000000\n"
                                "m000.load.load.midterm 2.0 1700000000\n",
                         "m000.interface-eth0.if_octets.rx 20.0 1700000010\n"
                         "m000.interface-eth0.if_octets.tx 0.0 1700000010\n",
                         "m000.a.counter.value 20.0 1700000010\n")
        self.assertNotIn("longterm", rates.metrics())
        self.flush_until("counts", counts, "m000.interface-eth0.if_octets.rx 300 1700000010\n")
        self.assertEqual(counts.calls[0][1]["key"], "12-ab")
        self.command("PUTVAL m000/uptime/uptime interval=10 1700000020:5")
        collectd.send_signal(signal.SIGTERM)
        self.assertEqual(collectd.wait(), 0)
        self.assertIn("m000.uptime.uptime.value 5.0 1700000020\n", rates.metrics())
