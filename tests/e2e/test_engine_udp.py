"""Datagrams of the guest that take a flow of their own: what the NAT relay could not carry, and all of IPv6."""

import threading

import pytest

from bench import guest, sockets, traffic, tunnel
from bench.network import SERVER6
from bench.scripted_proxy import METHOD_REPLY
from bench.scripted_socks import ASSOCIATE, IPV4, IPV6, NO_METHOD, Datagram, Socks, refusal
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)

ECHO6 = (SERVER6, traffic.ECHO[1])


def expect_relay_refused(bench):
    """The NAT relay tells that it could not carry a flow."""
    bench.log.expect(r"^\[UDP-NAT\] UDP ASSOCIATE failed: 1$")
    bench.log.expect(r"^\[UDP-NAT\] Failed to create SOCKS5 UDP session for 203\.0\.113\.10:7$")
    bench.log.allow(r"^\[UDP-NAT\] Forward failed, falling back to old handler$")


def packets_read(bench):
    """How many the daemon has taken from the adapter."""
    return guest.link_counters(bench, "host", tunnel.INTERFACE)["tx"]["packets"]


def packets_injected(bench):
    return guest.link_counters(bench, "host", tunnel.INTERFACE)["rx"]["packets"]


@pytest.mark.usefixtures("servers")
def test_the_first_datagrams_of_a_flow_are_held_and_go_out_in_their_order(running, scripted):
    expect_relay_refused(running)
    sent, granted = threading.Event(), threading.Event()

    def answer(_request, number):
        # The relay's association waits until all are sent, the flow's own until that has been seen.
        (sent, granted)[min(number, 1)].wait(20)
        return refusal(1) if number == 0 else None
    scripted.proxy.answer = answer
    texts = [f"datagram {number}".encode() for number in range(20)]
    with sockets.udp(running, "guest") as endpoint:
        try:
            read = packets_read(running)
            for text in texts:
                endpoint.sendto(text, traffic.ECHO)
            wait_for(lambda: packets_read(running) >= read + len(texts), 10, "the daemon to have them all")
            sent.set()
            scripted.proxy.wait_for_requests(ASSOCIATE, 2)
            assert scripted.proxy.datagrams == []
        finally:
            sent.set()
            granted.set()
        assert [endpoint.recvfrom(100) for _ in texts] == [(text, traffic.ECHO) for text in texts]
    assert scripted.proxy.datagrams == [Datagram(IPV4, *traffic.ECHO, text) for text in texts]
    assert len(scripted.proxy.of(ASSOCIATE)) == 2


@pytest.mark.usefixtures("servers")
def test_datagrams_of_ipv6_reach_their_server_and_nothing_is_injected(running, scripted):
    guest.route_ipv6_into_tunnel(running)
    texts = [b"one", b"two", b"x" * 1200]
    injected = packets_injected(running)
    with sockets.udp(running, "guest", ("::", 0)) as endpoint, sockets.udp(running, "net", ("::", 9300)) as server:
        for text in texts:
            endpoint.sendto(text, (SERVER6, 9300))
        assert [server.recv(2000) for _ in texts] == texts
        endpoint.sendto(b"echo", ECHO6)
        wait_for(lambda: Datagram(IPV6, *ECHO6, b"echo") in scripted.proxy.datagrams, 10, "the datagram for the echo")
        endpoint.settimeout(1)
        with pytest.raises(TimeoutError):
            endpoint.recv(100)
    assert len(scripted.proxy.of(ASSOCIATE)) == 2, "one for each flow"
    assert [each for each in scripted.proxy.datagrams if each.kind != IPV6] == []
    assert packets_injected(running) == injected


@pytest.mark.usefixtures("servers")
def test_a_flow_that_fails_is_opened_anew_by_its_next_datagram(running, scripted):
    running.log.expect(r"^SOCKS5 UDP auth failed$")
    running.log.expect(r"^SOCKS5 UDP associate failed - bytes: 10 ver: 5 status: 1 "
                       r"\(0x01=general failure, 0x05=connection refused\)$")
    guest.route_ipv6_into_tunnel(running)
    scripted.proxy.answer = lambda _request, _number: refusal(1)
    with sockets.udp(running, "guest", ("::", 0)) as endpoint, sockets.udp(running, "net", ("::", 9300)) as server:
        scripted.proxy.method = NO_METHOD
        endpoint.sendto(b"first", (SERVER6, 9300))
        running.log.wait_for("SOCKS5 UDP auth failed")
        scripted.proxy.method = METHOD_REPLY
        endpoint.sendto(b"second", (SERVER6, 9300))
        running.log.wait_for("SOCKS5 UDP associate failed - bytes:")
        scripted.proxy.answer = lambda _request, _number: None
        endpoint.sendto(b"third", (SERVER6, 9300))
        assert server.recv(100) == b"third", "what waited for a failed association is gone with it"
        # Nobody is there any more, and then somebody is again.
        scripted.proxy.close()
        server.settimeout(0.2)
        with sockets.udp(running, "guest", ("::", 0)) as another:
            def arrives():
                another.sendto(b"fourth", (SERVER6, 9300))
                try:
                    return server.recv(100) == b"fourth"
                except TimeoutError:
                    return False
            assert not arrives(), "the proxy has gone"
            with Socks(running, scripted.proxy.port):
                wait_for(arrives, 20, "a datagram through the proxy that came back")
