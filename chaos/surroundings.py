"""Surroundings of their own for the programs of this folder: a network and a view of the file
system that no other program shares, so that fixed ports are free and the resolver can be chosen."""

import fcntl
import os
from pathlib import Path
import shutil
import socket
import struct
import subprocess
import sys

INSIDE = "PELORUS_CHAOS_INSIDE"
IFF_UP, SIOCSIFFLAGS = 1, 0x8914


def prepare(build):
    """To be called first of all: the program goes on in surroundings of its own, and what it imports
    from now on is found from the tree's folder and uses this build."""
    _own_namespaces()
    _bring_loopback_up()
    sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
    import harness
    harness.use_build(build)


def _own_namespaces():
    """Starts this program again in namespaces of its own, where that is allowed."""
    if os.environ.get(INSIDE):
        return
    unshare = ["unshare", *([] if os.geteuid() == 0 else ["--map-root-user"]), "--net", "--mount"]
    allowed = shutil.which("unshare") and subprocess.run(
        [*unshare, "true"], stderr=subprocess.DEVNULL).returncode == 0
    os.environ[INSIDE] = "shared" if not allowed else "own"
    if allowed:
        os.execvp(unshare[0], [*unshare, "--", "/usr/bin/python3", *sys.argv])


def _alone():
    return os.environ.get(INSIDE) == "own"


def _bring_loopback_up():
    if not _alone():
        return
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", IFF_UP))


def use_resolver(folder):
    """From now on names are looked up at 127.0.0.1, port 53. False where that is not allowed."""
    if not _alone():
        return False
    file = Path(folder) / "resolv.conf"
    file.write_text("nameserver 127.0.0.1\n")
    return subprocess.run(["mount", "--bind", file, "/etc/resolv.conf"]).returncode == 0
