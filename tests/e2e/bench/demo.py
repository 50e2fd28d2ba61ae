"""What scripts/run shows: the service on a bench, its clients, and what the daemon logs meanwhile."""

import argparse
import json
import os
import shlex
import signal
import subprocess
import sys
import time

from . import core, demo_traffic, processes, sweep, traffic, tunnel
from .demo_output import headline, say
from .filters import STAND_INS
from .machine import Bench
from .network import UPLINK_ADDRESSES
from .paths import ROOT
from .service import RUNNING, STOPPED
from .waiting import wait_for

DIRECTORY = ROOT / "build" / "run"
ROLES = ("host", "net", "guest")


class Show:
    """The steps, in the order in which they are shown."""

    def __init__(self):
        self.bench = Bench(DIRECTORY, ROLES)
        self._shown = 0
        self._printed = {}
        self._without_tunnel = []
        self._servers = None

    def show_log(self):
        """Prints what the daemon has logged since the last time."""
        lines = self.bench.log.lines()
        for line in lines[self._shown:]:
            say(f"   log  {line.time[11:]} {line.level}: {line.text}")
        self._shown = len(lines)

    def show_messages(self, client, name):
        """Prints what has come to a client since the last time."""
        messages = list(client.messages)
        for message in messages[self._printed.get(name, 0):]:
            say(f"   {name} <- {json.dumps(message)}")
        self._printed[name] = len(messages)

    def ask(self, client, name, action, **fields):
        """A request and its answer."""
        sent = {"action": action} | {key.replace("_", "-"): value for key, value in fields.items()}
        say(f"   {name} -> {json.dumps(sent)}")
        answer = client.request(action, **fields)
        self.show_messages(client, name)
        return answer

    def register_and_start(self):
        bench = self.bench
        headline("ruvod.exe --register; sc start RuvoService")
        result = bench.ruvod("--register")
        say(f"   {(result.stdout + result.stderr).strip()}")
        assert result.status == 0
        assert bench.sc("start").status == 0
        bench.wait_for_state(RUNNING)
        say("   " + "\n   ".join(line.strip() for line in bench.sc("query").stdout.splitlines()[:3]))
        self.show_log()

    def connect(self):
        headline("a client in session 1")
        client = self.bench.client(1)
        self.show_messages(client, "client 1")
        answer = self.ask(client, "client 1", "client-hello", log_path=self.bench.log_path(), version="2.0.1")
        assert answer["status"] == "success"
        assert self.ask(client, "client 1", "heartbeat")["status"] == "success"
        assert self.ask(client, "client 1", "Heartbeat")["error"] == "Unknown action: Heartbeat"
        say(f"   the daemon logs to {self.bench.log.path()} from now on")
        self.show_log()
        return client

    def log_on(self):
        headline("another user logs on, in session 2")
        self.bench.set_sessions("1 active alice", "2 active bob")
        start = time.monotonic()
        wait_for(lambda: self.bench.has_pipe(2), 10, "the pipe of session 2")
        say(f"   the pipe of session 2 is there after {time.monotonic() - start:.1f} s")
        client = self.bench.client(2)
        self.show_messages(client, "client 2")
        self.show_log()
        return client

    def start_core(self, client):
        headline("the real proxy core, started through the daemon")
        # The daemon's first sweep after its start takes a process for old that was started before it.
        self.bench.log.allow(r'Found stale process entry on startup: "core" - state: QProcess::Running')
        spec = core.configure(self.bench, send_through=UPLINK_ADDRESSES)
        assert self.ask(client, "client 1", "start", **spec)["status"] == "started"
        core.wait_until_up(client)
        self.show_messages(client, "client 1")
        assert self.ask(client, "client 1", "list")["processes"][0]["running"]
        self.show_log()

    def stop_core(self, client):
        headline("the core stops")
        if self.ask(client, "client 1", "list")["processes"]:
            assert self.ask(client, "client 1", "stop", process_id="core")["status"] == "stopping"
            client.expect({"event": "finished", "process-id": "core"})
        self.show_messages(client, "client 1")
        self.show_log()

    def show_machine(self, before):
        """Prints what has come to the machine's adapters, addresses and routes since `before`, and what has gone."""
        now = machine(self.bench)
        for line in [f"   +  {line}" for line in now if line not in before] + \
                    [f"   -  {line}" for line in before if line not in now]:
            say(line)
        return now

    def start_tunnel(self, client):
        headline("the tunnel: adapter, addresses and routes come")
        tunnel.expect_in_log(self.bench)
        self._without_tunnel = machine(self.bench)
        assert self.ask(client, "client 1", "start-tun")["success"]
        assert len(self.show_machine(self._without_tunnel)) > len(self._without_tunnel)
        assert self.ask(client, "client 1", "tun-status")["running"]
        self.show_log()

    def stop_tunnel(self, client):
        headline("the tunnel: adapter, addresses and routes go")
        with_tunnel = machine(self.bench)
        if self.ask(client, "client 1", "tun-status")["running"]:
            assert self.ask(client, "client 1", "stop-tun")["success"]
        assert self.show_machine(with_tunnel) == self._without_tunnel
        assert not self.ask(client, "client 1", "tun-status")["running"]
        self.show_log()

    def tell_clients(self, clients):
        headline("sc control RuvoService 128: the installer asks the clients to close")
        assert self.bench.control(128) == 0
        for number, client in clients.items():
            client.expect({"event": "shutdown"})
            self.show_messages(client, f"client {number}")
        assert self.bench.state() == RUNNING
        self.show_log()

    def stay(self, clients):
        """Shows what happens until Ctrl+C. What the user does meanwhile may be worth a warning."""
        self.bench.log.allow("")
        headline("up; Ctrl+C ends it")
        say(f"   log            {self.bench.log.path()}\n"
            f"   journal        {self.bench.journal.path}\n"
            f"   session list   {self.bench.substitutes / 'sessions.txt'}   (edit it: users log on and off)\n"
            f"   try            scripts/inside wine ruvoctl.exe --session 1 list\n"
            f"                  scripts/inside wine ruvoctl.exe --session 1 start-tun; scripts/inside ip route")
        while self.bench.daemon_pids():
            time.sleep(0.5)
            self.show_log()
            for number, client in clients.items():
                self.show_messages(client, f"client {number}")
        raise AssertionError("the daemon has ended")

    def use_tunnel(self, client):
        self._servers = traffic.Servers(self.bench)
        demo_traffic.show_traffic(self.bench, client, self._servers)
        self.show_messages(client, "client 1")
        self.show_log()

    def close(self, keep_logs):
        try:
            if self._servers:
                self._servers.close()
        finally:
            self.bench.down(keep_logs)

    def stop(self):
        headline("sc stop RuvoService; ruvod.exe --unregister")
        self.bench.stop()
        self.show_log()
        assert self.bench.state() == STOPPED
        result = self.bench.ruvod("--unregister")
        say(f"   {(result.stdout + result.stderr).strip()}")
        assert result.status == 0 and not self.bench.is_registered()
        self.bench.finish()


def machine(bench):
    """What a tunnel changes, a line each."""
    return ([f"adapter  {adapter.name}: {adapter.interface}, MTU {adapter.mtu}, metric {adapter.metric}"
             for adapter in tunnel.adapters(bench)]
            + [f"address  {address}" for address in tunnel.addresses(bench)]
            + [f"route    {route}" for route in tunnel.routes(bench)])


def write_state(bench):
    """What scripts/inside needs to know."""
    values = bench.prefix.environment() | {
        "RUVOD_BENCH_PID": os.getpid(), "RUVOD_NAMESPACES": bench.network.run, "RUVOD_APPLICATION": bench.application}
    values |= {f"RUVOD_GROUP_{name}": bench.filters.group(name) for name in STAND_INS}
    text = "".join(f"export {name}={shlex.quote(str(value))}\n" for name, value in values.items())
    (DIRECTORY / "bench.env").write_text(text, encoding="utf-8")


def refuse_second_run():
    owner = DIRECTORY / "owner"
    if owner.exists() and processes.is_alive(int(owner.read_text(encoding="ascii"))):
        sys.exit(f"error: the bench is already up (process {owner.read_text()}); end that one first")


def perform(show, once):
    headline("bringing the bench up: Wine, its service manager, the networks host, net and guest")
    show.bench.up()
    write_state(show.bench)
    show.bench.set_sessions("1 active alice")
    show.register_and_start()
    clients = {1: show.connect(), 2: show.log_on()}
    show.start_core(clients[1])
    show.start_tunnel(clients[1])
    show.use_tunnel(clients[1])
    show.tell_clients(clients)
    if not once:
        try:
            show.stay(clients)
        except KeyboardInterrupt:
            say("")
    # From here on Ctrl+C would only leave things behind.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    show.stop_tunnel(clients[1])
    show.stop_core(clients[1])
    show.stop()


def main():
    parser = argparse.ArgumentParser(prog="scripts/run")
    parser.add_argument("--once", action="store_true", help="end as soon as everything has been shown")
    once = parser.parse_args().once
    refuse_second_run()
    sweep.remove_abandoned()
    signal.signal(signal.SIGTERM, lambda *_: signal.raise_signal(signal.SIGINT))
    show = Show()
    worked = False
    try:
        perform(show, once)
        worked = True
    except KeyboardInterrupt:
        say("\ninterrupted")
    except (AssertionError, RuntimeError, OSError, subprocess.SubprocessError) as problem:
        say(f"\nerror: {problem or type(problem).__name__}")
    finally:
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        show.close(keep_logs=not worked)
    headline("everything worked, and nothing is left of it" if worked else f"it failed; the logs are in {DIRECTORY}")
    sys.exit(0 if worked else 1)


if __name__ == "__main__":
    main()
