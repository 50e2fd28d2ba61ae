"""Ports that are used again: a client's own and the tunnel's. No connection ever reaches another's server."""

import time

import pytest

from bench import both_ends, sockets, traffic
from bench.internet_server import IDENTITY_PORTS
from bench.machine import volume

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

SERVERS = [(address, port) for address in traffic.SERVERS for port in IDENTITY_PORTS]


def who(address, **options):
    """Who answers there, on a thread that is in its namespace."""
    with sockets.connect(address, **options) as connection:
        told, error = both_ends.receive_all(connection)
        assert error is None, (address, error)
        return told.decode()


@pytest.mark.usefixtures("tunnel_client")
def test_a_client_port_used_again_reaches_the_new_destination(running):
    def use_again():
        return [who(address, port=45_678) for _ in range(5) for address in SERVERS]
    assert sockets.in_namespace(running, "host", use_again) == [f"{address}:{port}" for address, port in SERVERS] * 5


@pytest.mark.usefixtures("tunnel_client")
def test_a_client_port_used_again_after_a_reset_reaches_the_new_destination(running):
    # The reset may come before the connection has been accepted.
    running.log.allow(r"^\[TCP-NAT\] AcceptEx completion failed$")
    def reset_and_use_again():
        for address in SERVERS:
            cut = sockets.connect((traffic.SERVER, traffic.ECHO[1]), port=45_678)
            cut.sendall(b"in the middle")
            sockets.reset(cut)
            yield who(address, port=45_678)
    told = sockets.in_namespace(running, "host", lambda: list(reset_and_use_again()))
    assert told == [f"{address}:{port}" for address, port in SERVERS]


@pytest.mark.timeout(1800)
@pytest.mark.usefixtures("tunnel_client")
def test_short_connections_in_a_row_reach_their_own_servers(running):
    count = volume(70_000, 5_000)
    before = running.counts()["handles"]

    def row():
        misdirected = []
        for number in range(count):
            address, port = SERVERS[number % len(SERVERS)]
            told = who((address, port))
            if told != f"{address}:{port}":
                misdirected.append((number, address, port, told))
        return misdirected

    began = time.monotonic()
    misdirected = sockets.in_namespace(running, "host", row)
    seconds = time.monotonic() - began
    after = running.counts()["handles"]
    print(f"\n{count} connections, {count / seconds:.0f} a second; handles {before} before, {after} after")
    assert misdirected == []
    assert after < before + 100
