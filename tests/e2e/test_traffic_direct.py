"""Connections past the proxy: the daemon's own, to bypass addresses and port 53, around the tunnel's routes."""

import socket
import struct
import time

import pytest

from bench import both_ends, core, programs, sockets, traffic, tunnel
from bench.both_ends import DIRECT_PORT
from bench.network import ROUTE_METRIC, ip
from bench.scripted_socks import ASSOCIATE, Socks

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

BYPASSED = traffic.SERVERS[1]
# Where the scripted proxy is.
PROXY = 30808


def tell_nothing(client):
    """Nothing of all this has come to the core."""
    assert core.taken(client) == []


def direct_lines(bench, endpoint):
    return bench.log.texts().count(f"[TCP-NAT] Using DIRECT routing to {endpoint}")


def remove_route(bench, address):
    """Takes the way around the tunnel from a bypass address."""
    ip("-n", bench.network.name("host"), "route", "del", address)


def test_a_bypass_address_never_enters_the_tunnel(running, core_client):
    tunnel.start(core_client, bypass_ips=[BYPASSED])
    assert traffic.identity(running, (BYPASSED, 9001)) == f"{BYPASSED}:9001"
    assert traffic.tcp_echo(running, b"around", (BYPASSED, 7)) == b"around"
    assert not [text for text in running.log.texts() if "DIRECT" in text or "bypassIps" in text]
    tell_nothing(core_client)
    # All others do.
    assert traffic.identity(running, (traffic.SERVER, 9001)) == f"{traffic.SERVER}:9001"
    core.wait_for_taken(core_client, "proxy", "tcp", f"{traffic.SERVER}:9001")


def test_a_bypass_address_that_enters_the_tunnel_is_connected_to_directly(running, core_client):
    running.log.expect(r"^\[TCP-NAT\] Using DIRECT routing to ")
    running.log.expect(rf'^\[PORT\] destIp "?{BYPASSED}"? in bypassIps -> direct port 20808$')
    running.log.expect(r'^\[PORT\] destIp "?8\.8\.4\.4"? in bypassIps -> direct port 20808$')
    running.log.allow(r'^Failed to delete bypass route: "(203\.0\.113\.20|8\.8\.4\.4)" error: 1168$')
    tunnel.start(core_client, bypass_ips=[BYPASSED])
    for address in (BYPASSED, "8.8.4.4"):
        remove_route(running, address)
        assert traffic.identity(running, (address, 9002)) == f"{address}:9002"
        assert direct_lines(running, f"{address}:9002") == 1
    assert traffic.peer(running, server=BYPASSED) == "192.0.2.2"
    traffic.download(running, 20_000_000, server=BYPASSED)
    traffic.upload(running, 20_000_000, server=BYPASSED)
    tell_nothing(core_client)


@pytest.mark.debug_log
def test_port_53_is_connected_to_through_the_physical_interface(running, tunnel_client):
    running.log.expect(r"^\[TCP-NAT\] Using DIRECT routing to ")
    with both_ends.connections(running, port=DIRECT_PORT) as [(client, server)]:
        client.sendall(b"a question")
        assert both_ends.receive(server, 10) == b"a question"
        assert server.getpeername()[0] == "192.0.2.2", "from the uplink's address"
        server.sendall(b"an answer")
        assert both_ends.receive(client, 9) == b"an answer"
    [line] = running.log.wait_for("[TCP-NAT] Bound direct socket to physical interface ")
    assert int(line.text.split()[-1]) > 0
    tell_nothing(tunnel_client)


@pytest.mark.debug_log
def test_a_direct_connection_leaves_through_the_uplink_though_the_tunnels_default_route_comes_first(
        running, core_client):
    running.log.expect(r"^\[TCP-NAT\] Using DIRECT routing to ")
    (running.substitutes / "netconfig.txt").write_text("default-routes reversed\n", encoding="ascii")
    tunnel.start(core_client)
    with both_ends.connections(running, port=DIRECT_PORT) as [(client, server)]:
        client.sendall(b"a question")
        assert both_ends.receive(server, 10) == b"a question"
        assert server.getpeername()[0] == "192.0.2.2", "from the uplink's address"
    tell_nothing(core_client)


@pytest.mark.debug_log
def test_without_a_physical_interface_a_direct_connection_ends_at_once_instead_of_going_round(running, core_client):
    running.log.expect(r"^\[TCP-NAT\] Using DIRECT routing to ")
    running.log.expect(rf"^\[TCP-NAT\] Own connection to {traffic.SERVER}:53 came back through the tunnel, closing it$")
    running.log.expect(r"^Default route leads into the tunnel itself, skipping bypass routes, ifIndex: \d+$")
    host = running.network.name("host")
    ip("-n", host, "route", "del", "default")
    try:
        tunnel.start(core_client)
        began = time.monotonic()
        with sockets.tcp(running, (traffic.SERVER, DIRECT_PORT)) as connection:
            both_ends.expect_reset(connection)
        print(f"\nthe connection ended after {time.monotonic() - began:.2f} s")
        assert direct_lines(running, f"{traffic.SERVER}:53") == 1, "it went round"
        assert not [text for text in running.log.texts() if "Bound direct socket" in text]
        # All that is proxied goes on.
        traffic.download(running, 5_000_000)
        tunnel.stop(core_client)
    finally:
        ip("-n", host, "route", "add", "default", "via", "192.0.2.1", "metric", ROUTE_METRIC)


def test_datagrams_of_a_core_leave_through_the_physical_interface(running, core_client):
    # Both are on a client's list: only the core's datagrams go direct.
    tunnel.start(core_client, direct_processes=["shop.exe", "sing-box.exe"])
    host, port = traffic.ECHO
    assert programs.run_windows(running, "sing-box.exe", "udp", host, port, "of a core") == "of a core"
    tell_nothing(core_client)
    assert programs.run_windows(running, "shop.exe", "udp", host, port, "of a program") == "of a program"
    core.wait_for_taken(core_client, "proxy", "udp", f"{host}:{port}")


def test_without_a_physical_interface_the_datagrams_of_a_core_are_dropped(running, core_client):
    host, port = traffic.ECHO
    running.log.expect(rf"^\[UDP-NAT\] No physical interface for the direct flow to {host}:{port}, dropping it$")
    running.log.expect(r"^Default route leads into the tunnel itself, skipping bypass routes, ifIndex: \d+$")
    namespace = running.network.name("host")
    ip("-n", namespace, "route", "del", "default")
    try:
        tunnel.start(core_client)
        with programs.WindowsClient(running, "sing-box.exe", "udp", host, port, "of a core") as client:
            client.expect("sent")
            running.log.wait_for("[UDP-NAT] No physical interface for the direct flow to ")
        tell_nothing(core_client)
        tunnel.stop(core_client)
    finally:
        ip("-n", namespace, "route", "add", "default", "via", "192.0.2.1", "metric", ROUTE_METRIC)


def test_a_proxy_that_names_a_relay_inside_the_tunnel_makes_no_loop(running, core_client):
    running.log.expect(rf"^\[UDP-NAT\] Own datagram to {traffic.SERVER}:4444 came back through the tunnel, ")
    relay = b"\x05\x00\x00\x01" + socket.inet_aton(traffic.SERVER) + struct.pack("!H", 4444)
    with Socks(running, PROXY, lambda request, number: relay) as proxy:
        tunnel.start(core_client, proxy_port=PROXY)
        with sockets.udp(running) as endpoint:
            endpoint.sendto(b"round and round", traffic.ECHO)
            running.log.wait_for("[UDP-NAT] Own datagram to ")
            with sockets.udp(running) as other:
                other.sendto(b"another flow", traffic.ECHO)
                proxy.wait_for_requests(ASSOCIATE, 2)
        tunnel.stop(core_client)
        assert len(proxy.of(ASSOCIATE)) == 2, "one for each flow of an application"
