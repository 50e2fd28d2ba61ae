"""DNS and IPv6 of other programs while the tunnel is up, with real programs on the machine and servers outside."""

import json
import os
import shutil
import signal
import socket
import subprocess
import time

import pytest

from bench import core, leaks, programs, sockets, traffic, tunnel
from bench.network import GATEWAY6, SERVER6, SERVER_NETWORK6, UPLINK_ADDRESSES, ip
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

UPLINK = UPLINK_ADDRESSES[0]
WSAEACCES = 10013
RESOLVER = "8.8.8.8"
PORT_OF_HOST = 7000
# What another program tries, and of that what leads around the tunnel.
AROUND = {"a question from the uplink's address", "the same by TCP", "a question to a bypassed resolver",
          "IPv6 to a server outside"}
THROUGH = {"a question through the tunnel"}
ANSWERED = {"IPv6 that a machine outside has begun"}


@pytest.fixture
def way_for_ipv6(bench):
    """The Internet has IPv6: servers behind the gateway can be reached."""
    ip("-n", bench.network.name("host"), "-6", "route", "add", SERVER_NETWORK6, "via", GATEWAY6)


def is_answered(command, expected):
    done = subprocess.run(command, capture_output=True, text=True, timeout=30, check=False)
    return done.returncode == 0 and done.stdout.split() == expected


def dig(enter, *options, server=RESOLVER):
    """Whether a resolver answers dig, started by way of `enter`."""
    return is_answered([*enter, "dig", "+short", "+tries=1", "+time=2", *options, f"@{server}", "web.test"],
                       [traffic.SERVER])


def answers_over_ipv6(enter):
    """Whether the echo server outside answers a datagram of a program, started by way of `enter`."""
    script = (f"import socket; s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM); s.settimeout(2)\n"
              f"s.sendto(b'hello', ('{SERVER6}', {traffic.ECHO[1]})); print(s.recv(100).decode())")
    return is_answered([*enter, "/usr/bin/python3", "-c", script], ["hello"])


def answers_a_machine_outside(bench):
    """Whether a program of the machine that listens gets an answer to a connection over IPv6 out."""
    with sockets.in_namespace(bench, "host", lambda: socket.create_server(
            ("::", PORT_OF_HOST), family=socket.AF_INET6)) as listener:
        with sockets.tcp(bench, (leaks.SOURCE6, PORT_OF_HOST), "net") as outside:
            accepted, _ = listener.accept()
            with accepted:
                outside.sendall(b"a question")
                assert accepted.recv(100) == b"a question"
                accepted.sendall(b"an answer")
                outside.settimeout(2)
                try:
                    return outside.recv(100) == b"an answer"
                except TimeoutError:
                    return False


def what_works(bench, stand_in=None):
    """Of what a program tries, that which gets an answer. It is another program, or stands for one of the product's."""
    enter = bench.filters.enter_as(stand_in) if stand_in else bench.network.enter("host")
    tried = {
        "a question from the uplink's address": dig(enter, "-b", UPLINK),
        "the same by TCP": dig(enter, "-b", UPLINK, "+tcp"),
        "a question to a bypassed resolver": dig(enter),
        "IPv6 to a server outside": answers_over_ipv6(enter),
        "a question through the tunnel": dig(enter, server="10.6.7.2"),
        "IPv6 that a machine outside has begun": answers_a_machine_outside(bench),
    }
    return {name for name, worked in tried.items() if worked}


def test_another_program_reaches_resolvers_through_the_tunnel_alone(running, way_for_ipv6, core_client):
    """Each leak is there without the filters; in the same place, by the same program, it is not with them."""
    assert what_works(running) == AROUND | ANSWERED, "without a tunnel"

    running.plan_failures("FwpmEngineOpen0 * 1764")
    running.log.expect(r"^Failed to open WFP engine: 1764$")
    running.log.expect(r"^Warning: Failed to initialize firewall manager \(continuing without firewall rules\)$")
    tunnel.start(core_client)
    assert what_works(running) == AROUND | THROUGH | ANSWERED, "with a tunnel that has no filters"
    tunnel.stop(core_client)
    running.plan_failures()

    tunnel.start(core_client)
    assert what_works(running) == THROUGH | ANSWERED
    # The core asks for whoever uses the tunnel, from the uplink's address.
    core.wait_for_taken(core_client, "direct", "udp", f"{RESOLVER}:53")
    # What stands for it may all of it by itself, and so may the desktop app.
    for name in ("core", "app"):
        assert what_works(running, name) == AROUND | THROUGH | ANSWERED, name
    tunnel.stop(core_client)
    assert what_works(running) == AROUND | ANSWERED, "after the tunnel"


def test_ipv6_of_another_program_leaves_only_where_it_may(running, way_for_ipv6):
    """Nowhere while it is blocked; else as IPv4 does."""
    tunnel.expect_in_log(running)
    client = running.client()
    tunnel.start(client)
    host = running.network.name("host")
    with sockets.udp(running, bind=("::", 0)) as endpoint:
        def leaves(interface, port):
            way = ["dev", interface] if interface == tunnel.INTERFACE else ["via", GATEWAY6]
            ip("-n", host, "-6", "route", "replace", SERVER_NETWORK6, *way)
            try:
                return endpoint.sendto(b"hello", (SERVER6, port)) == 5
            except PermissionError:
                return False

        cells = [(interface, port) for interface in ("uplink", tunnel.INTERFACE) for port in (53, 443)]
        assert [cell for cell in cells if leaves(*cell)] == []
        block, = [each["id"] for each in running.filters.filters() if each["description"] == "block ipv6"]
        running.filters.delete_behind_back(block)
        assert [cell for cell in cells if not leaves(*cell)] == [("uplink", 53)]
        tunnel.stop(client)
        assert leaves("uplink", 53)


def windows_error(bench, name, *words):
    """The error with which a client under Wine fails that lies under `name` beside the daemon; 0 if it does not."""
    program = bench.application / name
    if not program.exists():
        shutil.copy2(programs.NETCLIENT, program)
    result = bench.prefix.run(program, *words)
    last = json.loads(result.stdout.splitlines()[-1])
    assert (last["event"] == "failed") == (result.status != 0), result
    return last.get("error", 0)


def test_programs_of_windows_fare_like_others(running, way_for_ipv6, servers):  # pylint: disable=unused-argument
    tunnel.expect_in_log(running)
    around = (("tcp", RESOLVER, 53), ("udp", SERVER6, traffic.ECHO[1], "hello"))

    def errors(name):
        return [windows_error(running, name, *words) for words in around]

    assert errors("other.exe") == errors("Ruvo.exe") == [0, 0], "without a tunnel"
    client = running.client()
    tunnel.start(client)
    assert (errors("other.exe"), errors("Ruvo.exe")) == ([WSAEACCES, WSAEACCES], [0, 0])
    tunnel.stop(client)
    assert errors("other.exe") == [0, 0], "after the tunnel"


class Phases:
    """What happened when; each phase ends where the next begins."""

    def __init__(self):
        self._begins = []

    def begin(self, name, at=None):
        self._begins.append((name, at or time.time()))

    def end(self):
        self.begin(None)

    def rows(self):
        """(name, begin, end) of each."""
        times = [at for _, at in self._begins]
        assert times == sorted(times), self._begins
        return [(name, begin, end) for (name, begin), end in zip(self._begins, times[1:])]


def observe(seconds):
    """Lets the prober go on."""
    time.sleep(seconds)


def tell(phases, probes):
    """Prints a table: of each kind of probe, how many were sent and how many arrived."""
    print(f"\n{'':46}{'':>10}" + "".join(f"{kind:>14}" for kind in leaks.KINDS))
    for name, begin, end in phases.rows():
        counts = leaks.count(probes, begin, end)
        print(f"{name:46}{(end - begin) * 1000:7.0f} ms" +
              "".join(f"{arrived:>7} of {sent:<4}" for sent, arrived in counts.values()))


def assert_all_arrive(probes, begin, end):
    """The prober's questions get out where nothing keeps them: what it says of filters means something."""
    for kind, (sent, arrived) in leaks.count(probes, begin, end).items():
        assert sent > 10 and arrived == sent, f"{kind}: {arrived} of {sent}"


def assert_none_arrives(prober, probes, begin, end):
    """Of what was sent after `begin`, nothing was there before `end`; and there was no other IPv6."""
    assert [probe for probe in probes if probe.sent >= begin and probe.arrived and probe.arrived < end] == []
    assert [packet for packet in prober.strangers() if begin <= packet.arrived < end] == []
    sent = [probe.sent for probe in probes if begin <= probe.sent < end]
    assert len(sent) > 0.5 * len(leaks.KINDS) * (end - begin) / leaks.PERIOD, "the prober was too slow"
    assert all(probe.error for probe in probes if probe.kind != "tcp" and begin <= probe.sent < end)


def filters_in_force(bench):
    """When the last of the filters that there are was in force."""
    assert len(bench.filters.filters()) == tunnel.FILTERS
    return bench.filters.changes()[-1]["time"]


def first_call_of_cleanup(bench, after):
    """When the daemon began to take away what it had made, after so many entries of the journal."""
    names = ("CoInitializeEx", "CoCreateInstance", "INetFwRules::Remove", "FwpmFilterDeleteById0")
    return next(entry for entry in bench.journal.entries()[after:] if entry["call"] in names)["time-ms"] / 1000


def allow_resets(bench):
    bench.log.allow(r"^\[RESET\] (Interface metric: |🔍 Checking if WFP filters survived connection reset)")


def test_nothing_leaks_from_the_last_filter_to_the_first_call_of_the_clean_up(running, core_client):
    allow_resets(running)
    core.allow_kill(running)
    phases = Phases()
    with leaks.Prober(running) as prober:
        phases.begin("no tunnel")
        observe(1)
        changes = len(running.filters.changes())
        phases.begin("the start is asked for")
        tunnel.start(core_client)
        answered = time.time()
        phases.begin("the first filter is in force", running.filters.changes()[changes]["time"])
        applied = filters_in_force(running)
        phases.begin("the last filter is in force", applied)
        phases.begin("the start is answered", answered)
        observe(1)
        phases.begin("a name is asked for through the tunnel")
        assert traffic.dig(running, "web.test") == [traffic.SERVER]
        phases.begin("three resets")
        for _ in range(3):
            assert core_client.request("reset-connections")["status"] == "success"
            observe(0.4)
        observe(1)  # until the last of them is over
        phases.begin("the core is killed")
        core.kill(running, core_client)
        observe(1)
        phases.begin("the core comes back")
        core.start(running, core_client)
        wait_for(lambda: traffic.dig(running, "other.test") == [traffic.SERVERS[1]], 20, "a name through the tunnel")
        entries, changes = len(running.journal.entries()), len(running.filters.changes())
        phases.begin("the stop is asked for")
        tunnel.stop(core_client)
        stopped = time.time()
        cleanup = first_call_of_cleanup(running, entries)
        phases.begin("the clean-up has begun", cleanup)
        phases.begin("the first filter is gone", running.filters.changes()[changes]["time"])
        open_again = running.filters.changes()[-1]["time"]
        phases.begin("the last filter is gone", open_again)
        phases.begin("the stop is answered", stopped)
        observe(1)
        phases.end()
    probes = prober.probes()
    tell(phases, probes)
    spans = {name: (begin, end) for name, begin, end in phases.rows()}
    assert_all_arrive(probes, *spans["no tunnel"])
    assert_none_arrives(prober, probes, applied, cleanup)
    assert_all_arrive(probes, *spans["the stop is answered"])


def test_a_killed_daemon_keeps_everything_in_until_it_is_gone(tunnel_bench):
    """Its filters go with it, and nothing else has to be done for that."""
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    bench.firewall_rules_that_stay = bench.firewall_rules()
    phases = Phases()
    # It waits for a probe of each kind to arrive: that they do without filters is what the other test sees.
    with leaks.Prober(bench, arrives=False) as prober:
        phases.begin("the tunnel is up")
        observe(1)
        changes = len(bench.filters.changes())
        phases.begin("the daemon is killed")
        os.kill(bench.daemon_pid(), signal.SIGKILL)
        wait_for(lambda: not bench.filters.filters(), 10, "the end of the filters", interval=0.01)
        phases.begin("the first filter is gone", bench.filters.changes()[changes]["time"])
        phases.begin("the last filter is gone", bench.filters.changes()[-1]["time"])
        observe(1)
        phases.end()
    assert bench.filters.sessions() == bench.filters.sublayers() == []
    client.wait_closed()
    wait_for(lambda: not tunnel.adapters(bench), 15, "the end of the adapter")
    bench.start()  # so that a daemon can stop in order, and the routes go
    probes = prober.probes()
    tell(phases, probes)
    spans = {name: (begin, end) for name, begin, end in phases.rows()}
    assert_none_arrives(prober, probes, spans["the tunnel is up"][0], spans["the daemon is killed"][0])
    assert_all_arrive(probes, *spans["the last filter is gone"])
