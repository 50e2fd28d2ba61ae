"""The daemon's log: its lines, and which of them a test has to account for."""

import re
from collections import namedtuple

from .waiting import wait_for

Line = namedtuple("Line", "time level text")
FORMAT = re.compile(r"\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\] (DEBUG|INFO|WARNING|CRITICAL|FATAL): (.*)")
SERIOUS = ("WARNING", "CRITICAL", "FATAL")
# Qt's own line about a client that left while a message for it was under way. Whether a client's last message is read
# before its pipe closes is chance, so every test whose clients leave without waiting for it has to allow the line.
CLIENT_LEFT_DURING_A_WRITE = r"^QWindowsPipeWriter: write failed\. \(Broken pipe\.\)$"


def parse(text):
    """The lines of a log; what has no head of its own belongs to the line before it."""
    lines = []
    for row in text.splitlines():
        match = FORMAT.fullmatch(row)
        if match:
            lines.append(Line(*match.groups()))
        elif lines:
            lines[-1] = lines[-1]._replace(text=lines[-1].text + "\n" + row)
    return lines


class DaemonLog:
    """All files that the daemon has been told to log to, the old generations first."""

    def __init__(self):
        self._patterns = []
        self._expected = []
        self._allowed = []

    def add(self, base, pattern):
        """A file to read, as a pattern below `base`: the default log's folder is named after Wine's user."""
        if (base, pattern) not in self._patterns:
            self._patterns.append((base, pattern))

    def files(self):
        found = []
        for base, pattern in self._patterns:
            for path in sorted(base.glob(pattern)):
                found += [old for old in [path.with_name(path.name + ".old")] if old.exists()] + [path]
        return found

    def path(self):
        """The file that the daemon writes now: the last one that it was told."""
        base, pattern = self._patterns[-1]
        return next(iter(sorted(base.glob(pattern))), base / pattern)

    def lines(self):
        return [line for file in self.files() for line in parse(read_log(file))]

    def texts(self):
        return [line.text for line in self.lines()]

    def wait_for(self, text, timeout=15, count=1):
        """Waits until at least `count` lines contain `text`; returns them."""
        def found():
            lines = [line for line in self.lines() if text in line.text]
            return lines if len(lines) >= count else None
        return wait_for(found, timeout, f"{count} log line(s) with {text!r}")

    def expect(self, pattern):
        """A warning or worse has to come whose text this regular expression finds."""
        self._expected.append(pattern)

    def allow(self, pattern):
        """A warning or worse may come."""
        self._allowed.append(pattern)

    def check(self):
        """Fails if there is a warning that nobody expected, or an expected one is missing."""
        serious = [line for line in self.lines() if line.level in SERIOUS]
        known = self._expected + self._allowed

        def finds(pattern):
            return any(re.search(pattern, line.text) for line in serious)

        surprises = [line for line in serious if not any(re.search(pattern, line.text) for pattern in known)]
        missing = [pattern for pattern in self._expected if not finds(pattern)]
        assert not surprises, f"unexpected in the daemon's log: {surprises}"
        assert not missing, f"missing in the daemon's log: {missing}"


def read_log(file):
    """Its text so far; none if it has just been moved away or removed."""
    try:
        return file.read_text(encoding="utf-8", errors="replace")
    except FileNotFoundError:
        return ""
