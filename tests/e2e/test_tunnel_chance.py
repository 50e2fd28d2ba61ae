"""Starts and stops of the complete tunnel, one call in each of which fails, drawn by lot: whatever it is, nothing is
left on the machine but what the failing call itself was to take away."""

import os
import random
import re

import pytest

from bench import tunnel, volume, wait_for
from bench.holdings import held, is_back
from bench.network import ip

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

ACCESS_DENIED = 5
# As an HRESULT, and as the number that it is without a sign.
E_ACCESSDENIED = 0x80070005
# Calls of the listener that can fail by plan and never stand in the journal: how often a start makes them.
SILENT_CALLS = {"WSASocketW": 2, "bind": 1, "listen": 1, "CreateIoCompletionPort:associate": 1}
# Calls of a journal that are not made to fail: they cannot fail in Windows, or what they do is told, not done; and a
# session of the filtering engine that could not be closed would stay until the daemon's end, as it would in Windows.
NO_FAILURE = ("Wintun", "Initialize", "FwpmFreeMemory0", "FwpmEngineClose0", "CoUninitialize")
# Which occurrence of a call belongs to the removal of the firewall rule at the stop: the start has made those before.
REMOVAL = {"CoInitializeEx": 2, "CoCreateInstance": 3, "INetFwPolicy2::get_Rules": 2, "INetFwRules::Remove": 2}
WINTUN_FAILURES = ("WintunOpenAdapter", "WintunCreateAdapter", "WintunStartSession", "WintunGetRunningDriverVersion")


def can_fail(call):
    if call.endswith("::Release") or call in ("SetServiceStatus", "setsockopt"):
        return False
    return call in WINTUN_FAILURES or not call.startswith(NO_FAILURE)


def of_com(call):
    return call in ("CoInitializeEx", "CoCreateInstance") or call.startswith("INetFw")


def calls_of_a_cycle(bench, client):
    """What a start and a stop call: [(function, how often)]; and the routes that they delete, in order."""
    bench.plan_failures()
    before = len(bench.journal.entries())
    tunnel.start(client)
    tunnel.stop(client)
    counts, deleted = dict(SILENT_CALLS), []
    for entry in bench.journal.entries()[before:]:
        if can_fail(entry["call"]):
            counts[entry["call"]] = counts.get(entry["call"], 0) + 1
        if entry["call"] == "DeleteIpForwardEntry2":
            deleted.append(entry)
    return sorted(counts.items()), deleted


def machine(bench):
    """All that a tunnel changes on the machine and that outlives a handle."""
    return {"adapters": [adapter.name for adapter in tunnel.adapters(bench)], "addresses": tunnel.addresses(bench),
            "routes": sorted(tunnel.routes(bench))} | tunnel.against_leaks(bench)


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


def expected_rest(call, number, rule, deleted):
    """What stays when this call fails: what it was to take away, unless that goes with something else."""
    if REMOVAL.get(call) == number:
        return {"firewall rules": [rule]}
    if call == "DeleteIpForwardEntry2":
        route = deleted[number - 1]
        # The tunnel's own routes go with its adapter.
        if route["interface"] == "uplink":
            return {"routes": [tunnel.bypass_route(route["destination"].removesuffix("/32"))]}
    return {}


def planned_failures(bench, after):
    """What has failed by plan from entry `after` of the journal on."""
    return [entry["call"] for entry in bench.journal.entries()[after:] if entry.get("planned")]


def has_failed(bench, call, entries, lines):
    """Whether this call, and no other, has failed since so many entries of the journal and lines of the log."""
    if call in SILENT_CALLS:
        told = [text for text in bench.log.texts()[lines:] if re.fullmatch(r"\[TCP-NAT\] Failed to .*: 5", text)]
        return len(told) == 1 and planned_failures(bench, entries) == []
    return planned_failures(bench, entries) == [call]


def test_a_call_drawn_by_lot_fails_in_each_start_and_stop(tunnel_bench):
    bench = tunnel_bench
    seed = int(os.environ.get("RUVOD_SEED", random.randrange(1 << 32)))
    print(f"RUVOD_SEED={seed}")
    chance = random.Random(seed)
    bench.log.allow("")  # every failure is logged; which ones is the business of other tests
    client = bench.client()
    calls, deleted = calls_of_a_cycle(bench, client)
    assert calls_of_a_cycle(bench, client)[0] == calls, "a plan would not know which call it is for"
    machine_before, before = machine(bench), held(bench)
    tunnel.start(client)
    rule, = bench.firewall_rules()
    tunnel.stop(client)

    ended, rests = 0, {}
    for _ in range(volume(200, 30)):
        call, most = chance.choice(calls)
        number = chance.randint(1, most)
        bench.plan_failures(f"{call} {number} {E_ACCESSDENIED if of_com(call) else ACCESS_DENIED}")
        entries, lines = len(bench.journal.entries()), len(bench.log.lines())
        answer = client.request("start-tun", 60)
        if answer["success"]:
            assert tunnel.is_running(client)
            tunnel.stop(client)
        else:
            ended += 1
            assert not tunnel.is_running(client)
        what = f"{call} {number}, start-tun: {answer}"
        # Nothing else fails, so that every cycle comes as far as the call that it is about.
        assert has_failed(bench, call, entries, lines), what
        left = what_stays(bench, machine_before)
        assert left == expected_rest(call, number, rule, deleted), what
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
