"""One Windows machine under test: namespaces, prefix, service, sessions, clients, logs; and its removal."""

import itertools
import json
import os
import shutil

from . import core, processes
from .client import Client
from .daemon_log import DaemonLog, read_log
from .filters import PROGRAMS, Filters
from .journal import Journal
from .network import Network
from .paths import BUILD, NETCLIENT, OUTPUT, PRODUCT, WINEHOST, WINTUN, windows_path
from .service import RUNNING, STOPPED, Service
from .waiting import wait_for
from .wine import CRASH_MARKS, Prefix

# Below a prefix; the folder of the user is named after the account that Wine runs as.
DEFAULT_LOG = "drive_c/users/*/AppData/Local/Ruvo/logs/ruvod.log"


def volume(whole, share):
    """A count of a large test: `whole` when the whole volumes were asked for, else its share of an ordinary run."""
    return whole if os.environ.get("RUVOD_WHOLE") == "1" else share


class Bench(Service):
    """Everything in one directory; `up` makes it, `down` removes it whatever happened in between."""

    def __init__(self, directory, roles=("host",)):
        self.directory = directory
        # With a blank, as below "Program Files".
        self.application = directory / "Ruvo Client"
        self.substitutes = self.application / "winehost"
        self.network = Network(roles)
        self.prefix = Prefix(directory / "prefix")
        super().__init__(self.prefix, self.application)
        self.log = DaemonLog()
        self.log.add(self.prefix.directory, DEFAULT_LOG)
        self.journal = Journal(self.substitutes / "journal.jsonl")
        self.filters = Filters(self.network, self.application, directory / "filters.log")
        self.clients = []
        self._numbers = itertools.count(1)
        self._plans = itertools.count(1)

    def log_debug_lines(self):
        """Before `up`: the daemon logs its debug lines too, which tell step by step what it does."""
        self.prefix.service_environment["QT_LOGGING_RULES"] = "ruvod.debug=true"

    def up(self):
        remove(self.directory)
        self.substitutes.mkdir(parents=True)
        (self.directory / "owner").write_text(str(os.getpid()), encoding="ascii")
        for name in PRODUCT + WINEHOST:
            self._install(name, self.application)
        self._install(WINTUN, self.application / "tun2")
        self._install(NETCLIENT, self.application, PROGRAMS["app"])
        core.install(self.application)
        self.set_sessions("1 active user")
        self.network.up()
        self.filters.up()
        self.prefix.enter = self.filters.enter_as("wine")
        self.prefix.up()

    @staticmethod
    def _install(name, folder, new_name=""):
        if not (BUILD / name).exists():
            raise RuntimeError(f"{BUILD / name} is missing: build the preset 'windows' first")
        folder.mkdir(exist_ok=True)
        shutil.copy2(BUILD / name, folder / new_name)

    def down(self, keep_logs=False):
        """Ends and removes everything; with `keep_logs` the logs of daemon, substitutes and clients stay."""
        logs = [self.journal.path, self.substitutes / "sessions.txt", *self.log.files()]
        if keep_logs:
            for path in logs:
                if path.exists() and path.parent != self.directory:
                    shutil.copy2(path, self.directory)
        try:
            self.prefix.down()
        finally:
            try:
                self.filters.down()
            finally:
                self.network.down()
        for client in self.clients:
            client.process.wait(10)
        if keep_logs:
            shutil.rmtree(self.application, ignore_errors=True)
        else:
            shutil.rmtree(self.directory)

    def ends_of_logs(self, lines=30):
        """(title, text) of each log: what happened last."""
        return [(path.name, "\n".join(read_log(path).splitlines()[-lines:]))
                for path in [self.journal.path, self.filters.log, *self.log.files()] if path.exists()]

    def finish(self):
        """The last part of every test: the service stops in order if it runs, and left nothing unexpected behind."""
        if self.daemon_pids() and self.state() == RUNNING:
            self.stop()
        wait_for(lambda: not self.daemon_pids(), 40, "the end of the daemon")
        reports = self.journal.calls("SetServiceStatus")
        assert not reports or reports[-1]["state"] == STOPPED, "the daemon has ended without a report of it"
        self.log.check()
        self.filters.check()
        # What crashes before that is one of Wine's own programs at the start, and none of ours.
        _, _, output = self.prefix.output.read_text(errors="replace").partition('{"ready":true}')
        assert not any(mark in output for mark in CRASH_MARKS), output[-4000:]

    # Sessions

    def set_sessions(self, *lines):
        """The sessions of the machine from now on, a line each: "1 active alice", or "fail 5"."""
        self._replace(self.substitutes / "sessions.txt", lines)

    def set_process_sessions(self, sessions):
        """The sessions of processes that are not the daemon's: {Windows pid: session}."""
        lines = [f"{pid} {session}" for pid, session in sessions.items()]
        self._replace(self.substitutes / "process-sessions.txt", lines)

    def plan_failures(self, *lines):
        """The calls that fail or are slow from now on, counted anew; none: all work again.

        "FUNCTION WHICH ERROR" or "FUNCTION WHICH delay MS" each.
        """
        # The text has to change, or the counts would go on.
        self._replace(self.substitutes / "faults.txt", [f"# plan {next(self._plans)}", *lines])

    def plan_packets(self, *lines):
        """What happens to packets from now on: "reorder 10 3", "full 100 50" (docs/bench.md); none: they just pass."""
        self._replace(self.substitutes / "packets.txt", lines)

    def firewall_rules(self):
        """The rules of the Windows Firewall, in the order in which they were added."""
        path = self.substitutes / "firewall-rules.json"
        return json.loads(path.read_text(encoding="utf-8")) if path.exists() else []

    def forget_firewall_rules(self):
        (self.substitutes / "firewall-rules.json").unlink(missing_ok=True)

    @staticmethod
    def _replace(path, lines):
        new = path.with_suffix(".new")
        new.write_text("".join(line + "\n" for line in lines), encoding="utf-8")
        new.rename(path)

    # Clients

    def client(self, session=1, *, heartbeat=True, options=()):
        """Connects a client; it has got its "connected" event."""
        client = self.connect(session, heartbeat=heartbeat, options=options)
        client.expect({"event": "connected"})
        return client

    def connect(self, session=1, *, heartbeat=True, options=()):
        """Starts a client and does not wait for it."""
        words = list(options) + ([] if heartbeat else ["--no-heartbeat"])
        client = Client(self.prefix, self.application / "ruvoctl.exe", session,
                        self.directory / f"client-{next(self._numbers)}.log", words, self.log, self._note_log)
        self.clients.append(client)
        return client

    def ruvoctl(self, *arguments, timeout=40):
        """Runs ruvoctl to its end."""
        return self.prefix.run(self.application / "ruvoctl.exe", *arguments, timeout=timeout)

    def _note_log(self, path):
        if path.startswith("Z:"):
            self.log.add(self.directory, os.path.relpath(path[2:].replace("\\", "/"), self.directory))

    def log_path(self, name="daemon.log"):
        """A file of this bench for the "log-path" of a client-hello."""
        return windows_path(self.directory / "logs" / name)


def remove(directory):
    """Removes what an earlier run left in a directory of a bench, with the programs that still run there."""
    if (directory / "prefix").exists():
        Prefix(directory / "prefix").down()
    shutil.rmtree(directory, ignore_errors=True)


def remove_abandoned():
    """Removes the prefixes of runs whose process is gone; logs that they left stay."""
    for owner in OUTPUT.glob("*/owner"):
        if not processes.is_alive(int(owner.read_text(encoding="ascii"))) and (owner.parent / "prefix").exists():
            Prefix(owner.parent / "prefix").down()
