"""Speaks with an engine."""

import json
import socket

from .server import ADDRESS


class Client:
    """A connection, which is a session as soon as it has sent "open". Made on a thread in the engine's namespace."""

    def __init__(self, timeout=20):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(timeout)
        self._socket.connect(ADDRESS)
        self._answers = self._socket.makefile("rb")

    def ask(self, call, **members):
        """The whole reply. Underscores in names become hyphens."""
        request = {"call": call} | {name.replace("_", "-"): value for name, value in members.items()}
        self._socket.sendall(json.dumps(request).encode() + b"\n")
        line = self._answers.readline()
        if not line:
            raise ConnectionError(f"the filtering engine is gone; it was asked {request}")
        return json.loads(line)

    def call(self, call, **members):
        """The same, for a call that has to work."""
        answer = self.ask(call, **members)
        if answer["error"] != 0:
            raise AssertionError(f"{call} {members}: {answer['error']:#x}")
        return answer

    def close(self):
        self._answers.close()
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
