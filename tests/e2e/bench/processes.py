"""Linux's view of the processes of a bench."""

import os
import signal
from pathlib import Path

from .waiting import wait_for


def _read(pid, name):
    try:
        return (Path("/proc") / str(pid) / name).read_bytes()
    except (OSError, ValueError):
        return b""


def is_alive(pid):
    """Whether a process of that id runs (one that waits for its parent does not)."""
    state = _read(pid, "stat").rpartition(b")")[2].split()
    return bool(state) and state[0] not in (b"Z", b"X")


def all_pids():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def command_line(pid):
    """The words of a command line. Wine fills what the program's own name leaves free with zeros."""
    return [word.decode(errors="replace") for word in _read(pid, "cmdline").split(b"\0") if word]


def pids_with_environment(name, value):
    """The processes that run with NAME=value, all of Wine's of one prefix for example."""
    wanted = f"{name}={value}".encode()
    return [pid for pid in all_pids() if wanted in _read(pid, "environ").split(b"\0") and is_alive(pid)]


def kill(pids, timeout=10):
    """Ends processes by their ids and waits until they are gone."""
    for pid in pids:
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
    wait_for(lambda: not any(is_alive(pid) for pid in pids), timeout, f"the end of {pids}")


def memory_kib(pid):
    """Private and proportional memory of a process in KiB: {"Rss": …, "Pss": …, "Private_Dirty": …, …}."""
    rows = _read(pid, "smaps_rollup").decode().splitlines()[1:]
    return {row.split(":")[0]: int(row.split()[1]) for row in rows}
