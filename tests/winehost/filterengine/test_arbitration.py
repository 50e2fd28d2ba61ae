"""Which filter decides."""

import itertools

import pytest

from filterengine import app_id
from filterengine.arbitration import Condition, Filter, Traffic, judge

_numbers = itertools.count(1)
MAIL = r"\device\harddiskvolume3\mail.exe"
SHOP = r"\device\harddiskvolume3\shop.exe"


def rule(action, weight, *conditions, layer="connect-v4", sublayer="{A}"):
    return Filter(next(_numbers), layer, sublayer, "a filter", "", 0, weight, action,
                  tuple(Condition(*each) for each in conditions))


def traffic(program=SHOP, interface=2, port=53, layer="connect-v4"):
    return Traffic(layer, program, interface, port)


def test_what_no_filter_matches_passes():
    assert judge([], traffic()) == judge([rule("block", 1, ("remote-port", 54))], traffic())
    assert judge([], traffic()).passes and judge([], traffic()).filter is None


@pytest.mark.parametrize("condition, value", (
    (("app-id", SHOP), True), (("app-id", MAIL), False), (("app-id", SHOP.upper()), False),
    (("interface-index", 2), True), (("interface-index", 3), False),
    (("remote-port", 53), True), (("remote-port", 80), False)))
def test_a_filter_matches_what_its_condition_says(condition, value):
    assert judge([rule("block", 1, condition)], traffic()).passes is not value


def test_a_filter_is_one_of_its_layer():
    blocked = {layer for layer in ("connect-v4", "connect-v6", "accept-v4", "accept-v6")
               if not judge([rule("block", 1, layer="accept-v6")], traffic(layer=layer)).passes}
    assert blocked == {"accept-v6"}


@pytest.mark.parametrize("program, port, passes", (
    (SHOP, 53, False), (MAIL, 53, False), (SHOP, 54, False), (SHOP, 80, True), (None, 53, True)))
def test_conditions_on_one_field_are_alternatives_and_on_several_all_hold(program, port, passes):
    blocks = rule("block", 1, ("app-id", SHOP), ("remote-port", 53), ("app-id", MAIL), ("remote-port", 54))
    assert judge([blocks], traffic(program, port=port)).passes is passes


@pytest.mark.parametrize("heavier, lighter", (("permit", "block"), ("block", "permit")))
def test_in_a_sublayer_the_heavier_filter_decides(heavier, lighter):
    rules = [rule(lighter, 10), rule(heavier, 11), rule(lighter, 1)]
    for order in itertools.permutations(rules):
        verdict = judge(order, traffic())
        assert (verdict.passes, verdict.filter) == (heavier == "permit", rules[1])


def test_a_heavier_filter_that_does_not_match_decides_nothing():
    assert not judge([rule("permit", 15, ("remote-port", 80)), rule("block", 0)], traffic()).passes


def test_over_sublayers_a_block_outweighs_permits():
    rules = [rule("permit", 15, sublayer="{A}"), rule("block", 0, sublayer="{B}"), rule("permit", 15, sublayer="{C}")]
    for order in itertools.permutations(rules):
        assert judge(order, traffic()).filter == rules[1]


def test_of_equal_weights_more_conditions_and_then_age_decide():
    older, younger = rule("permit", 7), rule("block", 7)
    precise = rule("block", 7, ("remote-port", 53))
    assert judge([older, younger], traffic()).passes and judge([younger, older], traffic()).passes
    assert judge([older, precise], traffic()).filter == precise


def test_the_whole_table_of_a_strict_route():
    """Permits for a program over a block of IPv6 over a permit for an interface over a block of a port."""
    rules = [rule("permit", 13, ("app-id", MAIL)), rule("permit", 13, ("app-id", MAIL), layer="connect-v6"),
             rule("block", 12, layer="connect-v6"),
             rule("permit", 11, ("interface-index", 7)), rule("permit", 11, ("interface-index", 7), layer="connect-v6"),
             rule("block", 10, ("remote-port", 53)), rule("block", 10, ("remote-port", 53), layer="connect-v6")]
    passing = {(program, layer[-2:], interface, port)
               for program in (MAIL, SHOP) for layer in ("connect-v4", "connect-v6") for interface in (2, 7)
               for port in (53, 443) if judge(rules, traffic(program, interface, port, layer)).passes}
    assert passing == {(MAIL, family, interface, port)
                       for family in ("v4", "v6") for interface in (2, 7) for port in (53, 443)} | {
        (SHOP, "v4", 7, 53), (SHOP, "v4", 7, 443), (SHOP, "v4", 2, 443)}


def test_app_ids():
    assert app_id.of_windows_path(r"Z:\Work\Ruvo Client\Core\XRAY.exe") == (
        r"\device\harddiskvolume26\work\ruvo client\core\xray.exe")
    assert app_id.of_windows_path(r"c:\Ä.exe") == r"\device\harddiskvolume3\ä.exe"
    for wrong in ("ruvod.exe", r"\ruvod.exe", "Z:ruvod.exe", "/usr/bin/dig", "", "ZZ:\\a"):
        with pytest.raises(ValueError):
            app_id.of_windows_path(wrong)
