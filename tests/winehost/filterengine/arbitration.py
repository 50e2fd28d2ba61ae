"""Which filter decides on a connection: Windows' rules, without anything that asks or changes a machine."""

from collections import namedtuple
from dataclasses import dataclass

LAYERS = ("connect-v4", "connect-v6", "accept-v4", "accept-v6")
FIELDS = {"app-id": str, "interface-index": int, "remote-port": int}
ACTIONS = ("permit", "block")

# A condition holds when the field equals the value.
Condition = namedtuple("Condition", "field value")


@dataclass(frozen=True)
class Filter:
    """A filter as it was added. Between filters of one sublayer the weight decides, 0 to 15."""

    id: int
    layer: str
    sublayer: str
    name: str
    description: str
    flags: int
    weight: int
    action: str
    conditions: tuple


@dataclass(frozen=True)
class Traffic:
    """What filters look at: a connection that a program makes or takes. None fits no condition's value."""

    layer: str
    program: str | None
    interface: int | None
    port: int | None  # the other end's

    def value(self, field):
        return {"app-id": self.program, "interface-index": self.interface, "remote-port": self.port}[field]


@dataclass(frozen=True)
class Verdict:
    """Whether traffic passes, and the filter that decided it; None if no filter has to do with it."""

    passes: bool
    filter: Filter | None = None


def matches(rule, traffic):
    """Conditions on one field are alternatives, those on different fields have to hold all."""
    if rule.layer != traffic.layer:
        return False
    fields = {condition.field for condition in rule.conditions}
    return all(any(condition.value == traffic.value(field) for condition in rule.conditions if condition.field == field)
               for field in fields)


def judge(filters, traffic):
    """In each sublayer the heaviest filter that matches decides; over all sublayers, a block outweighs permits.

    Of filters with the same weight the one with more conditions comes first, as the weight that Windows adds to a
    number from 0 to 15 grows with them; then the older one.
    """
    deciding = {}
    for rule in filters:
        if not matches(rule, traffic):
            continue
        best = deciding.get(rule.sublayer)
        if best is None or _precedence(rule) > _precedence(best):
            deciding[rule.sublayer] = rule
    blocks = [rule for rule in deciding.values() if rule.action == "block"]
    if blocks:
        return Verdict(False, blocks[0])
    return Verdict(True, next(iter(deciding.values()), None))


def _precedence(rule):
    return rule.weight, len(rule.conditions), -rule.id
