"""The filters against leaks as Windows has them: what they let through, the calls that make them, and their end."""

import itertools
import json
import os
import re
import signal

import pytest

from bench import tunnel
from bench.filters import app_id
from bench.network import ip
from bench.paths import ROOT, windows_path
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

DOCUMENT = ROOT / "docs" / "host-changes.md"
BEGIN, END = "<!-- truth table: begin (made by tests/e2e/test_filters.py) -->\n", "<!-- truth table: end -->\n"
OTHER = r"C:\Program Files\Other\other.exe"
# As the engine's front knows them, and as the document shows them.
PROGRAMS = {"daemon": "`ruvod.exe`", "core": r"`core\xray.exe`", "app": "`Ruvo.exe`", OTHER: "another program"}
INTERFACES = (tunnel.INTERFACE, "uplink")
FAMILIES = (4, 6)
PORTS = (53, 443)
DIRECTIONS = ("connect", "accept")
QUESTIONS = tuple(itertools.product(DIRECTIONS, PROGRAMS, FAMILIES, INTERFACES, PORTS))


def index_of(bench, interface):
    """The number of an interface; one that no interface has if it is not there."""
    links = json.loads(ip("-json", "-n", bench.network.name("host"), "link"))
    return {link["ifname"]: link["ifindex"] for link in links}.get(interface, 9999)


def truth_table(bench):
    """{(direction, program, family, interface, port): whether it passes}"""
    indices = {interface: index_of(bench, interface) for interface in INTERFACES}
    return {question: ask(bench, *question, indices) for question in QUESTIONS}


def ask(bench, direction, program, family, interface, port, indices):
    return bench.filters.would_pass(program, family, indices[interface], port, direction=direction)


def is_to_pass(direction, program, family, interface, port, *, ipv6_blocked):
    """What the filters are for."""
    if direction == "accept" or program != OTHER:
        return True
    if family == 6 and ipv6_blocked:
        return False
    return port != 53 or interface == tunnel.INTERFACE


def as_text(blocked, free):
    """Both tables as they stand in the document."""
    columns = list(itertools.product(FAMILIES, INTERFACES, PORTS))
    names = [f"IPv{family} {'tunnel' if interface == tunnel.INTERFACE else 'elsewhere'} "
             f"{'port 53' if port == 53 else 'other ports'}" for family, interface, port in columns]
    lines = ["| | program | " + " | ".join(names) + " |", "|---|---|" + "---|" * len(names)]
    for title, table in (("", blocked), ("; without \"block ipv6\"", free)):
        for direction, program in itertools.product(DIRECTIONS, PROGRAMS):
            cells = ["passes" if table[direction, program, *column] else "**blocked**" for column in columns]
            lines.append(f"| {direction}s{title} | {PROGRAMS[program]} | " + " | ".join(cells) + " |")
    return "\n".join(lines) + "\n"


def test_what_passes_is_what_the_document_says(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    assert all(truth_table(bench).values()), "without a tunnel"
    tunnel.start(client)
    blocked = truth_table(bench)
    assert blocked == {question: is_to_pass(*question, ipv6_blocked=True) for question in QUESTIONS}
    # As it would be if the tunnel did not ask for IPv6 to be blocked, which it always does: the filter that blocks it
    # is deleted. That a manager which is not asked to block it adds just the others is what the Windows tests fix.
    block_ipv6, = [each["id"] for each in bench.filters.filters() if each["description"] == "block ipv6"]
    bench.filters.delete_behind_back(block_ipv6)
    free = truth_table(bench)
    assert free == {question: is_to_pass(*question, ipv6_blocked=False) for question in QUESTIONS}
    tunnel.stop(client)
    assert all(truth_table(bench).values()), "after the tunnel"

    text = DOCUMENT.read_text(encoding="utf-8")
    made = as_text(blocked, free)
    documented = text.split(BEGIN)[1].split(END)[0]
    assert documented == made, f"{DOCUMENT} is to have:\n{made}"


# What the calls tell that differs from start to start, or of what they hand out.
VOLATILE = {"time-ms", "pid", "thread", "block", "object", "made", "engine", "call", "app-id"}
APARTMENT = ["CoInitializeEx model=apartment flags=2 result=True"]
PROGRAM_LAYERS = (("ALE_AUTH_CONNECT_V4", None), ("ALE_AUTH_CONNECT_V6", None),
                  ("ALE_AUTH_RECV_ACCEPT_V4", "protect ipv4 udp"), ("ALE_AUTH_RECV_ACCEPT_V6", "protect ipv6 udp"))


def filter_line(label, layer, weight, action, condition):
    conditions = [condition] if condition else []
    return (f"FwpmFilterAdd0 name=ruvo-tun description={label} layer={layer} sublayer=KEY flags=0 weight={weight} "
            f"weight-type=UINT8 action={action} conditions={conditions} security=False id=ID result=True")


def program_lines(bench, file, label):
    """The id of a program, and its four filters."""
    path = windows_path(bench.application / file)
    program = f"ALE_APP_ID EQUAL BYTE_BLOB {app_id.of_windows_path(path)}"
    return [f"FwpmGetAppIdFromFileName0 path={path} result=True",
            *(filter_line(own_label or label, layer, 13, "PERMIT", program) for layer, own_label in PROGRAM_LAYERS),
            "FwpmFreeMemory0"]


def start_lines(bench):
    """The calls of a start that make the filters and the rule."""
    daemon = windows_path(bench.application / "ruvod.exe")
    name = f"RUVO TUN ({daemon})"
    tun = f"INTERFACE_INDEX EQUAL UINT32 {index_of(bench, tunnel.INTERFACE)}"
    dns = "IP_REMOTE_PORT EQUAL UINT16 53"
    return [
        "FwpmEngineOpen0 server=None authentication=default identity=False name=RUVO TUN Strict Route "
        "description=DNS leak prevention and strict routing flags=1 result=True",
        "FwpmSubLayerAdd0 key=KEY name=RUVO TUN Filters description=Filters for DNS leak prevention flags=0 "
        "provider=False weight=65535 security=False result=True",
        *program_lines(bench, "ruvod.exe", "protect ipv4"),
        *program_lines(bench, "core/xray.exe", "protect ipv4 xray"),
        *program_lines(bench, "Ruvo.exe", "protect ipv4 ruvo"),
        filter_line("block ipv6", "ALE_AUTH_CONNECT_V6", 12, "BLOCK", None),
        filter_line("allow ipv4", "ALE_AUTH_CONNECT_V4", 11, "PERMIT", tun),
        filter_line("allow ipv6", "ALE_AUTH_CONNECT_V6", 11, "PERMIT", tun),
        filter_line("block ipv4 dns", "ALE_AUTH_CONNECT_V4", 10, "BLOCK", dns),
        filter_line("block ipv6 dns", "ALE_AUTH_CONNECT_V6", 10, "BLOCK", dns),
        *["FwpmFilterGetById0 id=ID result=True", "FwpmFreeMemory0"] * tunnel.FILTERS,
        *APARTMENT,
        "CoCreateInstance class=NetFwPolicy2 context=1 result=True",
        "INetFwPolicy2::get_Rules result=True",
        "CoCreateInstance class=NetFwRule context=1 result=True",
        f"INetFwRule::put_Name text={name} result=True",
        "INetFwRule::put_Description text=Allow RUVO TUN TCP NAT listener result=True",
        f"INetFwRule::put_ApplicationName text={daemon} result=True",
        "INetFwRule::put_Protocol number=6 result=True",
        "INetFwRule::put_Direction number=1 result=True",
        "INetFwRule::put_Action number=1 result=True",
        "INetFwRule::put_Enabled number=-1 result=True",
        f"INetFwRules::Remove name={name} result=False error={0x80070002}",  # nothing was left
        f"INetFwRules::Add name={name} description=Allow RUVO TUN TCP NAT listener application={daemon} protocol=6 "
        "direction=1 action=1 enabled=True result=True",
        "INetFwRule::Release", "INetFwRules::Release", "INetFwPolicy2::Release", "CoUninitialize",
    ]


def stop_lines(bench):
    """And those of a stop, in their order."""
    name = f"RUVO TUN ({windows_path(bench.application / 'ruvod.exe')})"
    return [
        *APARTMENT,
        "CoCreateInstance class=NetFwPolicy2 context=1 result=True",
        "INetFwPolicy2::get_Rules result=True",
        f"INetFwRules::Remove name={name} result=True",
        "INetFwRules::Release", "INetFwPolicy2::Release", "CoUninitialize",
        *["FwpmFilterDeleteById0 id=ID result=True"] * tunnel.FILTERS,
        "FwpmSubLayerDeleteByKey0 key=KEY result=True",
        "FwpmEngineClose0 result=True",
    ]


def firewall_calls(bench, after):
    """What was called of filtering engine and firewall from entry `after` of the journal on, a line each."""
    lines = []
    for entry in bench.journal.entries()[after:]:
        if not tunnel.OF_THE_FIREWALL.match(entry["call"]):
            continue
        rest = {key: value for key, value in entry.items() if key not in VOLATILE}
        rest |= {key: stand_in for key, stand_in in (("id", "ID"), ("key", "KEY"), ("sublayer", "KEY")) if key in rest}
        lines.append(" ".join([entry["call"], *(f"{key}={value}" for key, value in rest.items())]))
    return lines


def test_a_start_and_a_stop_make_these_calls_in_this_order(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    keys = set()
    for _ in range(2):
        before = len(bench.journal.entries())
        tunnel.start(client)
        assert firewall_calls(bench, before) == start_lines(bench)
        sublayer, = bench.filters.sublayers()
        assert {each["sublayer"] for each in bench.filters.filters()} == {sublayer["key"]}
        keys.add(sublayer["key"])
        added = [call["id"] for call in bench.journal.calls("FwpmFilterAdd0")[-tunnel.FILTERS:]]
        before = len(bench.journal.entries())
        tunnel.stop(client)
        assert firewall_calls(bench, before) == stop_lines(bench)
        deleted = [call["id"] for call in bench.journal.calls("FwpmFilterDeleteById0")[-tunnel.FILTERS:]]
        assert deleted == added
        assert not any(tunnel.against_leaks(bench).values())
    assert len(keys) == 2, "a sublayer is known by a new key in each start"


def test_a_daemon_that_is_killed_leaves_no_filter_and_its_rule_is_replaced(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    assert len(bench.filters.filters()) == tunnel.FILTERS
    rule, = bench.firewall_rules()
    assert rule["name"] == f"RUVO TUN ({windows_path(bench.application / 'ruvod.exe')})"
    os.kill(bench.daemon_pid(), signal.SIGKILL)
    wait_for(lambda: not bench.daemon_pids(), 10, "the end of the daemon")
    wait_for(lambda: not bench.filters.sessions(), 10, "the end of its session")
    assert (bench.filters.filters(), bench.filters.sublayers()) == ([], [])
    assert bench.firewall_rules() == [rule]

    bench.start()
    client = bench.client()
    tunnel.start(client)
    assert bench.firewall_rules() == [rule], "the old one is not left beside the new one"
    tunnel.stop(client)
    assert bench.firewall_rules() == []


def test_a_program_that_is_missing_is_not_let_through(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    for program, file, warning in (
            ("core", "core/xray.exe", "Failed to add filters for xray.exe - proxy DNS may not work"),
            ("app", "Ruvo.exe", "Failed to add filters for Ruvo.exe - GUI DNS may not work")):
        present, away = bench.application / file, bench.directory / "away.exe"
        present.rename(away)
        path = windows_path(present).replace("\\", "\\\\")
        bench.log.expect(rf"^{re.escape('Failed to get AppID for')} \"{re.escape(path)}\"$")
        bench.log.expect(f"^{re.escape(warning)}$")
        for line in (rf"^\[WFP\] Created {tunnel.FILTERS - 4} filters$",
                     rf"^\[FILTER-CHECK\] 🔍 Verifying {tunnel.FILTERS - 4} filters still exist\.\.\.$",
                     rf"^\[FILTER-CHECK\] {tunnel.FILTERS - 4} filters exist, 0 are MISSING$"):
            bench.log.allow(line)
        tunnel.start(client)
        uplink = index_of(bench, "uplink")
        assert not bench.filters.would_pass(program, 4, uplink, 53)
        assert bench.filters.would_pass("daemon", 4, uplink, 53)
        tunnel.stop(client)
        away.rename(present)
