"""A Wine prefix of its own: programs in it, and its end."""

import fcntl
import hashlib
import os
import resource
import shutil
import subprocess
import tempfile
from dataclasses import dataclass

from . import processes
from .paths import OUTPUT, WINE, WINE_PREFIX, WINPROBE
from .waiting import wait_for

CRASH_MARKS = ("Unhandled exception", "Unhandled page fault", "unimplemented function")
OPEN_FILES = 65536


def _text(file):
    file.seek(0)
    return file.read().decode(errors="replace").replace("\r\n", "\n")


@dataclass
class Result:
    """How a Windows program ended. Wine cuts exit codes to 8 bits."""

    status: int
    stdout: str
    stderr: str


def raise_open_files():
    """Lets the Wine server, which holds the files of all its programs, open many; returns how many it may.

    A container may refuse more than its own limit: then that has to do.
    """
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard < OPEN_FILES:
        try:
            resource.setrlimit(resource.RLIMIT_NOFILE, (OPEN_FILES, OPEN_FILES))
            return OPEN_FILES
        except (ValueError, PermissionError):
            pass
    allowed = min(hard, OPEN_FILES)
    resource.setrlimit(resource.RLIMIT_NOFILE, (allowed, hard))
    return allowed


def template():
    """A prefix to copy, made once and kept until Wine or the way of making it changes."""
    packages = ["dpkg-query", "-W", "wine", "wine64", "libwine"]
    versions = subprocess.run(packages, capture_output=True, check=True).stdout
    key = hashlib.sha256(versions + WINE_PREFIX.read_bytes()).hexdigest()[:12]
    OUTPUT.mkdir(parents=True, exist_ok=True)
    with open(OUTPUT / "template.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        made = OUTPUT / f"template-{key}"
        if not made.exists():
            for old in OUTPUT.glob("template-*"):
                shutil.rmtree(old)
            making = OUTPUT / "template-making"
            subprocess.run([WINE_PREFIX, "make", making], check=True, timeout=300)
            making.rename(made)
    return made


class Prefix:
    """A copy of the template. `enter` is what a command starts with to run in the bench's network and group.

    What services print lands in the file `output`, beside the prefix: they inherit the streams of Wine's first
    program.
    """

    def __init__(self, directory, enter=()):
        self.directory = directory
        self.output = directory.with_suffix(".log")
        self.enter = list(enter)
        self.service_environment = {}  # of services, beside what Windows gives them; before `up`
        self._keeper = None

    def environment(self):
        inherited = {name: os.environ[name] for name in ("PATH", "HOME", "USER", "TMPDIR") if name in os.environ}
        return inherited | {
            "WINEPREFIX": str(self.directory),
            "WINEDEBUG": os.environ.get("WINEDEBUG", "-all"),
            "WINEDLLOVERRIDES": "mscoree,mshtml=;winemenubuilder.exe=",
            "LC_ALL": "C.UTF-8",
        }

    def up(self):
        """Makes the prefix and starts Wine in it, with room for many connections."""
        raise_open_files()
        subprocess.run([WINE_PREFIX, "copy", template(), self.directory], check=True, timeout=60)
        self._write_service_environment()
        # Services are shut down as soon as no ordinary program is left: this one stays until its input ends, so
        # until this process ends, however that comes about. It also sees to the desktop (winprobe says why).
        with open(self.output, "wb") as output:
            self._keeper = self.popen(WINPROBE, "keep", stdin=subprocess.PIPE, stdout=output, stderr=output)
        wait_for(lambda: b'"ready":true' in self.output.read_bytes(), 60, "Wine to be up")

    def _write_service_environment(self):
        """Into the registry's file: once Wine runs, the service manager has read it."""
        head = "[System\\\\CurrentControlSet\\\\Control\\\\Session Manager\\\\Environment]"
        values = "".join(f'"{name}"="{value}"\n' for name, value in self.service_environment.items())
        registry = self.directory / "system.reg"
        before, found, after = registry.read_text(encoding="utf-8").partition(head)
        assert found, f"no environment of services in {registry}"
        rest_of_head, after = after.split("\n", 1)
        registry.write_text(before + head + rest_of_head + "\n" + values + after, encoding="utf-8")

    def popen(self, *command, **options):
        """Starts a Windows program. It gets a session of its own: Ctrl+C in a terminal is ours to handle."""
        words = [*self.enter, WINE, *map(str, command)]
        return subprocess.Popen(words, env=self.environment(), start_new_session=True, **options)

    def run(self, *command, timeout=30):
        """Runs a Windows program to its end."""
        # Files, not pipes: a pipe ends only when all programs have ended that inherited it.
        with tempfile.TemporaryFile() as stdout, tempfile.TemporaryFile() as stderr:
            process = self.popen(*command, stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr)
            try:
                process.wait(timeout)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait(10)
                output = _text(stdout) + _text(stderr)
                raise AssertionError(f"{command} did not end within {timeout} s: {output}") from None
            result = Result(process.returncode, _text(stdout), _text(stderr))
        for mark in CRASH_MARKS:
            assert mark not in result.stdout + result.stderr, f"{command} crashed: {result}"
        return result

    def pids(self):
        return processes.pids_with_environment("WINEPREFIX", self.directory)

    def down(self):
        """Ends everything in the prefix and removes it."""
        if self._keeper:
            self._keeper.stdin.close()
        # Wine's own way takes most of a second, in which nobody has anything left to say.
        processes.kill(self.pids())
        if self.directory.exists():
            subprocess.run([WINE_PREFIX, "remove", self.directory], timeout=60, check=False)
        processes.kill(self.pids())
        if self._keeper:
            self._keeper.wait(timeout=10)
        shutil.rmtree(self.directory, ignore_errors=True)
        wait_for(lambda: not self.directory.exists(), 5, f"the removal of {self.directory}")
