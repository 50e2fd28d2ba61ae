"""Real UDP traffic through the tunnel: names from the direct inbound, all else from the proxy's."""

import socket
import struct
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import core, sockets, traffic, tunnel
from bench.machine import volume
from bench.scripted_proxy import Forwarder
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

RESOLVER = ("10.6.7.2", 53)
ECHO_TEXT = f"{traffic.ECHO[0]}:{traffic.ECHO[1]}"
# Where the proxies are that can fall silent.
PROXY, DIRECT = 30808, 40808


def taken_datagrams(client):
    return [(way, destination) for way, protocol, destination in core.taken(client) if protocol == "udp"]


def query(identity, name="web.test"):
    """A DNS query for an address."""
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack("!6H", identity, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack("!2H", 1, 1)


def is_answer(answer, identity):
    """Whether it answers that query with the address of web.test."""
    return answer[:2] == struct.pack("!H", identity) and answer.endswith(socket.inet_aton(traffic.NAMES["web.test"]))


def test_queries_to_the_tunnels_resolver_are_answered_by_the_direct_inbound(running, servers, tunnel_client):
    assert traffic.dig(running, "web.test") == [traffic.NAMES["web.test"]]
    assert traffic.dig(running, "missing.test") == []
    core.wait_for_taken(tunnel_client, "direct", "udp", "8.8.8.8:53")
    wait_for(lambda: servers.queries() == ["web.test", "missing.test"], 10, "the queries in the server's log")
    assert set(taken_datagrams(tunnel_client)) == {("direct", "8.8.8.8:53")}


def test_queries_over_tcp_go_to_the_resolver_directly(running, servers, tunnel_client):
    running.log.expect(r"^\[TCP-NAT\] Using DIRECT routing to 8\.8\.8\.8:53$")
    assert traffic.dig(running, "web.test", "+tcp") == [traffic.NAMES["web.test"]]
    wait_for(lambda: servers.queries() == ["web.test"], 10, "the query in the server's log")
    # Past the proxy: it has not seen it.
    assert core.taken(tunnel_client) == []


def test_datagrams_go_through_the_proxy_inbound_and_a_flow_has_one_association(running, tunnel_client):
    with sockets.udp(running) as one, sockets.udp(running) as other:
        for endpoint, associations in ((one, 1), (other, 2)):
            for payload in (b"one", b"two", b"x" * 1400):
                endpoint.sendto(payload, traffic.ECHO)
                assert endpoint.recvfrom(65535) == (payload, traffic.ECHO)
            wait_for(lambda expected=associations: taken_datagrams(tunnel_client) == [("proxy", ECHO_TEXT)] * expected,
                     10, f"{associations} associations in the core's log")
        # The first one's is still there.
        assert one.sendto(b"again", traffic.ECHO) and one.recvfrom(100) == (b"again", traffic.ECHO)
    assert taken_datagrams(tunnel_client) == [("proxy", ECHO_TEXT)] * 2


@pytest.mark.usefixtures("tunnel_client")
def test_answers_come_from_whom_the_datagram_was_sent_to(running):
    with sockets.udp(running) as endpoint:
        destinations = [(address, traffic.ECHO[1]) for address in traffic.SERVERS]
        for round_number in range(20):
            for destination in destinations:
                endpoint.sendto(f"{round_number} to {destination}".encode(), destination)
            answers = {endpoint.recvfrom(1000)[::-1] for _ in destinations}
            assert answers == {(each, f"{round_number} to {each}".encode()) for each in destinations}


def figures(bench):
    counts = bench.counts()
    return {"handles": counts["handles"], "threads": counts["threads"], "KiB": bench.memory()["Private_Dirty"]}


@pytest.mark.timeout(900)
@pytest.mark.usefixtures("tunnel_client")
def test_queries_with_a_new_port_each_leave_a_bounded_number_of_sockets(running):
    count, at_once, most_sessions = volume(10_000, 1_000), 20, 2_048
    before = figures(running)
    began = time.monotonic()

    def ask(identity):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as endpoint:
            endpoint.settimeout(20)
            endpoint.sendto(query(identity), RESOLVER)
            assert is_answer(endpoint.recv(1000), identity), identity

    with ThreadPoolExecutor(at_once, initializer=sockets.enter, initargs=(running, "host")) as pool:
        assert len(list(pool.map(ask, range(count)))) == count
    seconds = time.monotonic() - began
    after = figures(running)
    print(f"\n{count} queries from new ports, {count / seconds:.0f} a second; before {before}, after {after}")
    # Two sockets for each association, and what a socket may cost beside its handle.
    assert after["handles"] - before["handles"] < 2 * min(count, most_sessions) + 200
    assert after["KiB"] - before["KiB"] < 100 * min(count, most_sessions) + 20_000
    # They go when nobody has used them for a minute.
    wait_for(lambda: figures(running)["handles"] < before["handles"] + 100, 90, "the associations to go", interval=2)
    print(f"a minute later {figures(running)}")


@pytest.fixture
def mutable_proxies(core_client, running):
    """The tunnel's proxies are in the test's hands: they hand on to the core until they are told to be mute."""
    with Forwarder(running, PROXY, core.PROXY_PORT) as proxy, Forwarder(running, DIRECT, core.DIRECT_PORT) as direct:
        tunnel.start(core_client, proxy_port=PROXY, direct_port=DIRECT)
        yield proxy, direct
        if tunnel.is_running(core_client):
            tunnel.stop(core_client)


def test_a_proxy_that_falls_silent_delays_nothing_but_what_is_new(running, core_client, mutable_proxies):
    running.log.allow(r"^\[TCP-NAT\] Failed to connect to SOCKS5 proxy$|^Failed to receive SOCKS5 response$")
    running.log.allow(r"^\[UDP-NAT\] Failed to (create SOCKS5 UDP session for |connect to SOCKS5 proxy: 10004$)")
    with sockets.udp(running) as flow, sockets.tcp(running, traffic.ECHO) as connection:
        flow.sendto(b"opened", traffic.ECHO)
        assert flow.recvfrom(100) == (b"opened", traffic.ECHO)
        connection.sendall(b"opened")
        assert connection.recv(100) == b"opened"
        for proxy in mutable_proxies:
            proxy.mute = True
        with sockets.udp(running) as unanswered, ThreadPoolExecutor(1) as pool:
            # More new flows than any thread pool has threads, to both inbounds.
            flows = [sockets.udp(running) for _ in range(100)]
            waiting = pool.submit(sockets.tcp, running, (traffic.SERVER, 80))
            try:
                for each in flows:
                    each.sendto(b"new", traffic.ECHO)
                    each.sendto(query(1), RESOLVER)
                unanswered.settimeout(0.5)
                unanswered.sendto(b"new", traffic.ECHO)
                slowest = 0
                for number in range(50):
                    began = time.monotonic()
                    flow.sendto(b"open %d" % number, traffic.ECHO)
                    assert flow.recvfrom(100) == (b"open %d" % number, traffic.ECHO)
                    connection.sendall(b"open")
                    assert connection.recv(100) == b"open"
                    assert core_client.request("heartbeat")["status"] == "success"
                    slowest = max(slowest, time.monotonic() - began)
                print(f"\nthe slowest of 50 rounds of open flows and a request: {slowest * 1000:.0f} ms")
                assert slowest < 3
                with pytest.raises(TimeoutError):
                    unanswered.recv(100)
                began = time.monotonic()
                tunnel.stop(core_client)
                took = time.monotonic() - began
                print(f"stop-tun: {took * 1000:.0f} ms")
                assert took < 5
            finally:
                for each in flows:
                    each.close()
                waiting.result(20).close()


def test_a_silent_proxy_holds_no_new_query_up(running, mutable_proxies):
    running.log.allow(r"^\[UDP-NAT\] Failed to (create SOCKS5 UDP session for |connect to SOCKS5 proxy: 10004$)")
    proxy, _ = mutable_proxies
    proxy.mute = True
    # More new flows than there are threads that open associations.
    flows = [sockets.udp(running) for _ in range(50)]
    try:
        for each in flows:
            each.sendto(b"new", traffic.ECHO)
        began = time.monotonic()
        for identity in range(20):
            with sockets.udp(running) as names:
                names.sendto(query(identity), RESOLVER)
                assert is_answer(names.recv(1000), identity)
        took = time.monotonic() - began
        print(f"\n20 queries from new ports beside 50 flows that wait: {took * 1000:.0f} ms")
        assert took < 4, "a handshake waits for 5 s"
    finally:
        for each in flows:
            each.close()


def test_a_client_that_keeps_its_port_gets_answers_from_a_core_that_was_restarted(running, tunnel_client):
    core.allow_kill(running)
    with sockets.udp(running) as endpoint, sockets.udp(running) as names:
        def is_echoed():
            endpoint.sendto(b"still there?", traffic.ECHO)
            return endpoint.recvfrom(100) == (b"still there?", traffic.ECHO)

        def is_resolved():
            names.sendto(query(7), RESOLVER)
            return is_answer(names.recv(1000), 7)

        def in_time(ask, what):
            for each in (endpoint, names):
                each.settimeout(1)

            def attempt():
                try:
                    return ask()
                except TimeoutError:
                    return False
            wait_for(attempt, 20, what)

        assert is_echoed() and is_resolved()
        core.kill(running, tunnel_client)
        core.start(running, tunnel_client)
        in_time(is_echoed, "an echo through the new core")
        in_time(is_resolved, "an answer through the new core")
