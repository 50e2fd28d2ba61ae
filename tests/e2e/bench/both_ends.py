"""Connections with both ends in the hands of the test: how bytes, ends and resets travel between them."""

import hashlib
import socket
import threading
import time
from contextlib import contextmanager

from . import sockets
from .internet_server import known_bytes, known_digest
from .traffic import SERVER
from .waiting import wait_for

PORT = 9100
# Goes past the proxy: the daemon connects to the server by itself.
DIRECT_PORT = 53


@contextmanager
def connections(bench, count=1, *, address=SERVER, port=PORT, options=(), role="host"):
    """That many connections from the Windows machine, or from another, to a server: [(client, server), …]."""
    pairs = []
    with sockets.listener(bench, (address, port), backlog=count) as listener:
        listener.settimeout(20)
        try:
            for _ in range(count):
                client = sockets.tcp(bench, (address, port), role, options=options)
                try:
                    server, _ = listener.accept()
                except BaseException:
                    client.close()
                    raise
                server.settimeout(20)
                pairs.append((client, server))
            yield pairs
        finally:
            for pair in pairs:
                for end in pair:
                    end.close()


class Sender:
    """Sends known bytes on a thread of its own and counts what has gone out; `finish` waits for the rest."""

    def __init__(self, connection, size):
        connection.settimeout(120)
        self._connection = connection
        self.size = size
        self.sent = 0
        self.error = None
        self._thread = threading.Thread(target=self._send, daemon=True)
        self._thread.start()

    def _send(self):
        try:
            for block in known_bytes(self.size):
                rest = memoryview(block)
                while rest:
                    sent = self._connection.send(rest[:1 << 18])
                    self.sent += sent
                    rest = rest[sent:]
        except OSError as error:
            self.error = error

    def wait_until_blocked(self, timeout=30):
        """Until nothing goes out any more for half a second; how much went before."""
        seen = []

        def is_blocked():
            seen.append(self.sent)
            return len(seen) > 10 and seen[-1] == seen[-11]
        wait_for(is_blocked, timeout, "the sender to be held up")
        return self.sent

    def finish(self, timeout=120):
        self._thread.join(timeout)
        assert not self._thread.is_alive() and self.error is None, (self.sent, self.error)
        assert self.sent == self.size


def receive(connection, size):
    """Exactly that many bytes, or fewer if the connection ends before."""
    received = bytearray()
    while len(received) < size:
        block = connection.recv(min(size - len(received), 1 << 18))
        if not block:
            break
        received += block
    return bytes(received)


def receive_all(connection):
    """Everything up to the end, and how that came: (bytes, None or the error)."""
    received = bytearray()
    while True:
        try:
            block = connection.recv(1 << 18)
        except OSError as error:
            return bytes(received), error
        if not block:
            return bytes(received), None
        received += block


def is_known(data):
    """Whether these are the first bytes of those that a Sender sends."""
    return b"".join(known_bytes(len(data))) == data


def expect_known(connection, size, pause=0, every=0):
    """Receives what a Sender of this size sends, whole; with a pause after every so many bytes. How long it took."""
    digest, left = hashlib.sha256(), size
    began = time.monotonic()
    while left:
        until_pause = every - (size - left) % every if every else left
        block = connection.recv(min(left, until_pause, 1 << 18))
        assert block, f"the connection ended {left} bytes too early"
        digest.update(block)
        left -= len(block)
        if left and len(block) == until_pause:
            time.sleep(pause)
    assert digest.hexdigest() == known_digest(size)
    return time.monotonic() - began


def end_with(connection, data):
    """Sends the last bytes and the end of this half in one segment."""
    connection.send(data, socket.MSG_MORE)
    connection.shutdown(socket.SHUT_WR)


def expect_reset(connection):
    """The next that comes is a reset, not an end that looks orderly."""
    try:
        data = connection.recv(1)
    except ConnectionResetError:
        return
    raise AssertionError(f"a reset was expected, {data!r} came")


def small_buffers(size=16384):
    """Options for a connection that holds little in its own machine."""
    return [(socket.SOL_SOCKET, socket.SO_RCVBUF, size), (socket.SOL_SOCKET, socket.SO_SNDBUF, size)]
