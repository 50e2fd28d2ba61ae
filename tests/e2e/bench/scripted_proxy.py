"""SOCKS5 proxies in the Windows machine's namespace that do what a test tells them."""

import threading

from . import sockets
from .both_ends import receive

METHOD_REPLY = b"\x05\x00"
# Success; the address that follows is not used.
CONNECTED = b"\x05\x00\x00\x01" + bytes(6)


class Proxy:
    """Takes each connection on a thread of its own, until it is closed."""

    def __init__(self, bench, port):
        self.port = port
        self._listener = sockets.listener(bench, ("127.0.0.1", port), "host", backlog=1000)
        self._connections = []
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self._connections.append(connection)
            threading.Thread(target=self._run, args=(connection,), daemon=True).start()

    def _run(self, connection):
        try:
            self._serve(connection)
        except (OSError, ValueError):
            pass  # the other end has gone, or this one is closed

    def _serve(self, connection):
        raise NotImplementedError

    def _also_close(self, connection):
        self._connections.append(connection)

    def close(self):
        # A thread inside accept is not woken by close alone.
        for each in [self._listener, *self._connections]:
            try:
                each.shutdown(2)
            except OSError:
                pass
            each.close()
        self._thread.join(10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Connector(Proxy):
    """Says yes to every CONNECT and hands the connection to the test.

    behind_reply: what is sent in one piece with the reply.
    """

    def __init__(self, bench, port, behind_reply=b""):
        self._behind_reply = behind_reply
        self._taken = []
        self._arrival = threading.Condition()
        super().__init__(bench, port)

    def _serve(self, connection):
        receive(connection, 3)
        connection.sendall(METHOD_REPLY)
        receive(connection, 10)
        connection.sendall(CONNECTED + self._behind_reply)
        with self._arrival:
            self._taken.append(connection)
            self._arrival.notify_all()

    def take(self, timeout=20):
        """The next connection behind its reply."""
        with self._arrival:
            assert self._arrival.wait_for(lambda: self._taken, timeout), "no connection came to the proxy"
            return self._taken.pop(0)


class Forwarder(Proxy):
    """Hands every connection on to the port of a real proxy; while it is mute, new ones get no answer."""

    def __init__(self, bench, port, target):
        self._bench = bench
        self._target = ("127.0.0.1", target)
        self.mute = False
        super().__init__(bench, port)

    def _serve(self, connection):
        if self.mute:
            return
        onward = sockets.tcp(self._bench, self._target, timeout=None)
        self._also_close(onward)
        threading.Thread(target=copy, args=(onward, connection), daemon=True).start()
        copy(connection, onward)


def copy(source, destination):
    try:
        while data := source.recv(1 << 18):
            destination.sendall(data)
        destination.shutdown(1)
    except OSError:
        for end in (source, destination):
            end.close()
