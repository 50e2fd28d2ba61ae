"""A client of the daemon: ruvoctl, driven through its standard streams."""

import itertools
import json
import subprocess
import threading
import time

from . import processes
from .daemon_log import CLIENT_LEFT_DURING_A_WRITE
from .waiting import wait_for


def matches(message, wanted):
    """`wanted` is a predicate, or an object whose members the message has to have."""
    if callable(wanted):
        return wanted(message)
    return all(key in message and message[key] == value for key, value in wanted.items())


class Client:
    """One connection through the pipe of a session. Messages come in on a thread of their own."""

    _ids = itertools.count(1)

    def __init__(self, prefix, ruvoctl, session, log_path, options, daemon_log, on_hello):
        self.session = session
        self._daemon_log = daemon_log
        self.messages = []  # all that came, in order
        self._taken = set()
        self._ended = False
        self._on_hello = on_hello
        self._arrival = threading.Condition()
        self.errors = log_path
        with open(log_path, "wb") as errors:
            self.process = prefix.popen(ruvoctl, "--session", session, "--linger", 0, *options,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for row in self.process.stdout:
            if not row.endswith(b"\n"):
                break  # killed in the middle of a line
            message = json.loads(row)
            with self._arrival:
                self.messages.append(message)
                self._arrival.notify_all()
        with self._arrival:
            self._ended = True
            self._arrival.notify_all()

    def send(self, message):
        """Sends one object."""
        if message.get("action") == "client-hello":
            self._on_hello(message.get("log-path", ""))
        self.send_line(json.dumps(message))

    def send_line(self, text):
        """Hands ruvoctl one line of input, whatever it is."""
        try:
            self.process.stdin.write(text.encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise AssertionError(f"ruvoctl has ended: {self.error_text()}") from None

    def expect(self, wanted, timeout=15):
        """Takes the first message that matches and was not taken before; waits for it up to `timeout` seconds."""
        deadline = time.monotonic() + timeout
        with self._arrival:
            looked_at = 0
            while True:
                for index in range(looked_at, len(self.messages)):
                    if index not in self._taken and matches(self.messages[index], wanted):
                        self._taken.add(index)
                        return self.messages[index]
                looked_at = len(self.messages)
                left = deadline - time.monotonic()
                if left <= 0 or self._ended:
                    break
                self._arrival.wait(left)
        why = f"ruvoctl ended: {self.error_text()}" if self._ended else f"{timeout} s passed"
        raise AssertionError(f"no message {wanted!r} ({why}); the last were {self.messages[-20:]}")

    def request(self, action, timeout=15, **fields):
        """Sends a request with an id of its own and returns the answer. Underscores in names become hyphens."""
        identity = f"request-{next(self._ids)}"
        self.send({"action": action, "request-id": identity} | {k.replace("_", "-"): v for k, v in fields.items()})
        return self.expect({"request-id": identity}, timeout)

    def events(self, name):
        """All events of that name that have come so far."""
        return [message for message in list(self.messages) if message.get("event") == name]

    def error_text(self):
        return self.errors.read_text(errors="replace").strip()

    def is_connected(self):
        return self.process.poll() is None

    def wait_closed(self, timeout=20):
        """Waits until the connection has ended from the other side; returns ruvoctl's exit status."""
        wait_for(lambda: self.process.poll() is not None, timeout, "the end of the connection")
        return self.process.returncode

    def close(self, timeout=15):
        """Ends the input: ruvoctl disconnects and ends. Returns its exit status."""
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass  # it has ended already
        return self.process.wait(timeout)

    def kill(self):
        """Ends ruvoctl in the middle of whatever it does."""
        self._daemon_log.allow(CLIENT_LEFT_DURING_A_WRITE)
        processes.kill([self.process.pid])
        self.process.wait(10)
