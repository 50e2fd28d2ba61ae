"""Every call of the tunnel's start failing in turn: the log line, the answer, what is cleaned up, and that the next
start works."""

import re
import shutil
from dataclasses import dataclass

import pytest

from bench import daemon_log, tunnel
from bench.network import RESOLVERS

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)


@dataclass
class Failure:
    """What is planned (lines of faults.txt), and what has to come of it."""

    plan: list
    lines: list  # in this order, at warning level or above; behind them, of a failed start, the answer in quotes
    answer: str = ""  # the error text; none: the tunnel starts all the same
    routed: bool = True  # whether it then has its two halves of the address space


def fatal(plan, line, answer, *more):
    return Failure([plan], [line, *more], answer)


# In the order of the start.
FATAL = {
    "the adapter cannot be created": fatal(
        "WintunCreateAdapter * 5", f'Failed to create adapter "{tunnel.NAME}" : 5',
        "Failed to create Wintun adapter (driver issue or insufficient permissions)", "Failed to create adapter"),
    "an adapter is left over": fatal(
        "WintunCreateAdapter * 183", f'Failed to create adapter "{tunnel.NAME}" : 183',
        "Failed to create Wintun adapter (driver issue or insufficient permissions)",
        "  Hint: Delete orphaned adapter via Device Manager",
        r'  Or run: pnputil /remove-device /deviceid "ROOT\WINTUN\0000"', "Failed to create adapter"),
    "the address is refused": fatal(
        "CreateUnicastIpAddressEntry * 87", "Failed to set IP address: 87",
        "Failed to set IP address on TUN adapter", "Failed to set IP address"),
    "the adapter has no GUID": fatal(
        "ConvertInterfaceLuidToGuid * 2", "Failed to convert LUID to GUID: 2",
        "Failed to set DNS servers (network configuration error)", "Failed to set DNS servers for hijacking"),
    "DNS is refused by the call and the registry": Failure(
        ["SetInterfaceDnsSettings * 50", "RegOpenKeyExW 1 5"],
        ["SetInterfaceDnsSettings failed: 50 , falling back to registry", "Failed to open registry key: 5",
         "Failed to set DNS servers for hijacking"],
        "Failed to set DNS servers (network configuration error)"),
    "DNS cannot be written to the registry": Failure(
        ["GetProcAddress:SetInterfaceDnsSettings * 127", "RegSetValueExA 1 5"],
        ["Failed to set DNS servers in registry: 5", "Failed to set DNS servers for hijacking"],
        "Failed to set DNS servers (network configuration error)"),
    "the session does not start": fatal(
        "WintunStartSession * 1450", "Failed to start session: 1450",
        "Failed to start Wintun session (driver communication error)", "Failed to start session"),
    "there is no completion port": fatal(
        "CreateIoCompletionPort * 1450", "Failed to create IOCP: 1450",
        "Failed to create I/O Completion Port (error 1450)"),
    "the listener gets no socket": fatal(
        "WSASocketW 1 10024", "[TCP-NAT] Failed to create listener socket: 10024",
        "Failed to initialize TCP NAT listener", "Failed to initialize TCP NAT"),
    "the listener's address is refused": fatal(
        "bind 1 10013", "[TCP-NAT] Failed to bind listener: 10013",
        "Failed to initialize TCP NAT listener", "Failed to initialize TCP NAT"),
    "the listener's address does not come": fatal(
        "bind * 10049", "[TCP-NAT] Failed to bind listener: 10049",
        "Failed to initialize TCP NAT listener", "Failed to initialize TCP NAT"),
    "nobody may listen": fatal(
        "listen 1 10048", "[TCP-NAT] Failed to listen: 10048",
        "Failed to initialize TCP NAT listener", "Failed to initialize TCP NAT"),
    "the listener cannot be bound to the completion port": fatal(
        "CreateIoCompletionPort:associate 1 6", "[TCP-NAT] Failed to associate listener with IOCP: 6",
        "Failed to initialize TCP NAT listener", "Failed to initialize TCP NAT"),
}

# The tunnel runs all the same.
ENDURED = {
    "the adapter's gateway is refused": Failure(
        ["CreateIpForwardEntry2 1 87"],
        ["Failed to set gateway: 87", "Warning: Failed to set gateway (continuing anyway)"]),
    "the interface cannot be read": Failure(
        ["GetIpInterfaceEntry * 1168"],
        ["[RUVO-TUN] Failed to get interface entry: 1168",
         "Warning: Failed to set interface metric (DNS may not work!)"]),
    "the metric is refused": Failure(
        ["SetIpInterfaceEntry * 87"],
        ["[RUVO-TUN] Failed to set interface metric: 87",
         "Warning: Failed to set interface metric (DNS may not work!)"]),
    "DNS has to go through the registry": Failure(
        ["SetInterfaceDnsSettings * 50"], ["SetInterfaceDnsSettings failed: 50 , falling back to registry"]),
    "DNS has no newer call": Failure(["GetProcAddress:SetInterfaceDnsSettings * 127"], []),
    "IPv6 DNS cannot be cleared": Failure(
        ["RegOpenKeyExW * 5"],
        ["Failed to open IPv6 registry key: 5",
         "Warning: Failed to clear IPv6 DNS servers (continuing anyway)"]),
    "IPv6 DNS cannot be written": Failure(
        ["RegSetValueExA * 5"],
        ["Failed to set IPv6 DNS servers in registry: 5",
         "Warning: Failed to clear IPv6 DNS servers (continuing anyway)"]),
    "the resolver cache is not flushed": Failure(
        ["DnsFlushResolverCache * 5"], ["Failed to flush DNS resolver cache"]),
    "there is no resolver cache": Failure(
        ["GetProcAddress:DnsFlushResolverCache * 127"], ["Failed to flush DNS resolver cache"]),
    "the listener's address comes late": Failure(["bind 1 10049", "bind 2 10049"], []),
    "the first accept gets no socket": Failure(
        ["WSASocketW 2 10024"], ["[TCP-NAT] Failed to create accept socket: 10024"]),
    "the routes cannot be read": Failure(
        ["GetIpForwardTable * 5"],
        ["Failed to get original default gateway", "Failed to get original default gateway",
         "Failed to set up full tunnel routing"], routed=False),
    "a bypass route is refused": Failure(
        ["CreateIpForwardEntry2 2 5"], ['Failed to add bypass route: "1.0.0.1" error: 5']),
    "the first half is refused": Failure(
        ["CreateIpForwardEntry2 6 5"],
        ["Failed to add route: 5", "Failed to add first split route (0.0.0.0/1)",
         "Failed to set up full tunnel routing"], routed=False),
    "the second half is refused": Failure(
        ["CreateIpForwardEntry2 7 5"],
        ["Failed to add route: 5", "Failed to add second split route (128.0.0.0/1)",
         "Failed to set up full tunnel routing"], routed=False),
    "routes are there already": Failure(["CreateIpForwardEntry2 6+ 5010"], ["Failed to delete route: 1168"] * 2,
                                        routed=False),
    "the driver does not tell its version": Failure(["WintunGetRunningDriverVersion * 2"], []),
}


def machine(bench):
    """All that a tunnel changes on the machine."""
    return (tunnel.adapters(bench), tunnel.addresses(bench), tunnel.routes(bench), tunnel.against_leaks(bench))


def serious_lines(bench, after):
    """What is not usual among the warnings and worse."""
    serious = [line.text for line in bench.log.lines()[after:] if line.level in daemon_log.SERIOUS]
    return [text for text in serious if not any(re.search(usual, text) for usual in tunnel.USUAL_WARNINGS)]


def assert_a_start_works(bench, client):
    """Nothing of the failure is left: the tunnel comes up with everything, without a word, and goes."""
    bench.plan_failures()
    before = len(bench.log.lines())
    tunnel.start(client)
    routes = tunnel.routes(bench)
    assert len(tunnel.adapters(bench)) == 1
    halves = [f"{half} dev {tunnel.INTERFACE} proto static scope link" for half in ("0.0.0.0/1", "128.0.0.0/1")]
    assert all(half in routes for half in halves)
    assert all(tunnel.bypass_route(address) in routes for address in RESOLVERS)
    tunnel.stop(client)
    assert serious_lines(bench, before) == []


@pytest.fixture
def quiet_bench(tunnel_bench):
    """Its tests look at every serious line themselves."""
    tunnel_bench.log.allow("")
    return tunnel_bench


def test_failures_that_end_the_start(quiet_bench):
    bench = quiet_bench
    client = bench.client()
    before_all = machine(bench)
    for what, failure in FATAL.items():
        bench.plan_failures(*failure.plan)
        before = len(bench.log.lines())
        answer = client.request("start-tun")
        assert (answer["success"], answer.get("error")) == (False, failure.answer), what
        assert serious_lines(bench, before) == [*failure.lines, f'"{failure.answer}"'], what
        assert [line.level for line in bench.log.lines()[-2:]] == ["CRITICAL"] * 2, what
        assert machine(bench) == before_all, what
        assert client.request("tun-status")["running"] is False, what
        answer = client.request("stop-tun")
        assert (answer["success"], answer["error"]) == (False, "TUN not running"), what
        assert_a_start_works(bench, client)


def test_failures_that_a_start_endures(quiet_bench):
    bench = quiet_bench
    client = bench.client()
    before_all = machine(bench)
    for what, failure in ENDURED.items():
        bench.plan_failures(*failure.plan)
        before = len(bench.log.lines())
        tunnel.start(client)
        routes = tunnel.routes(bench)
        assert len(tunnel.adapters(bench)) == 1, what
        halves = [half for half in ("0.0.0.0/1", "128.0.0.0/1") if any(route.startswith(half) for route in routes)]
        assert (len(halves) == 2) == failure.routed, what
        tunnel.stop(client)
        assert serious_lines(bench, before) == failure.lines, what
        assert machine(bench) == before_all, what
        assert_a_start_works(bench, client)


def test_a_wintun_library_that_is_missing_or_something_else(quiet_bench):
    bench = quiet_bench
    client = bench.client()
    library = bench.application / "tun2" / "wintun.dll"
    kept = bench.directory / "wintun.dll"
    library.rename(kept)
    text = "Failed to initialize Wintun (DLL not found or incompatible version)"
    for other, line in ((None, r'Failed to load wintun.dll from ".*/tun2/wintun.dll" error: \d+'),
                        ("wtsapi32.dll", "Failed to load WintunCreateAdapter")):
        if other:
            shutil.copy2(bench.application / other, library)
        before = len(bench.log.lines())
        answer = client.request("start-tun")
        assert (answer["success"], answer["error"]) == (False, text)
        first, *rest = serious_lines(bench, before)
        assert re.fullmatch(line, first), first
        assert rest == ["Failed to initialize Wintun", f'"{text}"']
        assert client.request("stop-tun")["error"] == "TUN not running"
    library.unlink()
    kept.rename(library)
    assert_a_start_works(bench, client)


def test_a_reader_that_fails_leaves_a_tunnel_that_the_next_start_replaces(quiet_bench):
    bench = quiet_bench
    client = bench.client()
    bench.plan_failures("WintunReceivePacket 1 1784")
    tunnel.start(client)
    bench.log.wait_for("Packet read failed: 1784")
    assert tunnel.is_running(client), "nobody has looked yet"
    bench.plan_failures()
    before = len(bench.log.lines())
    tunnel.start(client)
    assert serious_lines(bench, before) == []
    assert len(tunnel.adapters(bench)) == 1
    assert len(bench.journal.calls("WintunCloseAdapter")) == 1
    tunnel.stop(client)
