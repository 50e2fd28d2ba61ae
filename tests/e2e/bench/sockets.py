"""Sockets of this process in a namespace of the bench: a socket stays where it was made."""

import ctypes
import fcntl
import os
import socket
import struct
import termios
from concurrent.futures import ThreadPoolExecutor

CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def _enter(path):
    with open(path, "rb") as namespace:
        if _libc.setns(namespace.fileno(), CLONE_NEWNET) != 0:
            error = ctypes.get_errno()
            raise OSError(error, f"setns {path}: {os.strerror(error)}")


def enter(bench, role):
    """Puts the calling thread into that namespace for good: for threads that the test has made for it."""
    _enter(f"/run/netns/{bench.network.name(role)}")


def in_namespace(bench, role, work):
    """Calls `work` on a thread of its own in that namespace; what it makes there may be used from everywhere."""
    def run():
        enter(bench, role)
        return work()
    with ThreadPoolExecutor(1) as thread:
        return thread.submit(run).result()


def tcp(bench, address, role="host", timeout=20, *, port=0, options=()):
    """A connection from that namespace, from a certain port if one is given; others may use the same one.

    options: what is set before it connects, as [(level, option, value), …].
    """
    return in_namespace(bench, role, lambda: connect(address, timeout, port=port, options=options))


def connect(address, timeout=20, *, port=0, options=()):
    """The same, on a thread that is in its namespace already."""
    made = socket.socket(family_of(address), socket.SOCK_STREAM)
    try:
        made.settimeout(timeout)
        for option in options:
            made.setsockopt(*option)
        if port:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            made.bind(("", port))
        made.connect(address)
    except BaseException:
        made.close()
        raise
    return made


def waiting_bytes(connection):
    """How much has arrived and is not read yet."""
    return struct.unpack("i", fcntl.ioctl(connection, termios.FIONREAD, bytes(4)))[0]


def reset(connection):
    """Ends a connection so that the other end gets a reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def family_of(address):
    """The family of (host, port)."""
    return socket.AF_INET6 if ":" in address[0] else socket.AF_INET


def udp(bench, role="host", bind=("", 0), timeout=20):
    """A datagram socket in that namespace; bind=("::", 0) for one of IPv6."""
    def make():
        made = socket.socket(family_of(bind), socket.SOCK_DGRAM)
        made.settimeout(timeout)
        made.bind(bind)
        return made
    return in_namespace(bench, role, make)


def listener(bench, address, role="net", backlog=128):
    """A socket that listens in that namespace."""
    return in_namespace(bench, role, lambda: socket.create_server(address, backlog=backlog))
