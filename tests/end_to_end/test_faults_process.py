"""What stands at the local socket's path when the daemon starts."""

import os
import socket
import stat

from harness.daemon import ERROR
from harness.skein_client import SkeinClient
from tests.end_to_end.support import FolderTest

TARGET_TEXT = "not to be touched"


def make_stale_socket(path, _):
    with socket.socket(socket.AF_UNIX) as stale:
        stale.bind(str(path))


def make_link(path, target):
    target.write_text(TARGET_TEXT)
    path.symlink_to(target)


IN_THE_WAY = [
    ("a stale socket", make_stale_socket),
    ("a plain file", lambda path, _: path.write_text("x")),
    ("a link to a file", make_link),
    ("a link to nothing", lambda path, target: path.symlink_to(target)),
    ("a link to a folder", lambda path, target: (target.mkdir(), path.symlink_to(target))),
]


class SocketPath(FolderTest):
    def test_what_stands_there_is_removed_and_the_target_of_a_link_is_kept(self):
        for number, (name, make) in enumerate(IN_THE_WAY):
            with self.subTest(name):
                path, target = (self.folder / f"{word}{number}" for word in ("socket", "target"))
                make(path, target)
                before = target.exists()
                self.start_pelorus({"INFLUX_UNIX_SOCKET": str(path)})
                with SkeinClient(path) as client:
                    client.call("stats")
                mode = os.lstat(path).st_mode
                self.assertTrue(stat.S_ISSOCK(mode))
                self.assertEqual(stat.S_IMODE(mode) & 0o077, 0, "it is the owner's alone")
                self.assertEqual(target.exists(), before)
                if target.is_file():
                    self.assertEqual(target.read_text(), TARGET_TEXT)

    def test_folder_is_an_error_and_kept(self):
        path = self.folder / "folder"
        path.mkdir()
        daemon = self.start_pelorus({"INFLUX_UNIX_SOCKET": str(path)}, ready=False)
        self.assertEqual(daemon.wait(), 0)
        self.assertTrue(any("Unhandled exception: " in line and str(path) in line
                            for line in daemon.lines(ERROR)), daemon.text())
        self.assertTrue(path.is_dir())
