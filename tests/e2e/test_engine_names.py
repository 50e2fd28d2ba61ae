"""Names that the engine learns from answers that its own flows bring back, and uses towards the proxy."""

import re
import socket

import pytest

from bench import both_ends, guest, sockets, traffic, tunnel
from bench.network import SERVER6
from bench.scripted_socks import ASSOCIATE, CONNECT, IPV4, IPV6, NAME, Request, refusal

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)

RESOLVER = "10.6.7.2"


@pytest.fixture
def learning(running, servers, scripted):  # pylint: disable=unused-argument
    """The tunnel, when the NAT relay's association for each flow is refused: its datagrams take the engine's."""
    running.log.expect(r"^\[UDP-NAT\] UDP ASSOCIATE failed: 1$")
    running.log.expect(r"^\[UDP-NAT\] Failed to create SOCKS5 UDP session for \d+\.\d+\.\d+\.\d+:53$")
    running.log.allow(r"^\[UDP-NAT\] Forward failed, falling back to old handler$")
    scripted.direct.answer = lambda request, number: refusal(1) if number % 2 == 0 else None
    guest.route_ipv6_into_tunnel(running)
    return scripted


def test_a_name_that_was_answered_is_what_the_proxy_is_asked_for(running, learning):
    scripted = learning
    scripted.proxy.hand_on = False
    web = (traffic.NAMES["web.test"], 80)
    # Before its name is known it goes by address.
    with sockets.tcp(running, web, "guest"):
        assert scripted.proxy.wait_for_requests(CONNECT) == [Request(CONNECT, IPV4, *web)]
    assert traffic.dig(running, "web.test", role="guest", server=RESOLVER) == [web[0]]
    assert len(scripted.direct.of(ASSOCIATE)) == 2
    assert [each[:3] for each in scripted.direct.datagrams] == [(IPV4, "8.8.8.8", 53)]
    with sockets.tcp(running, web, "guest") as connection:
        assert scripted.proxy.wait_for_requests(CONNECT, 2)[1] == Request(CONNECT, NAME, "web.test", 80)
        scripted.proxy.take()
        scripted.proxy.take().sendall(b"by name")
        assert both_ends.receive(connection, 7) == b"by name"
        # To its very end: from here on nothing of IPv4 is on its way to the guest.
        connection.shutdown(socket.SHUT_WR)
        assert both_ends.receive_all(connection) == (b"", None)
    running.log.wait_for("[DATA-ESTABLISHED] Connection reached ESTABLISHED state - port:", count=2)
    established = [text for text in running.log.texts() if text.startswith("[DATA-ESTABLISHED]")]
    for text, name in zip(established, (web[0], "web.test")):
        assert re.search(rf'dest: "?{re.escape(name)}:80"?$', text), established

    # The same for an address of IPv6. No packet can go back to the guest, so it waits in vain.
    six = (SERVER6, 80)
    for count, wanted in ((3, Request(CONNECT, IPV6, *six)), (4, Request(CONNECT, NAME, traffic.NAME6, 80))):
        sent = guest.link_counters(running, "host", tunnel.INTERFACE)["rx"]["packets"]
        with pytest.raises(TimeoutError):
            sockets.tcp(running, six, "guest", timeout=0.8)
        assert scripted.proxy.wait_for_requests(CONNECT, count)[count - 1] == wanted
        assert guest.link_counters(running, "host", tunnel.INTERFACE)["rx"]["packets"] == sent
        if wanted.kind == IPV6:
            assert traffic.dig(running, traffic.NAME6, role="guest", server=RESOLVER, kind="AAAA") == [SERVER6]
    assert len(scripted.proxy.of(CONNECT)) == 4


def test_the_hosts_own_connections_go_by_a_name_that_a_flow_has_learnt(running, learning):
    learning.proxy.hand_on = False
    assert traffic.dig(running, "other.test", role="guest", server=RESOLVER) == [traffic.NAMES["other.test"]]
    with sockets.tcp(running, (traffic.NAMES["other.test"], 80)):
        assert learning.proxy.wait_for_requests(CONNECT) == [Request(CONNECT, NAME, "other.test", 80)]


def test_a_hostile_answer_teaches_nothing_and_harms_nobody(running, learning):
    hostile = [
        b"\0" * 12,
        b"",
        # A name that points to itself, and answers that are cut off.
        b"\0\1\x81\x80\0\1\0\1\0\0\0\0" + b"\xc0\x0c\0\1\0\1" + b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\xcb\0\x71\x0a",
        b"\0\1\x81\x80\0\1\xff\xff\0\0\0\0" + b"\3web\4test\0\0\1\0\1" + b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\xcb",
        b"\0\1\x81\x80\xff\xff\xff\xff\0\0\0\0" + b"\x3f" * 40,
    ]
    # All of one flow.
    learning.direct.answer = lambda request, number: None if number == 1 else refusal(1)
    server = (traffic.SERVERS[1], 53)
    with sockets.udp(running, "net", server) as mean, sockets.udp(running, "guest") as asking:
        for answer in hostile:
            asking.sendto(b"a question that is long enough", server)
            _, sender = mean.recvfrom(1000)
            mean.sendto(answer, sender)
            if answer:  # nothing is forwarded that holds nothing
                assert asking.recv(1000) == answer
    learning.proxy.hand_on = False
    with sockets.tcp(running, (traffic.NAMES["web.test"], 80), "guest"):
        assert learning.proxy.wait_for_requests(CONNECT) == [Request(CONNECT, IPV4, traffic.NAMES["web.test"], 80)]
