"""The tunnel comes and goes: what the machine has while it runs, which calls made it, what the log tells of it."""

import os
import re

import pytest

from bench import tunnel
from bench.network import RESOLVERS, ip

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

GUID = tunnel.guid_of(tunnel.NAME)
TUN = f"interface={tunnel.INTERFACE}"
RESOLVERS_IN_ORDER = sorted(RESOLVERS)

START_CALLS = [
    # The default routes from before there is a tunnel.
    "GetIpForwardTable rows=3 result=False error=122",
    "GetIpForwardTable rows=3 result=True",
    f"WintunOpenAdapter name={tunnel.NAME} result=False error=1168",
    f"WintunCreateAdapter name={tunnel.NAME} tunnel-type=SocksTunnel requested-guid={GUID} {TUN} guid={GUID} "
    "result=True",
    "WintunGetRunningDriverVersion result=True",
    f"CreateUnicastIpAddressEntry address=10.6.7.1/30 {TUN} result=True",
    f"CreateIpForwardEntry2 metric=0 protocol=3 destination=0.0.0.0/0 next-hop=10.6.7.2 {TUN} result=True",
    f"GetIpInterfaceEntry family=2 {TUN} metric=5 automatic-metric=True mtu=65535 forwarding=False result=True",
    f"SetIpInterfaceEntry family=2 {TUN} metric=0 automatic-metric=False mtu=1500 forwarding=True "
    "site-prefix-length=0 disable-default-routes=False result=True",
    f"SetInterfaceDnsSettings guid={GUID} version=1 flags=2 name-server=10.6.7.2 result=True",
    rf"RegOpenKeyExW path=SYSTEM\CurrentControlSet\Services\Tcpip6\Parameters\Interfaces\{GUID} access=131078 "
    "result=True",
    "RegSetValueExA name=NameServer type=1 text= size=1 result=True",
    "DnsFlushResolverCache result=True",
    "WintunStartSession capacity=16777216 result=True",
    "CreateIoCompletionPort bound=False threads=0 result=True",
    # The original gateway: for direct connections, for the bypass routes; then which addresses are reached without it;
    # then the metric of the tunnel's own routes.
    *["GetIpForwardTable rows=5 result=False error=122", "GetIpForwardTable rows=5 result=True"] * 3,
    *(f"CreateIpForwardEntry2 metric=0 protocol=3 destination={address}/32 next-hop=192.0.2.1 interface=uplink "
      "result=True"
      for address in RESOLVERS_IN_ORDER),
    "GetIpForwardTable rows=9 result=False error=122",
    "GetIpForwardTable rows=9 result=True",
    f"CreateIpForwardEntry2 metric=0 protocol=3 destination=0.0.0.0/1 next-hop=0.0.0.0 {TUN} result=True",
    f"CreateIpForwardEntry2 metric=0 protocol=3 destination=128.0.0.0/1 next-hop=0.0.0.0 {TUN} result=True",
]
STOP_CALLS = [
    f"DeleteIpForwardEntry2 destination=0.0.0.0/1 next-hop=0.0.0.0 {TUN} result=True",
    f"DeleteIpForwardEntry2 destination=128.0.0.0/1 next-hop=0.0.0.0 {TUN} result=True",
    *(f"DeleteIpForwardEntry2 destination={address}/32 next-hop=192.0.2.1 interface=uplink result=True"
      for address in RESOLVERS_IN_ORDER),
    "WintunEndSession refused-full=0 dropped=0 unreleased=False unsent=False",
    f"WintunCloseAdapter {TUN} removed=True",
]



def assert_firewall_stands_between(names, first, before, after, last):
    """Its calls are one block of `names`, from `first` to `last`, behind each `before` and ahead of each `after`."""
    places = [place for place, name in enumerate(names) if tunnel.OF_THE_FIREWALL.match(name)]
    assert (names[places[0]], names[places[-1]]) == (first, last)
    assert before in names and max(place for place, name in enumerate(names) if name == before) < places[0]
    assert places[-1] < names.index(after)


# In this order; other lines may stand between them.
START_LINES = [
    *(f'DEBUG Bypass IP: "{address}"' for address in ("8.8.8.8", "8.8.4.4", "1.1.1.1", "1.0.0.1")),
    *(f'DEBUG Direct process: "{name}" (port 20808'
      for name in ("xray.exe", "sing-box.exe", "antifilter.exe")),
    f'DEBUG Using deterministic GUID for adapter "{tunnel.NAME}" : "{GUID}"',
    f'DEBUG Created new Wintun adapter: "{tunnel.NAME}"',
    "DEBUG Wintun v0.14 loaded",
    'DEBUG NAT client IP (gateway/DNS, not assigned): "10.6.7.2"',
    'DEBUG Set interface gateway to "10.6.7.2"',
    "WARNING [RUVO-TUN] Current metric: 5 AutoMetric: true",
    "WARNING [RUVO-TUN] ✓ Set interface metric to 0 with ForwardingEnabled and MTU 1500",
    'DEBUG Configuring DNS hijacking: DNS server = "10.6.7.2" (TUN IP + 1)',
    "DEBUG DNS servers configured via API: 10.6.7.2",
    "DEBUG IPv6 DNS servers configured: ",
    "DEBUG ✓ DNS resolver cache flushed",
    "DEBUG Firewall manager initialized",
    "DEBUG [WinFW] ✓ Added Windows Firewall inbound allow rule for TCP",
    re.compile(r"WARNING \[TCP-NAT\] Listening on 10\.6\.7\.1:\d+"),
    re.compile(r"INFO \[TCP-NAT\] Listener port assigned by OS: \d+"),
    "DEBUG [UDP-NAT] Initialized for SOCKS5 UDP forwarding (proxy:10808, direct:20808)",
    f'DEBUG Tunnel started on "{tunnel.NAME}"',
    "DEBUG Tunnel IP: 10.6.7.1/30",
    "DEBUG Proxy: 127.0.0.1:10808",
    f"DEBUG IOCP workers: {os.cpu_count()} (fully async)",
    "DEBUG Original network interface index: 2",
    'DEBUG Original gateway: "192.0.2.1" (ifIndex= 2 )',
    re.compile(r"DEBUG Tunnel interface index: \d+"),
    "DEBUG Skipping proxy bypass route for localhost",
    "DEBUG Adding split default routes as DIRECT (on-link) routes",
    "DEBUG Using metric from existing interface routes: 0",
    "DEBUG Using CreateIpForwardEntry2 API to add routes...",
    f'DEBUG RuvoTunManager: TUN started with adapter "{tunnel.NAME}"',
]
STOP_LINES = [
    re.compile(r'WARNING Explicit stop-tun request from client "[0-9a-f]+"'),
    'DEBUG Removed route: "0.0.0.0" / "128.0.0.0"',
    'DEBUG Removed route: "128.0.0.0" / "128.0.0.0"',
    "DEBUG [TCP-NAT] Closing 0 relay sessions",
    "DEBUG [UDP-NAT] Shutdown complete",
    "DEBUG [WinFW] ✓ Removed Windows Firewall rule",
    "DEBUG Tunnel stopped",
    "DEBUG RuvoTunManager: TUN stopped",
]


def assert_in_order(lines, wanted):
    """Each wanted line (a text, or a regular expression that is compiled) stands once, behind the one before it."""
    place = -1
    for each in wanted:
        is_it = each.fullmatch if isinstance(each, re.Pattern) else each.__eq__
        found = [index for index, line in enumerate(lines) if is_it(line)]
        assert len(found) == 1, f"{each!r} stands {len(found)} times in the log"
        assert found[0] > place, f"{each!r} stands too early in the log"
        place = found[0]


def log_lines(bench, after=0):
    return [f"{line.level} {line.text}" for line in bench.log.lines()[after:]]


@pytest.mark.debug_log
def test_an_empty_start_makes_the_default_tunnel_and_a_stop_takes_it_away(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    addresses, routes = tunnel.addresses(bench), tunnel.routes(bench)
    answer = client.request("tun-status")
    assert answer == {"running": False, "adapter-name": "", "request-id": answer["request-id"]}

    calls_before = len(bench.journal.entries())
    answer = client.request("start-tun")
    assert answer == {"success": True, "adapter-name": tunnel.NAME, "tunnel-ip": "10.6.7.1",
                      "request-id": answer["request-id"]}
    assert tunnel.adapters(bench) == [tunnel.Adapter(
        name=tunnel.NAME, type="SocksTunnel", guid=GUID, interface=tunnel.INTERFACE, up=True, mtu=1500,
        addresses=["10.6.7.1/30"], metric=0, forwarding=True)]
    assert tunnel.addresses(bench) == [*addresses, f"{tunnel.INTERFACE} 10.6.7.1/30"]
    assert sorted(tunnel.routes(bench)) == sorted([
        *routes,
        f"10.6.7.0/30 dev {tunnel.INTERFACE} proto kernel scope link src 10.6.7.1",
        f"default via 10.6.7.2 dev {tunnel.INTERFACE} proto static",
        f"0.0.0.0/1 dev {tunnel.INTERFACE} proto static scope link",
        f"128.0.0.0/1 dev {tunnel.INTERFACE} proto static scope link",
        *map(tunnel.bypass_route, RESOLVERS)])
    assert tunnel.dns_servers(bench, GUID) == "10.6.7.2"
    assert tunnel.dns_servers(bench, GUID, "Tcpip6") == ""
    answer = client.request("tun-status")
    assert answer == {"running": True, "adapter-name": tunnel.NAME, "request-id": answer["request-id"]}
    assert tunnel.windows_calls(bench, calls_before) == START_CALLS
    names = [entry["call"] for entry in bench.journal.entries()[calls_before:]]
    assert_firewall_stands_between(names, "FwpmEngineOpen0", "DnsFlushResolverCache", "WintunStartSession",
                                   last="CoUninitialize")
    assert names.index("INetFwRules::Add") > names.index("FwpmEngineOpen0")
    assert_in_order(log_lines(bench), START_LINES)

    calls_before = len(bench.journal.entries())
    answer = client.request("stop-tun")
    assert answer == {"success": True, "request-id": answer["request-id"]}
    assert (tunnel.adapters(bench), tunnel.addresses(bench), tunnel.routes(bench)) == ([], addresses, routes)
    answer = client.request("tun-status")
    assert answer == {"running": False, "adapter-name": "", "request-id": answer["request-id"]}
    assert tunnel.windows_calls(bench, calls_before) == STOP_CALLS
    names = [entry["call"] for entry in bench.journal.entries()[calls_before:]]
    assert_firewall_stands_between(names, "CoInitializeEx", "DeleteIpForwardEntry2", "WintunEndSession",
                                   last="FwpmEngineClose0")
    assert names.index("INetFwRules::Remove") < names.index("FwpmEngineClose0")
    assert_in_order(log_lines(bench), START_LINES + STOP_LINES)
    # Windows keeps an interface's DNS settings under its identity.
    assert tunnel.dns_servers(bench, GUID) == "10.6.7.2"


def test_a_second_start_and_a_second_stop_say_so_and_change_nothing(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    assert client.request("stop-tun")["error"] == "TUN not running"
    tunnel.start(client)
    before = (tunnel.adapters(bench), tunnel.routes(bench), len(tunnel.windows_calls(bench)))
    threads = bench.counts()["threads"]
    answer = client.request("start-tun", tunnel_ip="10.9.9.1", adapter_name="another")
    assert answer == {"success": False, "error": "TUN already running", "request-id": answer["request-id"]}
    assert before == (tunnel.adapters(bench), tunnel.routes(bench), len(tunnel.windows_calls(bench)))
    # No second set of them. One that Wine itself had for the service's start may end meanwhile.
    assert bench.counts()["threads"] <= threads
    tunnel.stop(client)
    answer = client.request("stop-tun")
    assert answer == {"success": False, "error": "TUN not running", "request-id": answer["request-id"]}


def test_every_key_of_the_configuration_counts(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    answer = tunnel.start(client, adapter_name="Büro tunnel", tunnel_ip="10.77.0.5", proxy_ip="127.0.0.9",
                          proxy_port=1080, direct_port=1081, bypass_ips=["198.18.0.1", "nonsense", "", "1.2.3.4"],
                          proxy_processes=["a.exe"], direct_processes=["b.exe"])
    assert (answer["adapter-name"], answer["tunnel-ip"]) == ("Büro tunnel", "10.77.0.5")
    adapter, = tunnel.adapters(bench)
    assert (adapter.name, adapter.guid, adapter.addresses) == (
        "Büro tunnel", tunnel.guid_of("Büro tunnel"), ["10.77.0.5/30"])
    routes = tunnel.routes(bench)
    for address in ("198.18.0.1", "1.2.3.4", *RESOLVERS):
        assert tunnel.bypass_route(address) in routes
    assert f"default via 10.77.0.6 dev {adapter.interface} proto static" in routes
    assert tunnel.dns_servers(bench, adapter.guid) == "10.77.0.6"
    assert client.request("tun-status")["adapter-name"] == "Büro tunnel"
    tunnel.stop(client)


def test_a_proxy_elsewhere_gets_a_route_that_stays(tunnel_bench):
    bench = tunnel_bench
    bench.stop()  # its routes are as the next lines make them
    tunnel.set_uplink_metric(bench, 1)
    bench.start()
    bench.routes_that_change = (["default via 192.0.2.1 dev uplink metric 25"],
                                ["default via 192.0.2.1 dev uplink metric 1", tunnel.bypass_route("203.0.113.20", 1)])
    client = bench.client()
    # It is looked for on the tunnel's interface, as all recorded routes are.
    bench.log.expect(r"^Failed to delete route: 1168$")
    for _ in range(2):  # the second time it is there already
        tunnel.start(client, proxy_ip="203.0.113.20")
        assert tunnel.bypass_route("203.0.113.20", 1) in tunnel.routes(bench)
        tunnel.stop(client)
    added = bench.journal.calls("CreateIpForwardEntry", destination="203.0.113.20")
    assert [(call["mask"], call["next-hop"], call["type"], call["protocol"], call["metric"], call["interface"],
             call.get("error")) for call in added] == [
                 ("255.255.255.255", "192.0.2.1", 4, 3, 1, "uplink", error) for error in (None, 5010)]


def test_a_proxy_elsewhere_whose_route_is_refused_takes_the_interfaces_metric(tunnel_bench):
    bench = tunnel_bench
    route = tunnel.bypass_route("203.0.113.20")
    bench.routes_that_change = ([], [route])
    client = bench.client()
    bench.log.expect(r"^Failed to delete route: 1168$")
    # Windows takes no metric below the interface's from this call.
    tunnel.start(client, proxy_ip="203.0.113.20")
    assert tunnel.routes(bench).count(route) == 1
    tunnel.stop(client)
    added = bench.journal.calls("CreateIpForwardEntry", destination="203.0.113.20", next_hop="192.0.2.1")
    assert [(call["metric"], call.get("error")) for call in added] == [(1, 160), (25, None)]
    # A name is no address: no route is tried.
    tunnel.start(client, proxy_ip="proxy.test")
    assert len(bench.journal.calls("CreateIpForwardEntry")) == 2
    tunnel.stop(client)


def test_a_proxy_elsewhere_whose_route_is_refused_twice_does_without(tunnel_bench):
    bench = tunnel_bench
    bench.plan_failures("CreateIpForwardEntry * 160")
    client = bench.client()
    bench.log.expect(r"^Warning: Failed to add proxy bypass route: 160$")
    tunnel.start(client, proxy_ip="203.0.113.20")
    assert len(bench.journal.calls("CreateIpForwardEntry")) == 2
    assert not any("203.0.113.20" in route for route in tunnel.routes(bench))
    tunnel.stop(client)


def test_bypass_addresses_that_are_reached_without_the_gateway_get_no_route(tunnel_bench):
    bench = tunnel_bench
    host = bench.network.name("host")
    ip("-n", host, "link", "add", "second", "type", "veth", "peer", "name", "third")
    ip("-n", host, "address", "add", "172.16.0.2/24", "dev", "second")
    for link in ("second", "third"):
        ip("-n", host, "link", "set", link, "up")
    before = tunnel.routes(bench)
    client = bench.client()
    near = ["127.0.0.1", "10.6.7.1", "10.6.7.2", "192.0.2.77", "172.16.0.77"]
    tunnel.start(client, bypass_ips=[*near, "198.18.0.1"])
    routes = [route for route in tunnel.routes(bench) if route not in before and tunnel.INTERFACE not in route]
    assert sorted(routes) == sorted(map(tunnel.bypass_route, [*RESOLVERS, "198.18.0.1"]))
    for address, interface in (("192.0.2.77", "uplink"), ("172.16.0.77", "second"), ("10.6.7.2", tunnel.INTERFACE)):
        assert f" dev {interface} " in ip("-n", host, "route", "get", address)
    tunnel.stop(client)
    assert tunnel.routes(bench) == before
    ip("-n", host, "link", "delete", "second")


def test_without_a_default_route_the_tunnel_stands_and_gets_no_routes(tunnel_bench):
    bench = tunnel_bench
    bench.routes_that_change = (["default via 192.0.2.1 dev uplink metric 25"], [])
    ip("-n", bench.network.name("host"), "route", "del", "default")
    client = bench.client()
    # There is only the tunnel's own then, which leads to no gateway that could be gone around by, and there was none.
    bench.log.expect(r"^Default route leads into the tunnel itself, skipping bypass routes, ifIndex: \d+$")
    tunnel.start(client)
    assert not bench.journal.calls("CreateIpForwardEntry2", interface="uplink")
    tunnel.stop(client)


@pytest.mark.debug_log
def test_a_tunnel_whose_own_default_route_comes_first_goes_by_the_gateway_from_before(tunnel_bench):
    bench = tunnel_bench
    (bench.substitutes / "netconfig.txt").write_text("default-routes reversed\n", encoding="ascii")
    client = bench.client()
    tunnel.start(client)
    routes = tunnel.routes(bench)
    assert all(tunnel.bypass_route(address) in routes for address in RESOLVERS)
    assert_in_order(log_lines(bench), ["DEBUG Original network interface index: 2",
                                       'DEBUG Original gateway: "192.0.2.1" (ifIndex= 2 )'])
    tunnel.stop(client)


def test_a_tunnel_ip_that_is_none_creates_nothing(tunnel_bench):
    client = tunnel_bench.client()
    for text in ("10.6.7", "10.6.7.256", "0.0.0.0", "", "10.6.7.1.", " 10.6.7.1", "10.6.7.x", "::1"):
        answer = client.request("start-tun", tunnel_ip=text)
        assert answer == {"success": False, "error": f"Invalid tunnel-ip: {text}", "request-id": answer["request-id"]}
        assert client.request("stop-tun")["error"] == "TUN not running"
    assert tunnel.windows_calls(tunnel_bench) == []
