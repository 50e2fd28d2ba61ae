"""Many short connections, or many DNS queries, each from a port of its own.

Runs as a program in a namespace of the bench; prints one JSON object with what came of it.

    load_client.py connections COUNT IN_FLIGHT PATIENCE ADDRESS:PORT…
        Connects to these in turn, reads until the end, and compares with what that endpoint says of itself
        (identity_server).
    load_client.py queries COUNT IN_FLIGHT PATIENCE ADDRESS NAME
        Asks the name server there for NAME, each time from a new port.
One that takes longer than PATIENCE seconds is given up.
"""

import errno
import itertools
import json
import selectors
import socket
import sys
import time
from collections import Counter, deque

sys.path.append(__file__.rpartition("/")[0])

from identity_server import identity  # noqa: E402  pylint: disable=wrong-import-position

FIRST_PORT = 20000


class Exchanges:
    """Exchanges on sockets of their own, so many at a time. Subclasses say what one of them is."""

    def __init__(self, count, in_flight, patience):
        self.count = count
        self.in_flight = in_flight
        self.patience = patience
        self.good = 0
        self.failures = Counter()
        self.wrong = 0
        self.first_wrong = []
        self._selector = selectors.DefaultSelector()
        self._started = {}  # by socket, the oldest first
        self._durations = []

    def run(self):
        begin = time.monotonic()
        numbers = iter(range(self.count))
        for number in itertools.islice(numbers, self.in_flight):
            self._begin(number)
        while self._started:
            for key, _ in self._selector.select(1):
                if self._advance(key.fileobj, key.data):
                    self._next(numbers)
            self._drop_overdue(numbers)
        seconds = time.monotonic() - begin
        return {"count": self.count, "good": self.good, "wrong": self.wrong, "first_wrong": self.first_wrong,
                "failures": dict(self.failures), "seconds": round(seconds, 3),
                "per_second": round(self.good / seconds), "p50_ms": self._percentile(50), "p99_ms": self._percentile(99)}

    def _percentile(self, percent):
        ordered = sorted(self._durations)
        return round(ordered[len(ordered) * percent // 100] * 1000, 2) if ordered else None

    def _begin(self, number):
        made, events, state = self.open(number)
        self._started[made] = time.monotonic()
        self._selector.register(made, events, state)

    def _advance(self, made, state):
        """Whether this exchange is over."""
        try:
            if not self.step(made, state):
                return False
        except OSError as error:
            self.failures[errno.errorcode.get(error.errno, str(error))] += 1
        self._durations.append(time.monotonic() - self._started[made])
        self._close(made)
        return True

    def _note_wrong(self, what):
        self.wrong += 1
        if len(self.first_wrong) < 10:
            self.first_wrong.append(what)

    def _close(self, made):
        self._selector.unregister(made)
        del self._started[made]
        made.close()

    def _next(self, numbers):
        number = next(numbers, None)
        if number is not None:
            self._begin(number)

    def _drop_overdue(self, numbers):
        while self._started:
            oldest, started = next(iter(self._started.items()))
            if time.monotonic() - started < self.patience:
                break
            self.failures["no answer"] += 1
            self._close(oldest)
            self._next(numbers)


class Connections(Exchanges):
    def __init__(self, count, in_flight, patience, *endpoints):
        super().__init__(count, in_flight, patience)
        self._endpoints = [(address, int(port)) for address, port in (word.split(":") for word in endpoints)]

    def open(self, number):
        endpoint = self._endpoints[number % len(self._endpoints)]
        made = socket.socket()
        made.setblocking(False)
        made.connect_ex(endpoint)
        return made, selectors.EVENT_READ, (identity(*endpoint), bytearray())

    def step(self, made, state):
        wanted, received = state
        block = made.recv(4096)
        received += block
        if block:
            return False
        if received == wanted:
            self.good += 1
        else:
            self._note_wrong([wanted.decode(), received.decode(errors="replace")])
        return True


class Queries(Exchanges):
    def __init__(self, count, in_flight, patience, address, name):
        super().__init__(count, in_flight, patience)
        self._server = (address, 53)
        labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
        self._question = labels + b"\0\0\1\0\1"  # A, IN
        self._ports = deque(range(FIRST_PORT, 65536))

    def open(self, number):
        made = socket.socket(type=socket.SOCK_DGRAM)
        made.setblocking(False)
        self._bind_to_new_port(made)
        identifier = (number % 65536).to_bytes(2, "big")
        made.sendto(identifier + b"\1\0\0\1\0\0\0\0\0\0" + self._question, self._server)
        return made, selectors.EVENT_READ, identifier

    def _bind_to_new_port(self, made):
        while True:
            try:
                return made.bind(("", self._ports.popleft()))
            except OSError as error:
                if error.errno != errno.EADDRINUSE:
                    raise

    def step(self, made, state):
        answer, source = made.recvfrom(4096)
        answers = int.from_bytes(answer[6:8], "big")
        if source == self._server and answer[:2] == state and answer[3] & 15 == 0 and answers > 0:
            self.good += 1
        else:
            self._note_wrong([list(source), answer[:12].hex()])
        return True


def main():
    kind, *numbers = sys.argv[1:5]
    exchanges = {"connections": Connections, "queries": Queries}[kind](*map(int, numbers), *sys.argv[5:])
    print(json.dumps(exchanges.run()))


if __name__ == "__main__":
    main()
