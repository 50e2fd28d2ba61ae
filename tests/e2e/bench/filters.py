"""The machine's filtering engine (docs/bench.md): what filters it has, and what they let pass."""

import json
import subprocess
import sys

from . import core, sockets
from .paths import ROOT, windows_path

WINEHOST = ROOT / "tests" / "winehost"
sys.path.append(str(WINEHOST))

from filterengine import app_id, cgroups  # noqa: E402  pylint: disable=wrong-import-position
from filterengine.client import Client  # noqa: E402  pylint: disable=wrong-import-position

# Programs of the product that filters name, by the words that tests use for them.
PROGRAMS = {"daemon": "ruvod.exe", "core": core.EXECUTABLE, "app": "Ruvo.exe"}
# Native programs can stand for these; the daemon runs under Wine.
STAND_INS = ("core", "app")


class Filters:
    """An engine in the namespace `host`, from `up` to `down`; what it has to complain about is in the file `log`."""

    def __init__(self, network, application, log):
        self.network = network
        self._application = application
        self.log = log
        self._process = None
        self._groups = {}

    def up(self):
        stand_ins = [f"{name}={windows_path(self._application / PROGRAMS[name])}" for name in STAND_INS]
        command = [*self.network.enter("host"), "/usr/bin/python3", "-B", "-m", "filterengine.serve", *stand_ins]
        with open(self.log, "wb") as log:
            # A session of its own: Ctrl+C in a terminal is ours to handle.
            self._process = subprocess.Popen(command, cwd=WINEHOST, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                             stderr=log, start_new_session=True)
        line = self._process.stdout.readline()
        if not line:
            raise RuntimeError(f"the filtering engine does not start: {self.log.read_text(errors='replace')}")
        self._groups = json.loads(line)["groups"]

    def down(self):
        """Ends it, and with it what runs in its groups."""
        if self._process:
            self._process.stdin.close()
            self._process.stdout.close()
            self._process.wait(30)
            self._process = None

    def check(self):
        """It runs, and had nothing to complain about."""
        assert self._process.poll() is None and self.log.read_bytes() == b"", self.log.read_text(errors="replace")

    def pid(self):
        """The process of the engine."""
        return self._process.pid

    def group(self, name):
        """The control group of "core", "app" or "wine": a process joins by writing its id into its file cgroup.procs."""
        return self._groups[name]

    def enter_as(self, name):
        """What a command starts with to run in `host` as "core" or "app", or as one of Wine's programs ("wine")."""
        script = 'echo $$ >"$0/cgroup.procs" && exec "$@"'
        return [*self.network.enter("host"), "sh", "-c", script, self.group(name)]

    def filters(self):
        """All filters in order of addition, as dictionaries: id, layer, sublayer, weight, action, conditions …"""
        return self._ask("list")["filters"]

    def sublayers(self):
        return self._ask("list")["sublayers"]

    def sessions(self):
        return self._ask("list")["sessions"]

    def changes(self):
        """When the kernel's rules changed ("time", seconds since 1970), and how long each change took ("seconds")."""
        return self._ask("changes")["changes"]

    def would_pass(self, program, family, interface, port, direction="connect"):
        """Whether filters let a connection pass.

        program: "daemon", "core", "app", or another whole path of Windows. interface: its index. port: the other end's.
        """
        return self._ask("judge", program=self.app_id(program), family=family, direction=direction,
                         interface=interface, port=port)["passes"]

    def app_id(self, program):
        """By what filters know a program, named as for would_pass."""
        if program in PROGRAMS:
            program = windows_path(self._application / PROGRAMS[program])
        return app_id.of_windows_path(program)

    def delete_behind_back(self, number):
        """Deletes a filter as another administrator of the machine would."""
        with self.client() as session:
            session.call("open")
            session.call("filter-delete", id=number)
            session.call("close")

    def end_behind_back(self, number):
        """Ends a session as if somebody had closed its handle: what it has added goes, its owner is not told."""
        self._ask("session-end", id=number)

    def client(self):
        """A connection of its own to the engine (filterengine.client)."""
        return sockets.in_namespace(self, "host", Client)

    def _ask(self, call, **members):
        with self.client() as connection:
            return connection.call(call, **members)


def remove_abandoned():
    """Removes the groups of engines that were killed."""
    cgroups.remove_abandoned()
