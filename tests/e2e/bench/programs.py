"""Programs of certain names, for routing by process: Windows' own, and copies of Linux programs."""

import json
import shutil
import subprocess

from . import paths

NETCLIENT = paths.BUILD / paths.NETCLIENT


def _copy(bench, program, name):
    folder = bench.directory / "programs"
    folder.mkdir(exist_ok=True)
    # Not again: a program that is just being loaded would change under the loader.
    if not (folder / name).exists():
        shutil.copy2(program, folder / name)
    return folder / name


class WindowsClient:
    """netclient under another name, which takes its steps one after the other (tests/winehost/netclient says which).

        WindowsClient(bench, "shop.exe", "tcp", "203.0.113.10", 7, "send", "hello", "line", "wait", "reset")
    """

    def __init__(self, bench, name, *words):
        program = _copy(bench, NETCLIENT, name)
        self._process = bench.prefix.popen(program, *words, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                           stderr=subprocess.DEVNULL)
        self.events = []

    def expect(self, name):
        """Reads on until something of that name has happened; returns its members."""
        for row in self._process.stdout:
            self.events.append(json.loads(row))
            if self.events[-1]["event"] == name:
                return self.events[-1]
        raise AssertionError(f"no {name!r}: {self.events}")

    def go_on(self):
        """Ends its step "wait"."""
        self._process.stdin.write(b"\n")
        self._process.stdin.flush()

    def finish(self, timeout=60):
        """Lets it take all its steps; returns its exit status: 0 if all went well. The events are all there then."""
        rest, _ = self._process.communicate(timeout=timeout)
        self.events += [json.loads(row) for row in rest.splitlines()]
        return self._process.returncode

    def close(self):
        self._process.kill()
        self._process.communicate(timeout=10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def run_windows(bench, name, *words, timeout=60):
    """Runs one to its end; the text of its last event, if that has any. It has to take all its steps."""
    with WindowsClient(bench, name, *words) as client:
        status = client.finish(timeout)
        assert status == 0, client.events
        return client.events[-1].get("text")


def run_linux(bench, name, program, *words, timeout=60):
    """Runs a copy of a Linux program, in the Windows machine's network; what it prints."""
    command = [*bench.network.enter("host"), _copy(bench, program, name), *map(str, words)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=timeout, check=False)
    assert done.returncode == 0, f"{command}: {done.returncode} {done.stderr}"
    return done.stdout
