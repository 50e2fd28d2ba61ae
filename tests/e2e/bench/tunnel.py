"""The tunnel as the machine has it: adapters, addresses, routes, settings; and the Windows calls that made them."""

import hashlib
import json
import re
import subprocess
import uuid
from collections import namedtuple

from .network import ip

NAME = "ruvo-default-tun"
INTERFACE = "ruvo-def-519a5f"  # Linux has no room for that name
FILTERS = 17  # against leaks

# One Wintun adapter. `metric` is Windows' (None: automatic).
Adapter = namedtuple("Adapter", "name type guid interface up mtu addresses metric forwarding")


def guid_of(name):
    """The identity that follows from an adapter's name, as Windows writes it."""
    digest = hashlib.md5(b"wintun" + name.encode()).digest()
    return "{" + str(uuid.UUID(bytes_le=digest)).upper() + "}"


def _setting(bench, interface, name):
    """None: the interface has gone."""
    words = [*bench.network.enter("host"), "sysctl", "-n", f"net.ipv4.conf.{interface}.{name}"]
    result = subprocess.run(words, capture_output=True, text=True, timeout=20, check=False)
    if result.returncode != 0 and "No such file or directory" in result.stderr:
        return None
    assert result.returncode == 0, result.stderr
    return int(result.stdout)


def adapters(bench):
    """The Wintun adapters that exist."""
    host = bench.network.name("host")
    ipv4 = {link["ifname"]: link["addr_info"] for link in json.loads(ip("-json", "-n", host, "-4", "address"))}
    found = []
    for link in json.loads(ip("-json", "-n", host, "link")):
        mark, *identity = link.get("ifalias", "").split(" | ")
        if mark != "wintun":
            continue
        guid, kind, name = identity
        interface = link["ifname"]
        tag, forwarding = _setting(bench, interface, "tag"), _setting(bench, interface, "forwarding")
        if None in (tag, forwarding):
            continue
        found.append(Adapter(
            name, kind, guid, interface, "UP" in link["flags"], link["mtu"],
            [f"{each['local']}/{each['prefixlen']}" for each in ipv4.get(interface, [])],
            tag - 1 if tag else None, bool(forwarding)))
    return found


def routes(bench):
    """The routes of the main table as `ip route` prints them."""
    return [line.strip() for line in ip("-n", bench.network.name("host"), "-4", "route").splitlines()]


def addresses(bench):
    """The IPv4 addresses of the machine: ["uplink 192.0.2.2/24", …]."""
    rows = ip("-n", bench.network.name("host"), "-4", "-oneline", "address").splitlines()
    return [" ".join((row.split()[1], row.split()[3])) for row in rows]


def bypass_route(address, metric=25):
    return f"{address} via 192.0.2.1 dev uplink proto static metric {metric}"


def set_uplink_metric(bench, metric):
    """Windows' metric of the uplink, with its default route as Windows would then have it."""
    host = bench.network.name("host")
    subprocess.run([*bench.network.enter("host"), "sysctl", "-qw", f"net.ipv4.conf.uplink.tag={metric + 1}"],
                   timeout=20, check=True)
    ip("-n", host, "route", "del", "default")
    ip("-n", host, "route", "add", "default", "via", "192.0.2.1", "metric", str(metric))


def interface_key(guid, service="Tcpip"):
    """Where Windows keeps the settings of an interface; Tcpip6 for IPv6."""
    return rf"HKLM\SYSTEM\CurrentControlSet\Services\{service}\Parameters\Interfaces\{guid}"


def dns_servers(bench, guid, service="Tcpip"):
    """The value NameServer of an interface in the registry, or None."""
    result = bench.prefix.run("reg", "query", interface_key(guid, service), "/v", "NameServer")
    found = re.search(r"NameServer\s+REG_SZ(.*)", result.stdout)
    return found[1].strip() if found else None


def against_leaks(bench):
    """What the machine has of filters and of what they belong to, and the rules of the Windows Firewall."""
    engine = bench.filters
    return {"filters": engine.filters(), "sublayers": engine.sublayers(), "sessions": engine.sessions(),
            "firewall rules": bench.firewall_rules()}


# What differs from run to run, or counts packets that Linux sends by itself.
_VOLATILE = {"time-ms", "pid", "thread", "index", "luid", "received", "received-bytes", "empty-reads", "sent",
             "sent-bytes"}
# Change nothing and ask nothing of the system.
_PREPARATIONS = re.compile(r"Initialize|Convert|Wintun(GetAdapterLUID|GetReadWaitEvent)")
_OF_THE_TUNNEL = re.compile(r"Wintun|Reg|.*Ip(Forward|Interface|Address)|SetInterfaceDns|DnsFlush|CreateIoCompletion")

OF_THE_FIREWALL = re.compile(r"Fwpm|Co(Initialize|Uninitialize|CreateInstance)|INetFw")


def windows_calls(bench, after=0):
    """The calls that a tunnel's start or stop consists of, one a line, from entry `after` of the journal on; without
    those of the firewall."""
    calls = []
    for entry in bench.journal.entries()[after:]:
        call = entry["call"]
        if _OF_THE_TUNNEL.match(call) and not _PREPARATIONS.match(call):
            rest = [f"{key}={value}" for key, value in entry.items() if key not in _VOLATILE | {"call"}]
            calls.append(" ".join([call, *rest]))
    return calls


def start(client, timeout=40, **configuration):
    """Starts the tunnel; it has to work."""
    answer = client.request("start-tun", timeout, **configuration)
    assert answer["success"], answer
    return answer


def stop(client, timeout=20):
    """Stops it; it has to have run."""
    answer = client.request("stop-tun", timeout)
    assert answer["success"], answer


def is_running(client):
    return client.request("tun-status")["running"]


# What every start and an explicit stop log at warning level.
USUAL_WARNINGS = (
    r"^\[RUVO-TUN\] Current metric: \d+ AutoMetric: (true|false)$",
    r"^\[RUVO-TUN\] ✓ Set interface metric to 0 with ForwardingEnabled and MTU 1500$",
    r"^\[TCP-NAT\] Listening on \d+\.\d+\.\d+\.\d+:\d+$",
    r'^Explicit stop-tun request from client "[0-9a-f]+"$',
    # All of them are there; of one that is not, other lines tell.
    rf"^\[WFP\] Created {FILTERS} filters$",
    rf"^\[FILTER-CHECK\] 🔍 Verifying {FILTERS} filters still exist\.\.\.$",
    rf"^\[FILTER-CHECK\] {FILTERS} filters exist, 0 are MISSING$",
    r"^\[FILTER-CHECK\] ✅ All filters verified - DNS protection active$",
)


def expect_in_log(bench):
    """Anything more serious, or else, is a finding."""
    for pattern in USUAL_WARNINGS:
        bench.log.allow(pattern)
