"""The daemon as the service manager sees it, and as Linux does."""

import json
import re

from . import processes
from .paths import WINPROBE, windows_path
from .waiting import wait_for

NAME = "RuvoService"
STOPPED, START_PENDING, STOP_PENDING, RUNNING = 1, 2, 3, 4


class Service:
    """Registration, state and controls of the service in a prefix; the process behind it."""

    def __init__(self, prefix, application):
        self._prefix = prefix
        self._executable = application / "ruvod.exe"

    def ruvod(self, *arguments, timeout=30):
        """Runs ruvod.exe as a user would, outside the service manager."""
        return self._prefix.run(self._executable, *arguments, timeout=timeout)

    def sc(self, *arguments, timeout=30):
        """Runs Windows' own tool: bench.sc("query")."""
        command, *rest = arguments
        return self._prefix.run("sc", command, NAME, *rest, timeout=timeout)

    def probe(self, *arguments, timeout=30):
        """Runs winprobe: its exit status and the JSON objects that it printed."""
        result = self._prefix.run(WINPROBE, *arguments, timeout=timeout)
        return result.status, [json.loads(line) for line in result.stdout.splitlines()]

    def register(self):
        result = self.ruvod("--register")
        assert result.status == 0, result

    def unregister(self):
        result = self.ruvod("--unregister")
        assert result.status == 0, result

    def is_registered(self):
        status, answers = self.probe("service", NAME)
        assert status == 0 or answers[-1].get("error") == 1060, answers  # 1060: there is no such service
        return status == 0

    def configuration(self):
        """What the manager keeps of the service, and its state."""
        status, answers = self.probe("service", NAME)
        assert status == 0, answers
        return answers[0]

    def state(self):
        return self.configuration()["state"]

    def wait_for_state(self, state, timeout=20):
        wait_for(lambda: self.state() == state, timeout, f"service state {state}")

    def start(self, timeout=20):
        """Starts the service and returns the states that it went through; the last one is running."""
        status, answers = self.probe("start", NAME, timeout * 1000, timeout=timeout + 10)
        states = [answer["state"] for answer in answers if "state" in answer]
        assert status == 0 and states[-1] == RUNNING, answers
        return states

    def stop(self, timeout=40):
        """Stops the service and waits until its process is gone."""
        pid = self.daemon_pid()
        result = self.sc("stop")
        assert result.status == 0, result
        self.wait_for_state(STOPPED, timeout)
        wait_for(lambda: not processes.is_alive(pid), timeout, "the end of the daemon's process")

    def control(self, code):
        """Sends the service a control; 0, or the error of the call."""
        status, answers = self.probe("control", NAME, code)
        return 0 if status == 0 else answers[-1]["error"]

    def daemon_pids(self):
        """Linux's ids of the processes that serve the service manager (ruvod.exe without arguments)."""
        command = [windows_path(self._executable)]
        return [pid for pid in self._prefix.pids()
                if processes.command_line(pid) == command]

    def daemon_pid(self):
        """Linux's id of the daemon's process, which has to run."""
        # Wine starts a child by forking: for an instant there are two of the parent.
        return wait_for(lambda: pids[0] if len(pids := self.daemon_pids()) == 1 else None, what="the daemon's process")

    def memory(self):
        """Memory of the daemon in KiB, as /proc/PID/smaps_rollup names its parts."""
        return processes.memory_kib(self.daemon_pid())

    def counts(self):
        """Windows' view of the daemon's process: {"pid": …, "handles": …, "threads": …, …}."""
        return self.windows_processes(self._executable.name)[0]

    def windows_processes(self, name):
        """Those that run an executable of that name (in any case), as Windows lists them."""
        status, answers = self.probe("processes", name)
        assert status == 0, answers
        return answers

    def has_pipe(self, session):
        """Whether the pipe of a session waits for clients. Looks without connecting.

        The name itself stays as long as there is a client that came through it.
        """
        status, answers = self.probe("pipe", f"ruvod-{session}")
        assert status == 0, answers
        return answers[0]["free"]


def parse_query(text):
    """The rows of `sc query` by name: {"STATE": (4, "RUNNING"), …}."""
    rows = re.findall(r"^[ \t]*(\w+)[ \t]*:[ \t]*(\w+)[ \t]*(\w*)", text, re.MULTILINE)
    return {name: (int(value, 16), word) if value[0].isdigit() else (value, word) for name, value, word in rows}
