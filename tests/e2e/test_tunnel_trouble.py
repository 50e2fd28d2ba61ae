"""The tunnel when the machine around it changes: adapters that vanish or were there before, a daemon that is killed,
packets at full speed."""

import json
import time

import pytest

from bench import processes, tunnel, wait_for
from bench.flood import Flood
from bench.network import RESOLVERS, ip

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)


def in_host(bench, *words):
    return ip("-n", bench.network.name("host"), *words)


def make_older_adapter(bench):
    """An adapter of the default name that was there before the daemon: the interface "older"."""
    guid = tunnel.guid_of(tunnel.NAME)
    in_host(bench, "tuntap", "add", "dev", "older", "mode", "tun", "multi_queue")
    in_host(bench, "link", "set", "older", "up", "alias", f"wintun | {guid} | SocksTunnel | {tunnel.NAME}")
    for service in ("Tcpip", "Tcpip6"):
        assert bench.prefix.run("reg", "add", tunnel.interface_key(guid, service), "/f").status == 0


def test_a_tunnel_whose_adapter_was_removed_is_cleaned_up_by_the_next_start(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    threads = None
    for _ in range(5):
        tunnel.start(client)
        threads = threads or bench.counts()["threads"]
        assert bench.counts()["threads"] <= threads + 2, "threads of a dead tunnel are still there"
        in_host(bench, "link", "delete", tunnel.INTERFACE)
        # Nobody has looked yet: it counts as started.
        assert tunnel.is_running(client)
    # Its routes went with it.
    bench.log.expect(r"^Failed to delete route: 1168$")
    tunnel.start(client, tunnel_ip="10.7.7.1")
    assert [adapter.addresses for adapter in tunnel.adapters(bench)] == [["10.7.7.1/30"]]
    tunnel.stop(client)


def test_a_tunnel_whose_adapter_was_removed_can_be_stopped(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    bench.log.expect(r"^Failed to delete route: 1168$")
    in_host(bench, "link", "delete", tunnel.INTERFACE)
    tunnel.stop(client)
    assert client.request("stop-tun")["error"] == "TUN not running"


def kill_daemon(bench, client):
    processes.kill([bench.daemon_pid()])
    client.wait_closed()


def test_after_a_daemon_that_was_killed_the_next_one_starts_the_tunnel(tunnel_bench):
    bench = tunnel_bench
    # Of somebody else's: one that the tunnel would have made, and one that it has no business with.
    others = [f"{address} via 192.0.2.1 dev uplink metric 25" for address in ("1.1.1.1", "198.18.0.9")]
    for route in others:
        in_host(bench, "route", "add", *route.split())
    bench.routes_that_change = ([], others)
    ours = [tunnel.bypass_route(address) for address in RESOLVERS if address != "1.1.1.1"]
    client = bench.client()
    tunnel.start(client)
    assert all(route in tunnel.routes(bench) for route in ours)
    kill_daemon(bench, client)
    # The adapter belonged to the process. Routes on other interfaces stay.
    wait_for(lambda: not tunnel.adapters(bench), 15, "the end of the adapter")
    assert all(route in tunnel.routes(bench) for route in ours)
    bench.start()
    client = bench.client()
    assert not any(route in tunnel.routes(bench) for route in ours), "the next daemon has not removed them"
    assert all(route in tunnel.routes(bench) for route in others)
    texts = bench.log.texts()
    removed = [place for place, text in enumerate(texts) if text.startswith("Removed bypass route of an earlier run: ")]
    assert len(removed) == len(ours)
    # Before any client can ask for a tunnel.
    second_start = len(texts) - 1 - texts[::-1].index("Starting ruvod daemon...")
    assert removed == list(range(second_start + 1, second_start + 1 + len(ours)))
    assert not tunnel.is_running(client)
    tunnel.start(client)
    routes = tunnel.routes(bench)
    assert f"0.0.0.0/1 dev {tunnel.INTERFACE} proto static scope link" in routes
    assert all(routes.count(route) == 1 for route in [*ours, *others])
    tunnel.stop(client)


def test_routes_that_were_taken_away_in_order_are_not_taken_away_by_the_next_daemon(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    tunnel.stop(client)
    # The same ones, of somebody else.
    for address in RESOLVERS:
        in_host(bench, "route", "add", *tunnel.bypass_route(address).split())
    bench.routes_that_change = ([], [tunnel.bypass_route(address) for address in RESOLVERS])
    kill_daemon(bench, client)
    bench.start()
    routes = tunnel.routes(bench)
    assert all(tunnel.bypass_route(address) in routes for address in RESOLVERS)


@pytest.mark.debug_log
def test_after_a_daemon_that_was_killed_an_adapter_that_stays_is_taken_over(tunnel_bench):
    bench = tunnel_bench
    make_older_adapter(bench)
    # Its default route, and the halves that it is left with, come before the uplink's when the next start asks.
    (bench.substitutes / "netconfig.txt").write_text("default-routes reversed\n", encoding="ascii")
    client = bench.client()
    tunnel.start(client)
    kill_daemon(bench, client)
    halves = ["0.0.0.0/1 dev older proto static scope link", "128.0.0.0/1 dev older proto static scope link"]

    def left():
        return [route.replace(" linkdown", "") for route in tunnel.routes(bench)]

    assert all(route in left() for route in [*halves, "default via 10.6.7.2 dev older proto static"])
    bench.start()
    client = bench.client()
    lines = len(bench.log.lines())
    tunnel.start(client, bypass_ips=["203.0.113.20"])
    assert not bench.journal.calls("WintunCreateAdapter")
    assert [(a.interface, a.addresses) for a in tunnel.adapters(bench)] == [("older", ["10.6.7.1/30"])]
    routes = tunnel.routes(bench)
    assert all(routes.count(route) == 1 for route in halves)
    assert all(routes.count(tunnel.bypass_route(address)) == 1 for address in [*RESOLVERS, "203.0.113.20"])
    [line] = [line.text for line in bench.log.lines()[lines:] if "Original network interface index:" in line.text]
    uplink = json.loads(in_host(bench, "-json", "link", "show", "uplink"))[0]["ifindex"]
    assert line == f"Original network interface index: {uplink}"
    tunnel.stop(client)
    in_host(bench, "link", "delete", "older")


def test_an_adapter_that_was_there_before_is_used_and_stays(tunnel_bench):
    bench = tunnel_bench
    make_older_adapter(bench)
    client = bench.client()
    tunnel.start(client)
    assert not bench.journal.calls("WintunCreateAdapter")
    assert [(a.interface, a.addresses) for a in tunnel.adapters(bench)] == [("older", ["10.6.7.1/30"])]
    tunnel.stop(client)
    assert bench.journal.calls("WintunCloseAdapter")[-1]["removed"] is False
    # Address and gateway belong to it.
    kept = ["default via 10.6.7.2 dev older proto static", "10.6.7.0/30 dev older proto kernel scope link src 10.6.7.1"]
    assert [route.replace(" linkdown", "") for route in tunnel.routes(bench) if "older" in route] == kept

    # With another address it gets that one too.
    tunnel.start(client, tunnel_ip="10.7.7.1")
    assert tunnel.adapters(bench)[0].addresses == ["10.6.7.1/30", "10.7.7.1/30"]
    assert "default via 10.7.7.2 dev older proto static" in tunnel.routes(bench)
    tunnel.stop(client)
    in_host(bench, "link", "delete", "older")


def test_another_address_at_each_start(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    for address, peer in (("10.6.7.1", "10.6.7.2"), ("172.16.9.5", "172.16.9.6"), ("10.6.7.1", "10.6.7.2")):
        tunnel.start(client, tunnel_ip=address)
        adapter, = tunnel.adapters(bench)
        assert adapter.addresses == [f"{address}/30"]
        assert f"default via {peer} dev {adapter.interface} proto static" in tunnel.routes(bench)
        assert tunnel.dns_servers(bench, adapter.guid) == peer
        tunnel.stop(client)


def test_a_route_to_a_bypass_address_that_was_there_before_is_left_alone(tunnel_bench):
    bench = tunnel_bench
    for address in ("1.2.3.4", "8.8.8.8"):
        in_host(bench, "route", "add", address, "via", "192.0.2.1", "dev", "uplink", "metric", "7")
    bench.routes_that_change = (
        [], [f"{address} via 192.0.2.1 dev uplink metric 7" for address in ("1.2.3.4", "8.8.8.8")])
    client = bench.client()
    tunnel.start(client, bypass_ips=["1.2.3.4", "5.6.7.8"])
    assert tunnel.bypass_route("5.6.7.8") in tunnel.routes(bench)
    assert tunnel.bypass_route("8.8.8.8") not in tunnel.routes(bench)
    tunnel.stop(client)


def test_behind_an_on_link_default_route_bypass_routes_are_on_link_too(tunnel_bench):
    bench = tunnel_bench
    in_host(bench, "route", "replace", "default", "dev", "uplink", "metric", "25")
    bench.routes_that_change = (["default via 192.0.2.1 dev uplink metric 25"],
                                ["default dev uplink scope link metric 25"])
    client = bench.client()
    tunnel.start(client)
    assert "8.8.8.8 dev uplink proto static scope link metric 25" in tunnel.routes(bench)
    tunnel.stop(client)


def packets_into(bench):
    counters = json.loads(in_host(bench, "-json", "-s", "link", "show", tunnel.INTERFACE))[0]
    return counters["stats64"]["tx"]["packets"]


def test_a_stop_while_packets_arrive_at_full_speed(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    for _ in range(3):
        tunnel.start(client)
        with Flood(bench, "203.0.113.99"):
            wait_for(lambda: packets_into(bench) > 20_000, 30, "packets in the tunnel")
            before = time.monotonic()
            tunnel.stop(client)
            took = time.monotonic() - before
        print(f"stopped in {took:.2f} s, {bench.journal.calls('WintunEndSession')[-1]}")
        assert took < 5
        assert tunnel.adapters(bench) == []
    ended = bench.journal.calls("WintunEndSession")
    assert all(call["received"] > 10_000 and not call["unreleased"] and not call["unsent"] for call in ended), ended


def test_the_service_stops_while_packets_arrive_at_full_speed(tunnel_bench):
    bench = tunnel_bench
    tunnel.start(bench.client())
    with Flood(bench, "203.0.113.99"):
        wait_for(lambda: packets_into(bench) > 20_000, 30, "packets in the tunnel")
        bench.stop()
    assert tunnel.adapters(bench) == []


def test_an_adapter_that_is_removed_while_packets_arrive(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    bench.log.expect(r"^Failed to delete route: 1168$")
    with Flood(bench, "203.0.113.99"):
        wait_for(lambda: packets_into(bench) > 20_000, 30, "packets in the tunnel")
        in_host(bench, "link", "delete", tunnel.INTERFACE)
        tunnel.start(client)
        wait_for(lambda: packets_into(bench) > 20_000, 30, "packets in the new tunnel")
    tunnel.stop(client)
