"""Sockets of this process in a namespace of the bench: a socket stays where it was made."""

import ctypes
import os
import socket
from concurrent.futures import ThreadPoolExecutor

CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def _enter(path):
    with open(path, "rb") as namespace:
        if _libc.setns(namespace.fileno(), CLONE_NEWNET) != 0:
            error = ctypes.get_errno()
            raise OSError(error, f"setns {path}: {os.strerror(error)}")


def in_namespace(bench, role, work):
    """Calls `work` on a thread of its own in that namespace; what it makes there may be used from everywhere."""
    def run():
        _enter(f"/run/netns/{bench.network.name(role)}")
        return work()
    with ThreadPoolExecutor(1) as thread:
        return thread.submit(run).result()


def tcp(bench, address, role="host", timeout=20):
    """A connection from that namespace."""
    return in_namespace(bench, role, lambda: socket.create_connection(address, timeout))


def udp(bench, role="host", bind=("", 0), timeout=20):
    """A datagram socket in that namespace."""
    def make():
        made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        made.settimeout(timeout)
        made.bind(bind)
        return made
    return in_namespace(bench, role, make)


def listener(bench, address, role="net", backlog=128):
    """A socket that listens in that namespace."""
    return in_namespace(bench, role, lambda: socket.create_server(address, backlog=backlog))
