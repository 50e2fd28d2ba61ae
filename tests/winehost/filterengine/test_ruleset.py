"""The text of the kernel's rules; what they do is seen in test_enforcement.py."""

from filterengine.arbitration import Condition, Filter
from filterengine.ruleset import Group, update

CORE = r"\device\harddiskvolume26\core\xray.exe"
WINE = Group("wine", 2, None)
GROUPS = [WINE, Group("core", 2, CORE)]


def rules(layer, *lines):
    """Filters of one sublayer, a (weight, action, field, value) each."""
    return [Filter(1001 + number, layer, "{A}", "n", "", 0, weight, action,
                   (Condition(field, value),) if field else ())
            for number, (weight, action, field, value) in enumerate(lines)]


def added(family, filters, groups=None):
    """The rules of each chain: "CHAIN RULE" lines without what makes them commands."""
    lines = update(family, filters, GROUPS if groups is None else groups).splitlines()
    prefix = f"add rule {family} ruvod_filters "
    assert lines[:3] == [f"flush chain {family} ruvod_filters {name}" for name in ("outgoing", "judge", "judge_echo")]
    assert all(line.startswith(prefix) for line in lines[3:])
    return [line.removeprefix(prefix).strip() for line in lines[3:]]


def test_where_nothing_is_blocked_there_are_no_rules():
    assert added("ip", []) == []
    assert added("ip", rules("connect-v4", (13, "permit", "app-id", CORE), (11, "permit", "interface-index", 7))) == []
    # A block that a permit outweighs, one of another family, and one of what comes in.
    assert added("ip", rules("connect-v4", (9, "block", "remote-port", 53), (10, "permit", None, None))) == []
    assert added("ip", rules("connect-v6", (9, "block", None, None))) == []
    assert added("ip6", rules("accept-v6", (9, "block", None, None))) == []


def test_only_the_ports_in_question_are_looked_at():
    filters = rules("connect-v4", (13, "permit", "app-id", CORE), (11, "permit", "interface-index", 7),
                    (10, "block", "remote-port", 53))
    assert added("ip", filters) == [
        "outgoing tcp dport 53 socket wildcard { 0, 1 } goto judge",
        "outgoing udp dport 53 socket wildcard { 0, 1 } goto judge",
        'judge socket cgroupv2 level 2 "wine" accept',
        'judge socket cgroupv2 level 2 "core" accept',
        "judge th dport 53 oif != { 7 } goto refuse",
        'judge_echo socket cgroupv2 level 2 "wine" accept',
        'judge_echo socket cgroupv2 level 2 "core" accept',
    ]


def test_what_is_blocked_whole_has_echoes_too_and_answers_that_pass():
    filters = rules("connect-v6", (13, "permit", "app-id", CORE), (12, "block", None, None))
    assert added("ip6", filters, [WINE]) == [
        "outgoing meta l4proto tcp tcp flags & (syn | ack) == syn socket wildcard { 0, 1 } goto judge",
        "outgoing meta l4proto . ip6 daddr . th dport . th sport @taken accept",
        "outgoing meta l4proto tcp socket wildcard { 0, 1 } goto judge",
        "outgoing meta l4proto udp socket wildcard { 0, 1 } goto judge",
        "outgoing icmpv6 type echo-request goto judge_echo",
        'judge socket cgroupv2 level 2 "wine" accept',
        "judge goto refuse",
        'judge_echo socket cgroupv2 level 2 "wine" accept',
        "judge_echo goto refuse",
    ]


def test_a_program_may_be_refused_what_others_may():
    filters = rules("connect-v4", (13, "block", "app-id", CORE), (14, "permit", "remote-port", 80))
    assert added("ip", filters, GROUPS[1:]) == [
        "outgoing meta l4proto tcp socket wildcard { 0, 1 } goto judge",
        "outgoing meta l4proto udp socket wildcard { 0, 1 } goto judge",
        "outgoing icmp type echo-request goto judge_echo",
        'judge socket cgroupv2 level 2 "core" th dport != { 80 } goto refuse',
        'judge socket cgroupv2 level 2 "core" accept',
        'judge_echo socket cgroupv2 level 2 "core" goto refuse',
        'judge_echo socket cgroupv2 level 2 "core" accept',
    ]
