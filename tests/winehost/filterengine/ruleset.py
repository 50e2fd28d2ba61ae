"""nftables' rules that do what the arbitration says, as text.

Programs, interfaces and ports that no filter names are all alike, so the verdict on one of each kind is that on all.
Rules stand for refused cells of that table alone; what no rule speaks of passes.
"""

from dataclasses import dataclass

from .arbitration import Traffic, judge

TABLE = "ruvod_filters"
FAMILIES = {"ip": "connect-v4", "ip6": "connect-v6"}
_ECHO = {"ip": "icmp type echo-request", "ip6": "icmpv6 type echo-request"}
# A connection or a flow of datagrams as this machine sees it.
_FLOW_OUT = "meta l4proto . ip6 daddr . th dport . th sport"
_FLOW_IN = "meta l4proto . ip6 saddr . th sport . th dport"
_FLOWS = "type inet_proto . ipv6_addr . inet_service . inet_service; size 65535; flags dynamic,timeout;"


@dataclass(frozen=True)
class Group:
    """A control group of processes: all are this program; None: they are judged elsewhere and pass here."""

    path: str  # as nftables wants it, relative to /sys/fs/cgroup
    level: int  # how deep it lies below the root
    program: str | None

    def match(self):
        return f'socket cgroupv2 level {self.level} "{self.path}"'


def skeleton():
    """The tables without any rule that refuses, instead of those that may be there.

    Those of IPv6 keep in mind, from the start, which connections and flows others have begun: what answers them is no
    connection of this machine. The kernel's own tracking of connections would put fragments together on their way
    through the machine, and slow all down. IPv4 has only certain ports blocked, so nothing like it.
    """
    chains = """
        chain refuse {
            meta l4proto tcp reject with tcp reset
            drop
        }
        chain judge {
        }
        chain judge_echo {
        }
        chain outgoing {
            type filter hook output priority filter; policy accept;
        }"""
    return f"""{removal()}
    table ip {TABLE} {{{chains}
    }}
    table ip6 {TABLE} {{
        set taken {{
            {_FLOWS} timeout 1m;
        }}
        set begun {{
            {_FLOWS} timeout 1m;
        }}{chains}
        chain note_incoming {{
            type filter hook input priority filter; policy accept;
            tcp flags & (syn | ack) == syn update @taken {{ {_FLOW_IN} timeout 1d }}
            meta l4proto udp {_FLOW_IN} != @begun update @taken {{ {_FLOW_IN} }}
        }}
        chain note_outgoing {{
            type filter hook output priority filter - 10; policy accept;
            meta l4proto udp {_FLOW_OUT} != @taken update @begun {{ {_FLOW_OUT} }}
        }}
    }}
    """


def removal():
    """Removes the tables, whether they are there or not."""
    return "".join(f"table {family} {TABLE} {{ }}\ndelete table {family} {TABLE}\n" for family in FAMILIES)


def update(family, filters, groups):
    """Makes a family's rules those of `filters`, in one step. The text is the same when the rules are."""
    chains = _chains(FAMILIES[family], _ECHO[family], filters, groups, answers_pass=family == "ip6")
    lines = [f"flush chain {family} {TABLE} {name}" for name in chains]
    lines += [f"add rule {family} {TABLE} {name} {rule}" for name, rules in chains.items() for rule in rules]
    return "".join(line + "\n" for line in lines)


def _chains(layer, echo, filters, groups, answers_pass):
    rules = [rule for rule in filters if rule.layer == layer]
    interfaces = _named(rules, "interface-index")
    ports = _named(rules, "remote-port")

    def refused(program):
        """The cells of a program that are refused: [(interface, port), …], None for all that no filter names."""
        return [(interface, port) for port in [*ports, None] for interface in [*interfaces, None]
                if not judge(rules, Traffic(layer, program, interface, port)).passes]

    cells = {group: refused(group.program) if group.program else [] for group in groups}
    others = refused(None)
    all_cells = [cell for some in [*cells.values(), others] for cell in some]
    chains = {"outgoing": _entry(all_cells, echo, answers_pass), "judge": [], "judge_echo": []}
    if not all_cells:
        return chains
    for group in groups:
        _refuse(chains, cells[group], interfaces, ports, group.match() + " ")
        for chain in ("judge", "judge_echo"):
            chains[chain].append(f"{group.match()} accept")
    _refuse(chains, others, interfaces, ports, "")
    return chains


def _named(rules, field):
    return sorted({condition.value for rule in rules for condition in rule.conditions if condition.field == field})


def _entry(cells, echo, answers_pass):
    """What is looked at closer. A packet without a socket (the last words of a closed connection) is nobody's.

    A beginning of a connection is never an answer, whatever had the same ends before.
    """
    ports = {port for _, port in cells}
    if not ports:
        return []
    # Plain comparisons, which cost the packets that they do not concern least.
    packets = {protocol: [f"meta l4proto {protocol}"] if None in ports else
               [f"{protocol} dport {port}" for port in sorted(ports)] for protocol in ("tcp", "udp")}
    judged = "socket wildcard { 0, 1 } goto judge"
    rules = [f"{packet} {judged}" for protocol in packets for packet in packets[protocol]]
    if answers_pass:
        begins = [f"{packet} tcp flags & (syn | ack) == syn {judged}" for packet in packets["tcp"]]
        rules = [*begins, f"{_FLOW_OUT} @taken accept", *rules]
    return rules + ([f"{echo} goto judge_echo"] if None in ports else [])


def _refuse(chains, cells, interfaces, ports, program):
    for interface, port in cells:
        leaves_by = _match("oif", interface, interfaces)
        chains["judge"].append(f"{program}{_match('th dport', port, ports)}{leaves_by}goto refuse")
        if port is None:
            chains["judge_echo"].append(f"{program}{leaves_by}goto refuse")


def _match(what, value, named):
    if value is not None:
        return f"{what} {value} "
    return f"{what} != {_set(named)} " if named else ""


def _set(values):
    return "{ " + ", ".join(map(str, values)) + " }"
