"""The tunnel started and stopped again and again: what the daemon and the machine hold is the same before and after."""

import contextlib
import time

import pytest

from bench import tunnel, volume, wait_for
from bench.flood import Flood
from bench.holdings import held, is_back

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

def cycle(bench, client, configurations, count):
    for number in range(count):
        tunnel.start(client, **configurations[number % len(configurations)])
        tunnel.stop(client)


# One adapter always; names and addresses that change; packets that arrive all the time.
DEFAULT = [{}]
CHANGING = [{"adapter_name": f"tunnel {number}", "tunnel_ip": f"10.{number}.0.1", "bypass_ips": [f"1.2.3.{number}"]}
            for number in range(1, 8)]


@pytest.mark.parametrize("configurations, whole, share, flooded", [
    pytest.param(DEFAULT, 500, 50, False, id="default"),
    pytest.param(CHANGING, 500, 20, False, id="changing"),
    pytest.param(DEFAULT, 200, 10, True, id="flooded"),
])
def test_cycles_leave_nothing_behind(tunnel_bench, configurations, whole, share, flooded):
    bench = tunnel_bench
    client = bench.client()
    count = volume(whole, share)
    # Before the tunnel is there, the packets go to the gateway, which drops them.
    with Flood(bench, "203.0.113.99", senders=1) if flooded else contextlib.nullcontext():
        cycle(bench, client, configurations, 5 + len(configurations))
        before = held(bench)
        started = time.monotonic()
        cycle(bench, client, configurations, count)
        took = time.monotonic() - started
    try:
        wait_for(lambda: is_back(held(bench), before), 20, "everything to be as before", interval=0.5)
    finally:
        print(f"{count} cycles in {took:.1f} s\n  before: {before}\n  after:  {held(bench)}")
    ended = bench.journal.calls("WintunEndSession")
    assert len(ended) == len(bench.journal.calls("WintunCloseAdapter", removed=True)) == count + 5 + len(configurations)
    assert not flooded or sum(call["received"] for call in ended) > 100 * count
