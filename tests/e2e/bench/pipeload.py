"""The load tool's commands against a bench: raw bytes, floods, storms and silence."""

import json
import subprocess

from .daemon_log import CLIENT_LEFT_DURING_A_WRITE
from .paths import BUILD

PIPELOAD = BUILD / "tests" / "e2e" / "pipeload" / "pipeload.exe"


class Pipeload:
    """A command that runs; `result` waits for its end and returns (exit status, result, messages before it)."""

    def __init__(self, bench, command, lines=(), **options):
        # Its clients drop, vanish, or end with a heartbeat unanswered.
        bench.log.allow(CLIENT_LEFT_DURING_A_WRITE)
        words = [word for name, value in options.items() for word in (f"--{name.replace('_', '-')}", value)]
        self._process = bench.prefix.popen(PIPELOAD, command, *words, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                           stderr=subprocess.STDOUT)
        self._input = "".join(line + "\n" for line in lines).encode()

    def result(self, timeout=60):
        try:
            output, _ = self._process.communicate(self._input, timeout)
        except subprocess.TimeoutExpired:
            self._process.kill()
            output, _ = self._process.communicate()
            raise AssertionError(f"pipeload did not end within {timeout} s: {output[-2000:]!r}") from None
        rows = []
        for row in output.splitlines():
            try:
                rows.append(json.loads(row))
            except ValueError:
                raise AssertionError(f"pipeload says: {output[-2000:]!r}") from None
        assert rows, f"pipeload printed nothing (status {self._process.returncode})"
        return self._process.returncode, rows[-1], rows[:-1]


def run(bench, command, lines=(), timeout=60, **options):
    """Runs a command to its end; its result, which has to tell of no failure, and the messages before it."""
    status, result, messages = Pipeload(bench, command, lines, **options).result(timeout)
    assert status == 0 and not result.get("failures"), result
    return result, messages
