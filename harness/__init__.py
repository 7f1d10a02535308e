"""The real daemon under control, and stand-ins for everything around it: what the end-to-end tests,
`chaos/`, `bench/` and `demo/` share. It shares no code with the daemon.

A program that uses it puts the tree's folder on `sys.path`, says which build it is about where that
is not PELORUS_BUILD's, and then imports what it needs:

    process         free ports, waits that end, programs that end with this one
    daemon          pelorus itself, with settings of its own
    skein_client    a client of the protocol
    real_servers    InfluxDB and collectd as Debian packages them
    stub_influx     InfluxDB's endpoint, which keeps what it is sent and answers as told
    web_server      the administration web server, where the build looks for it
    tidewell_stand_in  the program that it runs
    conduct         how a server can treat its client
    bad_peers       what a peer can do wrong
    bystander       quiet peers that measure how long they are kept waiting
    stage           the daemon between stand-ins with bystanders, for trying faults on it
    peer_faults, far_end_faults  the quick ones, which the tests and `chaos/` try
    graphite_lines  lines as a collectd sends them"""

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
