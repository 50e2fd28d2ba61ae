"""Removes what runs left behind that were killed: namespaces, prefixes, programs, control groups. Logs stay."""

import fcntl
import tempfile
from pathlib import Path

from . import filters, machine, network

# Namespaces and control groups belong to the machine, so one sweep at a time on all of it.
LOCK = Path(tempfile.gettempdir()) / "ruvod-sweep.lock"


def remove_abandoned():
    with open(LOCK, "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        network.remove_abandoned()
        machine.remove_abandoned()
        filters.remove_abandoned()


if __name__ == "__main__":
    remove_abandoned()
