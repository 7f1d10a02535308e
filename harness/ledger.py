"""The ledger of a database: what became of every message that was added to it."""

from harness.skein_client import SkeinClient

AMOUNTS = ("queued", "in_flight", "sent", "partial", "failed", "discarded")


def account(socket, database):
    """Messages by what became of them, as the daemon tells it."""
    with SkeinClient(socket, 60) as local:
        buffer = local.call("status")["databases"][database]
    return {name: buffer[name]["messages"] for name in AMOUNTS}


def expect_accounted(amounts, added, stored):
    """Every message that was added is in one amount, and the store has what was sent. It may have what failed,
    too: the answer was lost, or it took the batch in part."""
    told = f"added {added}, {amounts}, stored {stored}"
    if added != sum(amounts.values()):
        raise AssertionError(f"the account does not add up: {told}")
    if not amounts["sent"] <= stored <= amounts["sent"] + amounts["partial"] + amounts["failed"]:
        raise AssertionError(f"the store does not agree: {told}")
    return told
