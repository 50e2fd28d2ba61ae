"""Starts and stops of the complete tunnel, one call in each of which fails, drawn by lot: whatever it is, nothing is
left on the machine but what the failing call itself was to take away."""

import os
import random

import pytest

from bench import tunnel, volume, wait_for
from bench.holdings import held, is_back
from bench.network import ip

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

ACCESS_DENIED = 5
# As an HRESULT, and as the number that it is without a sign.
E_ACCESSDENIED = 0x80070005
# Calls that fail by plan and stand in no journal when they work: how often a start makes them.
SILENT_CALLS = {"WSASocketW": 3, "bind": 1, "listen": 1, "CreateIoCompletionPort:associate": 1}
# Calls of a journal that cannot be made to fail: they cannot fail in Windows, or what they do is told, not done.
NO_FAILURE = ("Wintun", "Initialize", "FwpmFreeMemory0", "FwpmEngineClose0", "CoUninitialize")
WINTUN_FAILURES = ("WintunOpenAdapter", "WintunCreateAdapter", "WintunStartSession", "WintunGetRunningDriverVersion")


def can_fail(call):
    if call.endswith("::Release") or call in ("SetServiceStatus", "setsockopt"):
        return False
    return call in WINTUN_FAILURES or not call.startswith(NO_FAILURE)


def of_com(call):
    return "::" in call and not call.startswith("CreateIo") or call.startswith("Co")


def calls_of_a_cycle(bench, client):
    """What a start and a stop call: [(function, how often)]."""
    bench.plan_failures()
    before = len(bench.journal.entries())
    tunnel.start(client)
    tunnel.stop(client)
    counts = dict(SILENT_CALLS)
    for entry in bench.journal.entries()[before:]:
        if can_fail(entry["call"]):
            counts[entry["call"]] = counts.get(entry["call"], 0) + 1
    return sorted(counts.items())


def machine(bench):
    """All that a tunnel changes on the machine and that outlives a handle."""
    return {"adapters": [adapter.name for adapter in tunnel.adapters(bench)], "addresses": tunnel.addresses(bench),
            "routes": sorted(tunnel.routes(bench)), "filters": bench.filters.filters(),
            "sublayers": bench.filters.sublayers(), "sessions": bench.filters.sessions(),
            "firewall rules": bench.firewall_rules()}


def what_stays(bench, before):
    """{what: items that were not there before}"""
    now = machine(bench)
    for what, items in before.items():
        assert all(item in now[what] for item in items), f"{what}: {items} before, {now[what]} now"
    new = {what: [item for item in now[what] if item not in items] for what, items in before.items()}
    return {what: items for what, items in new.items() if items}


def take_away(bench, left):
    """What a call that failed has left, so that the next cycle finds the machine as it was."""
    for route in left.get("routes", []):
        ip("-n", bench.network.name("host"), "route", "del", *route.split())
    if "firewall rules" in left:
        bench.forget_firewall_rules()


def expected_rest(call, answer, left):
    """Whether what stays is what the failing call was to take away, or nothing."""
    if not left:
        return True
    if call == "DeleteIpForwardEntry2":
        return list(left) == ["routes"] and len(left["routes"]) == 1
    removes_rule = call == "INetFwRules::Remove" or of_com(call)
    return removes_rule and answer["success"] and list(left) == ["firewall rules"] and len(left["firewall rules"]) == 1


def test_a_call_drawn_by_lot_fails_in_each_start_and_stop(tunnel_bench):
    bench = tunnel_bench
    seed = int(os.environ.get("RUVOD_SEED", random.randrange(1 << 32)))
    print(f"RUVOD_SEED={seed}")
    chance = random.Random(seed)
    bench.log.allow("")  # every failure is logged; which ones is the business of other tests
    client = bench.client()
    calls = calls_of_a_cycle(bench, client)
    calls_of_a_cycle(bench, client)
    machine_before, before = machine(bench), held(bench)

    ended, rests = 0, {}
    for _ in range(volume(200, 30)):
        call, most = chance.choice(calls)
        number = chance.randint(1, most)
        bench.plan_failures(f"{call} {number} {E_ACCESSDENIED if of_com(call) else ACCESS_DENIED}")
        answer = client.request("start-tun", 60)
        if answer["success"]:
            assert tunnel.is_running(client)
            tunnel.stop(client)
        else:
            ended += 1
            assert not tunnel.is_running(client)
        what = f"{call} {number}, start-tun: {answer}"
        left = what_stays(bench, machine_before)
        assert expected_rest(call, answer, left), f"{what}; left: {left}"
        if left:
            rests[f"{call} {number}"] = left
            bench.plan_failures()
            take_away(bench, left)
        assert not what_stays(bench, machine_before), what
    print(f"{ended} starts failed; what stayed: {rests}")

    bench.plan_failures()
    try:
        wait_for(lambda: is_back(held(bench), before), 20, "everything to be as before", interval=0.5)
    finally:
        print(f"  before: {before}\n  after:  {held(bench)}")
    tunnel.start(client)
    assert len(bench.filters.filters()) == tunnel.FILTERS
    tunnel.stop(client)
