"""Serves the engine's calls: a JSON object a line, a line in return, on a socket of the network namespace."""

import json
import selectors
import socket

# Abstract: it belongs to the network namespace, and is gone with its owner.
ADDRESS = "\0ruvod-filter-engine"


class _Connection:
    def __init__(self, made):
        self.socket = made
        self.session = None
        self.unread = b""


class Server:
    """One thread, one request after the other: what is answered is in force. `calls` as calls.Calls."""

    def __init__(self, calls):
        self._calls = calls
        self._selector = selectors.DefaultSelector()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(ADDRESS)
        self._listener.listen(128)
        self._selector.register(self._listener, selectors.EVENT_READ)

    def serve_until(self, end):
        """Serves until the descriptor `end` can be read."""
        self._selector.register(end, selectors.EVENT_READ)
        while True:
            ready = [key for key, _ in self._selector.select()]
            if any(key.fileobj == end for key in ready):
                return
            for key in ready:
                if key.fileobj is self._listener:
                    made, _ = self._listener.accept()
                    self._selector.register(made, selectors.EVENT_READ, _Connection(made))
                else:
                    self._read(key.data)

    def _read(self, connection):
        try:
            data = connection.socket.recv(65536)
            *lines, connection.unread = (connection.unread + data).split(b"\n")
            for line in lines:
                connection.socket.sendall(self._answer(connection, line))
        except OSError:
            data = b""
        if not data:
            self._selector.unregister(connection.socket)
            connection.socket.close()
            self._calls.end(connection)

    def _answer(self, connection, line):
        try:
            request = json.loads(line)
        except ValueError:
            request = {}
        answer = self._calls.answer(connection, request if isinstance(request, dict) else {})
        return json.dumps(answer).encode() + b"\n"
