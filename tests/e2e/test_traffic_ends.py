"""How connections through the tunnel begin and end: banners, half-closes, resets, servers that refuse or are mute."""

import os
import socket
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import both_ends, core, sockets, traffic, tunnel
from bench.both_ends import DIRECT_PORT, Sender
from bench.machine import volume
from bench.scripted_proxy import Connector
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

# Where the scripted proxies are.
PROXY, DIRECT = 30808, 40808
MUTE = "203.0.113.99"


def allow_direct(bench):
    bench.log.allow(r"^\[TCP-NAT\] Using DIRECT routing to ")


# Seconds. What the relay waits for elsewhere lasts longer: a peer that does not read, a proxy that does not answer (5),
# a server that does not (21). How fast the machine is at that moment must not count.
HELD_UP = 5


def downloads(bench, size=30_000_000):
    """The speeds of three, on new connections, which therefore meet more than one of the relay's threads."""
    speeds = [traffic.download(bench, size) for _ in range(3)]
    assert min(speeds) > size / HELD_UP
    return speeds


def expect_full_speed(bench, alone, beside):
    """Half of the speed alone is reached. Others use the machine for moments: there are several looks."""
    speeds = []
    while max(speeds, default=0) <= 0.5 * alone and len(speeds) < 12:
        speeds += downloads(bench)
    print(f"\n{alone * 8e-6:.0f} Mbit/s alone, {max(speeds) * 8e-6:.0f} in one of {len(speeds)} beside {beside}")
    assert max(speeds) > 0.5 * alone


@pytest.fixture
def proxy(running):
    """A tunnel to a scripted proxy."""
    tunnel.expect_in_log(running)
    running.log.allow(r"^\[TCP-NAT\] Listening on ")
    client = running.client()
    with Connector(running, PROXY) as made:
        tunnel.start(client, proxy_port=PROXY, direct_port=DIRECT)
        yield made
        tunnel.stop(client)


@pytest.mark.usefixtures("tunnel_client")
def test_a_server_that_speaks_first_is_heard(running):
    for address in (traffic.SERVERS[0], traffic.SERVERS[1]):
        assert traffic.identity(running, (address, 9001)) == f"{address}:9001"


@pytest.mark.parametrize("size", [1, 500, 100_000])
def test_a_banner_right_behind_the_proxys_reply_arrives_whole(running, size):
    banner = os.urandom(size)
    tunnel.expect_in_log(running)
    running.log.allow(r"^\[TCP-NAT\] Listening on ")
    client = running.client()
    with Connector(running, PROXY, behind_reply=banner) as proxy:
        tunnel.start(client, proxy_port=PROXY, direct_port=DIRECT)
        with sockets.tcp(running, (traffic.SERVER, 25)) as connection:
            assert both_ends.receive(connection, size) == banner
            proxy.take().sendall(b"and more")
            assert both_ends.receive(connection, 8) == b"and more"
        tunnel.stop(client)


@pytest.mark.usefixtures("tunnel_client")
def test_the_servers_end_comes_behind_its_last_byte(running):
    size = 20_000_000
    with both_ends.connections(running) as [(client, server)]:
        sender = Sender(server, size)
        both_ends.expect_known(client, size - 5_000_000)  # the rest lies in between when the end comes
        sender.finish()
        server.shutdown(socket.SHUT_WR)
        rest, error = both_ends.receive_all(client)
        assert (len(rest), error) == (5_000_000, None)


@pytest.mark.usefixtures("tunnel_client")
def test_what_came_before_a_client_closed_its_half_is_not_lost(running):
    allow_direct(running)
    for port in (both_ends.PORT, DIRECT_PORT):
        with both_ends.connections(running, port=port) as [(client, server)]:
            client.sendall(b"a question")
            assert both_ends.receive(server, 10) == b"a question"
            Sender(server, 50_000).finish()
            wait_for(lambda end=client: sockets.waiting_bytes(end) == 50_000, 20, "the answer to be there, unread")
            client.sendall(b"the last words")
            client.shutdown(socket.SHUT_WR)
            received, error = both_ends.receive_all(client)
            assert (len(received), error) == (50_000, None) and both_ends.is_known(received)
            assert both_ends.receive(server, 14) == b"the last words"
            # The core keeps to itself that its client will say no more as long as the server might.
            if port == DIRECT_PORT:
                assert both_ends.receive_all(server) == (b"", None)


@pytest.mark.usefixtures("tunnel_client")
def test_a_client_that_closes_its_half_in_the_middle_of_a_download_gets_a_beginning_of_it(running):
    allow_direct(running)
    with both_ends.connections(running, port=DIRECT_PORT) as [(client, server)]:
        sender = Sender(server, 100_000_000)
        both_ends.receive(client, 1_000_000)
        held = sender.wait_until_blocked()
        client.shutdown(socket.SHUT_WR)
        rest, _ = both_ends.receive_all(client)
        print(f"\n{1_000_000 + len(rest)} bytes came, {held} had been sent when the client closed its half")
        assert len(rest) > 0


@pytest.mark.usefixtures("tunnel_client")
def test_a_servers_reset_is_a_reset_for_the_client(running):
    allow_direct(running)
    with both_ends.connections(running, port=DIRECT_PORT) as [(client, server)]:
        server.sendall(b"x" * 1000)
        assert both_ends.receive(client, 1000) == b"x" * 1000
        sockets.reset(server)
        both_ends.expect_reset(client)


def test_a_download_that_the_proxy_cuts_does_not_look_complete(running, proxy):
    with sockets.tcp(running, (traffic.SERVER, 80)) as client:
        onward = proxy.take()
        onward.sendall(b"x" * 1000)
        assert both_ends.receive(client, 1000) == b"x" * 1000
        sockets.reset(onward)
        both_ends.expect_reset(client)


@pytest.mark.usefixtures("tunnel_client")
def test_a_clients_reset_is_a_reset_for_the_server(running):
    allow_direct(running)
    with both_ends.connections(running, port=DIRECT_PORT) as [(client, server)]:
        client.sendall(b"x" * 1000)
        assert both_ends.receive(server, 1000) == b"x" * 1000
        sockets.reset(client)
        both_ends.expect_reset(server)


@pytest.mark.usefixtures("tunnel_client")
def test_stalled_downloads_hold_up_no_other_and_lose_nothing(running):
    count, size = 2 * os.cpu_count(), 20_000_000
    alone = max(downloads(running))
    with both_ends.connections(running, count) as pairs:
        senders = [Sender(server, size) for _, server in pairs]
        for sender in senders:
            assert sender.wait_until_blocked() < size
        expect_full_speed(running, alone, f"{count} stalled downloads")
        for (client, _), sender in zip(pairs, senders):
            both_ends.expect_known(client, size)
            sender.finish()


def open_to(bench, address, count):
    """Connections to the same address; the tunnel accepts them whatever is behind it."""
    with ThreadPoolExecutor(16, initializer=sockets.enter, initargs=(bench, "host")) as pool:
        return list(pool.map(lambda _: sockets.connect(address), range(count)))


def end_all(connections):
    for connection in connections:
        connection.close()


def test_many_servers_that_refuse_hold_up_no_other(running, tunnel_client):
    allow_direct(running)
    running.log.allow(r"^\[TCP-NAT\] Failed to connect directly to .* - Error: 10061$")
    count = volume(300, 100)
    through_core = open_to(running, (traffic.SERVER, 4), count)
    directly = open_to(running, (traffic.SERVER, DIRECT_PORT), count)
    try:
        # They are refused meanwhile, and take their share of the processors: half of the speed cannot be asked for.
        print(f"\n{max(downloads(running)) * 8e-6:.0f} Mbit/s beside {2 * count} refused connections")
        for connection in directly:
            both_ends.expect_reset(connection)
        # The core tells of success before it knows, and then ends the connection.
        for connection in through_core:
            assert both_ends.receive_all(connection)[0] == b""
    finally:
        end_all(through_core + directly)
    core.wait_for_taken(tunnel_client, "proxy", "tcp", f"{traffic.SERVER}:4")


@pytest.mark.usefixtures("tunnel_client")
def test_many_servers_that_never_answer_hold_up_no_other(running):
    allow_direct(running)
    running.log.expect(r"^\[TCP-NAT\] Failed to connect directly to 203\.0\.113\.99:53 - Error: 10060$")
    count = volume(300, 100)
    alone = max(downloads(running))
    with both_ends.connections(running) as [(client, server)]:
        mute = open_to(running, (MUTE, DIRECT_PORT), count) + open_to(running, (MUTE, 80), count)
        try:
            client.sendall(b"still there?")
            assert both_ends.receive(server, 12) == b"still there?"
            expect_full_speed(running, alone, f"{2 * count} unanswered connections")
            for connection in mute[:count]:
                connection.settimeout(40)
                both_ends.expect_reset(connection)
        finally:
            end_all(mute)


@pytest.mark.usefixtures("tunnel_client")
def test_two_live_connections_from_one_port_go_to_two_servers(running):
    first, second = [(address, traffic.ECHO[1]) for address in traffic.SERVERS]
    port = 45_678
    with sockets.tcp(running, first, port=port) as one, sockets.tcp(running, second, port=port) as other:
        assert one.getsockname() == other.getsockname()
        for number in range(100):
            for connection, text in ((one, f"first {number}"), (other, f"other {number}")):
                connection.sendall(text.encode())
            for connection, text in ((one, f"first {number}"), (other, f"other {number}")):
                assert both_ends.receive(connection, len(text)) == text.encode()
    # Each server has seen one of them.
    peers = [(address, 9001) for address in traffic.SERVERS]
    with sockets.tcp(running, peers[0], port=port) as one, sockets.tcp(running, peers[1], port=port) as other:
        for connection, (address, server_port) in ((one, peers[0]), (other, peers[1])):
            assert both_ends.receive_all(connection) == (f"{address}:{server_port}".encode(), None)
