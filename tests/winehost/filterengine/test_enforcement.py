"""Filters and real traffic: an engine in a namespace, programs of it, and servers beyond an uplink and a tunnel."""

import itertools
import json
import os
import signal
import socket
import subprocess
import threading
from pathlib import Path

import pytest

from bench import processes, sockets
from bench.filters import Filters, remove_abandoned
from bench.network import Network, ip
from bench.waiting import wait_for
from filterengine import cgroups, check

ATTEMPTS = Path(__file__).with_name("attempts.py")
KEY = "{5F1C6E0A-7D0E-4C43-93D0-0B6B5B3C7A11}"
# Interface: the address of the other end, for IPv4 and IPv6.
ENDS = {"uplink": ("192.0.2.1", "2001:db8:3::1"), "tunnel": ("10.6.7.1", "fd00:6::1"), "lo": ("127.0.0.1", "::1")}
PORTS = (53, 5000)
PROGRAMS = ("other", "core", "app", "wine")


class Echo:
    """Answers on some ports of a namespace, by TCP and UDP, IPv4 and IPv6."""

    def __init__(self, bench, role, ports=PORTS):
        self._sockets = sockets.in_namespace(bench, role, lambda: [self._open(kind, port) for port in ports
                                                                   for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM)])
        for made in self._sockets:
            serve = self._answer if made.type == socket.SOCK_DGRAM else self._accept
            threading.Thread(target=serve, args=(made,), daemon=True).start()

    @staticmethod
    def _open(kind, port):
        made = socket.socket(socket.AF_INET6, kind)
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        made.bind(("::", port))
        if kind == socket.SOCK_STREAM:
            made.listen(64)
        return made

    @staticmethod
    def _answer(made):
        try:
            while True:
                data, sender = made.recvfrom(2000)
                if not data:
                    return
                made.sendto(data, sender)
        except OSError:
            return

    @staticmethod
    def _accept(made):
        try:
            while True:
                connection, _ = made.accept()
                threading.Thread(target=Echo._carry, args=(connection,), daemon=True).start()
        except OSError:
            return

    @staticmethod
    def _carry(connection):
        with connection:
            try:
                while data := connection.recv(2000):
                    connection.sendall(data)
            except OSError:
                return

    def close(self):
        for made in self._sockets:
            try:
                made.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # a datagram socket is woken all the same
            made.close()


class Machine:
    """Namespaces `host` and `net` with two links, servers at all their ends, and an engine."""

    def __init__(self, folder):
        self.network = Network(("host", "net"))
        self.filters = Filters(self.network, folder / "Ruvo Client", folder / "filters.log")
        self._echoes = []

    def up(self):
        self.network.up()
        host, net = self.network.name("host"), self.network.name("net")
        ip("link", "add", "tunnel", "netns", host, "type", "veth", "peer", "name", "tunnel0", "netns", net)
        for name, device, addresses in ((host, "tunnel", ("10.6.7.2/24", "fd00:6::2/64")),
                                        (net, "tunnel0", ("10.6.7.1/24", "fd00:6::1/64"))):
            for address in addresses:
                ip("-n", name, "address", "add", address, "dev", device, *(["nodad"] if ":" in address else []))
            ip("-n", name, "link", "set", device, "up")
        self.filters.up()
        self._echoes = [Echo(self, role) for role in ("host", "net")]

    def down(self):
        for echo in self._echoes:
            echo.close()
        self.filters.down()
        self.network.down()

    def enter(self, program):
        return self.network.enter("host") if program == "other" else self.filters.enter_as(program)

    def interface(self, name):
        return json.loads(ip("-json", "-n", self.network.name("host"), "link", "show", name))[0]["ifindex"]

    def attempt(self, program, attempts):
        """What comes of attempts (attempts.py) of a native program."""
        done = subprocess.run([*self.enter(program), "/usr/bin/python3", "-B", ATTEMPTS, json.dumps(attempts)],
                              capture_output=True, text=True, timeout=60, check=True)
        return json.loads(done.stdout)

    def table(self, program):
        """Each cell's outcome: {(interface, family, kind, port): "answered" or "refused"}."""
        cells = [(name, family, kind, port) for name, family, kind, port
                 in itertools.product(ENDS, (4, 6), ("tcp", "udp"), PORTS)]
        asked = [(kind, ENDS[name][family == 6], port) for name, family, kind, port in cells]
        return dict(zip(cells, self.attempt(program, asked), strict=True))


@pytest.fixture(scope="module")
def machine(tmp_path_factory):
    made = Machine(tmp_path_factory.mktemp("engine"))
    try:
        made.up()
        yield made
    finally:
        made.down()


class Session:
    """An open session with a sublayer; what it adds is gone with it."""

    def __init__(self, machine):
        self.connection = machine.filters.client()
        self.connection.call("open", dynamic=True, name="s")
        self.connection.call("sublayer-add", key=KEY, name="l", weight=65535)

    def add(self, layer, weight, action, field=None, value=None):
        conditions = [{"field": field, "value": value}] if field else []
        return self.connection.call("filter-add", layer=layer, sublayer=KEY, name="f", weight=weight, action=action,
                                    conditions=conditions)["id"]


@pytest.fixture
def session(machine):
    made = Session(machine)
    yield made
    made.connection.close()
    wait_for(lambda: not machine.filters.sessions(), 5, "the end of the session")


def strict_route(session, machine, block_ipv6):
    """Filters as a strict route has them; a program, a family and an interface that no filter names differ."""
    tunnel = machine.interface("tunnel")
    for program in ("daemon", "core", "app"):
        for layer in ("connect-v4", "connect-v6", "accept-v4", "accept-v6"):
            session.add(layer, 13, "permit", "app-id", machine.filters.app_id(program))
    if block_ipv6:
        session.add("connect-v6", 12, "block")
    for layer in ("connect-v4", "connect-v6"):
        session.add(layer, 11, "permit", "interface-index", tunnel)
    for layer in ("connect-v4", "connect-v6"):
        session.add(layer, 10, "block", "remote-port", 53)


def odd_filters(session, machine, _):
    """Blocks of other kinds: a program, an interface, two ports, all but one port."""
    session.add("connect-v4", 9, "block", "interface-index", machine.interface("tunnel"))
    session.add("connect-v4", 10, "permit", "remote-port", 53)
    session.add("connect-v4", 8, "block", "app-id", machine.filters.app_id("app"))
    session.add("connect-v6", 9, "block", "app-id", machine.filters.app_id("core"))
    session.add("connect-v6", 5, "block", "interface-index", machine.interface("lo"))
    session.add("connect-v6", 12, "permit", "remote-port", 5000)


def expected(machine, program):
    """The table as the arbitration has it; who is no program of the product is "any.exe"."""
    if program == "wine":
        return {cell: "answered" for cell in itertools.product(ENDS, (4, 6), ("tcp", "udp"), PORTS)}
    path = r"Z:\any.exe" if program == "other" else program
    return {(name, family, kind, port): "answered" if machine.filters.would_pass(
        path, family, machine.interface(name), port) else "refused"
            for name, family, kind, port in itertools.product(ENDS, (4, 6), ("tcp", "udp"), PORTS)}


def assert_all_open(machine, programs=("other",)):
    for program in programs:
        assert set(machine.table(program).values()) == {"answered"}, program


@pytest.mark.parametrize("program", PROGRAMS)
def test_without_filters_everything_passes(machine, program):
    assert set(machine.table(program).values()) == {"answered"}


@pytest.mark.parametrize("filters, block_ipv6", ((strict_route, True), (strict_route, False), (odd_filters, None)),
                         ids=("strict, IPv6 blocked", "strict", "odd"))
def test_traffic_fares_as_the_arbitration_says(machine, session, filters, block_ipv6):
    filters(session, machine, block_ipv6)
    tables = {program: machine.table(program) for program in PROGRAMS}
    assert tables == {program: expected(machine, program) for program in PROGRAMS}
    assert any(outcome == "refused" for table in tables.values() for outcome in table.values())
    session.connection.call("close")
    assert_all_open(machine, PROGRAMS)


def test_a_strict_route_in_full(machine, session):
    """Not compared with the arbitration but with what is to be."""
    strict_route(session, machine, True)
    refused = {cell for cell, outcome in machine.table("other").items() if outcome == "refused"}
    assert refused == {(name, family, kind, port) for name, family, kind, port
                       in itertools.product(ENDS, (4, 6), ("tcp", "udp"), PORTS)
                       if family == 6 or (port == 53 and name != "tunnel")}
    assert_all_open(machine, ("core", "app", "wine"))


def test_each_change_is_in_force_with_its_answer(machine, session):
    """Added and deleted a hundred times, looked at each time right away."""
    address = (ENDS["uplink"][0], 53)
    with sockets.udp(machine) as probe:
        for _ in range(100):
            number = session.add("connect-v4", 10, "block", "remote-port", 53)
            with pytest.raises(PermissionError):
                probe.sendto(b"x", address)
            session.connection.call("filter-delete", id=number)
            assert probe.sendto(b"x", address) == 1


def test_echo_requests(machine, session):
    pings = [("ping", ENDS["uplink"][0]), ("ping", ENDS["uplink"][1]), ("ping", ENDS["tunnel"][1])]
    assert machine.attempt("other", pings) == ["answered"] * 3
    strict_route(session, machine, True)
    assert machine.attempt("other", pings) == ["answered", "refused", "refused"]
    assert machine.attempt("core", pings) == ["answered"] * 3


@pytest.mark.parametrize("before", (True, False), ids=("taken before", "taken after"))
def test_ipv6_connections_that_others_have_made_live_on(machine, session, before):
    """Their answers are no connections of this machine; those of an endpoint of datagrams are not either."""
    if not before:
        session.add("connect-v6", 12, "block")
    with sockets.tcp(machine, ("2001:db8:3::2", 5000), "net") as stream, sockets.udp(machine, "net", ("::", 0)) as datagrams:
        datagrams.connect(("2001:db8:3::2", 5000))
        if before:
            for connection in (stream, datagrams):
                connection.sendall(b"before")
                assert connection.recv(100) == b"before"
            session.add("connect-v6", 12, "block")
        for number in range(3):
            for connection in (stream, datagrams):
                connection.sendall(b"%d" % number)
                assert connection.recv(100) == b"%d" % number
    assert machine.attempt("other", [("udp", ENDS["uplink"][1], 5000)]) == ["refused"]


def test_ipv6_connections_of_this_machine_are_cut(machine, session):
    """Streams end, datagrams stop, although the other end goes on answering."""
    with sockets.tcp(machine, (ENDS["uplink"][1], 5000)) as stream, sockets.udp(machine, bind=("::", 0)) as datagrams:
        datagrams.connect((ENDS["uplink"][1], 5000))
        for connection in (stream, datagrams):
            connection.sendall(b"before")
            assert connection.recv(100) == b"before"
        datagrams.sendall(b"in flight")  # its answer must not count as the beginning of a flow
        session.add("connect-v6", 12, "block")
        with pytest.raises((ConnectionResetError, ConnectionRefusedError)):
            stream.sendall(b"after")
            stream.recv(100)
        assert datagrams.recv(100) == b"in flight"
        for _ in range(3):
            with pytest.raises(PermissionError):
                datagrams.sendall(b"after")


def test_neighbours_are_still_found(machine, session):
    strict_route(session, machine, True)
    host = machine.network.name("host")
    ip("-n", host, "-6", "neigh", "flush", "dev", "uplink")
    assert machine.attempt("core", [("udp", ENDS["uplink"][1], 53)]) == ["answered"]


def test_a_killed_process_takes_its_filters_with_it(machine):
    script = ("import json, sys, time; from filterengine.client import Client; c = Client()\n"
              "c.call('open', dynamic=True, name='s')\n"
              f"c.call('sublayer-add', key='{KEY}', name='l')\n"
              f"for layer in ('connect-v4', 'connect-v6'): c.call('filter-add', layer=layer, sublayer='{KEY}', name='f', "
              "weight=1, action='block')\n"
              "print('up', flush=True); time.sleep(60)")
    holder = subprocess.Popen([*machine.network.enter("host"), "/usr/bin/python3", "-B", "-c", script],
                              cwd=ATTEMPTS.parents[1], stdout=subprocess.PIPE)
    with holder:
        try:
            assert holder.stdout.readline() == b"up\n"
            assert set(machine.table("other").values()) == {"refused"}
            assert len(machine.filters.filters()) == 2
        finally:
            os.kill(holder.pid, signal.SIGKILL)
        holder.wait(10)
    wait_for(lambda: not machine.filters.sessions(), 5, "the end of the session")
    assert machine.filters.filters() == machine.filters.sublayers() == []
    assert_all_open(machine)


def test_sessions_from_elsewhere_may_delete(machine, session):
    number = session.add("connect-v4", 10, "block", "remote-port", 53)
    other = session.add("connect-v4", 10, "block", "remote-port", 54)
    machine.filters.delete_behind_back(number)
    assert [each["id"] for each in machine.filters.filters()] == [other]
    assert machine.attempt("other", [("udp", ENDS["uplink"][0], 53)]) == ["answered"]


def test_the_engine_asks_the_kernel_for_the_interface(machine, session):
    def interface(remote, local, family=4):
        answer = session.connection.call("judge", program="p", family=family, direction="connect", local=local,
                                         remote=remote, port=53, protocol="udp")
        return answer["interface"]

    uplink, tunnel, lo = map(machine.interface, ("uplink", "tunnel", "lo"))
    assert [interface(remote, "0.0.0.0") for remote in ("8.8.8.8", "10.6.7.1", "127.0.0.1", "192.0.2.2")] == [
        uplink, tunnel, lo, lo]
    assert [interface(remote, "::", 6) for remote in ("2001:db8:3::1", "fd00:6::1", "::1")] == [uplink, tunnel, lo]
    assert interface("2001:db8:ffff::1", "::", 6) is None  # there is no route
    # By policy: what is bound to an address of the uplink leaves through it.
    ip("-n", machine.network.name("host"), "route", "add", "8.8.8.8/32", "via", "10.6.7.1")
    try:
        assert (interface("8.8.8.8", "0.0.0.0"), interface("8.8.8.8", "192.0.2.3")) == (tunnel, uplink)
    finally:
        ip("-n", machine.network.name("host"), "route", "del", "8.8.8.8/32", "via", "10.6.7.1")


def test_a_change_takes_little_time(machine, session):
    before = len(machine.filters.changes())
    strict_route(session, machine, True)
    changes = machine.filters.changes()[before:]
    slowest = max(change["seconds"] for change in changes)
    print(f"{len(changes)} changes of the kernel's rules, the slowest in {slowest * 1000:.2f} ms")
    # Of 17 filters: the blocks, and what comes after one of the same family.
    assert len(changes) == 4
    assert slowest < 0.1


def test_the_check_of_the_machine(machine, monkeypatch):
    assert sockets.in_namespace(machine, "host", check.problem) is None
    monkeypatch.setattr(check.Nftables, "enforce", lambda *_: None)
    assert "in the family ip passes" in sockets.in_namespace(machine, "host", check.problem)


def test_nothing_is_left(tmp_path):
    """Neither of an engine that ends nor of one that was killed, nor of the programs in its groups."""
    made = Machine(tmp_path)
    try:
        made.up()
        sleeper = subprocess.Popen([*made.filters.enter_as("core"), "sleep", "60"])
        wait_for(lambda: processes.command_line(sleeper.pid)[:1] == ["sleep"], 5, "the program in the group")
        made.filters.down()
        assert sleeper.wait(10) == -signal.SIGKILL
        host = made.network.enter("host")
        listing = subprocess.run([*host, "nft", "list", "tables"], capture_output=True, text=True, check=True)
        assert listing.stdout == ""
        made.filters.up()
        owner = made.filters.pid()
        sleeper = subprocess.Popen([*made.filters.enter_as("core"), "sleep", "60"])
        wait_for(lambda: processes.command_line(sleeper.pid)[:1] == ["sleep"], 5, "the program in the group")
        os.kill(owner, signal.SIGKILL)
        made.filters.down()
        assert owner in cgroups.owners()
        remove_abandoned()
        assert sleeper.wait(10) == -signal.SIGKILL
        assert owner not in cgroups.owners()
    finally:
        made.down()
