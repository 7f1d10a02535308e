"""The real daemon under control, and stand-ins for everything around it: what the end-to-end tests,
`bench/` and `demo/` share. It shares no code with the daemon.

A program that uses it puts the tree's folder on `sys.path`, says which build it is about where that
is not PELORUS_BUILD's, and then imports what it needs:

    process         free ports, waits that end, programs that end with this one
    daemon          pelorus itself, with settings of its own
    skein_client    a client and a server of the protocol
    http_server     a server that treats its clients as told: InfluxDB, the administration web server
    real_servers    InfluxDB and collectd as Debian packages them
    ledger          what became of every message"""

import os
from pathlib import Path
import sys

REPOSITORY = Path(__file__).resolve().parents[1]
# Debian's servers lie in folders that the PATH of an ordinary user leaves out.
os.environ["PATH"] += ":/usr/local/sbin:/usr/sbin:/sbin"

BUILD = Path(os.environ.get("PELORUS_BUILD", REPOSITORY / "build" / "dev")).resolve()


def use_build(folder):
    """Makes the modules that are imported from now on use the programs of this build."""
    global BUILD
    BUILD = Path(folder).resolve()
    sys.dont_write_bytecode = True
