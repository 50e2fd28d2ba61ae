"""The filters against leaks as Windows has them: what they let through, the calls that make them, and their end."""

import itertools
import json

import pytest

from bench import tunnel
from bench.network import ip
from bench.paths import ROOT

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
    # As it would be if the tunnel did not ask for IPv6 to be blocked.
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
