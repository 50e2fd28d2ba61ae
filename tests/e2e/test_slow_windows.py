"""A Windows that takes its time: the daemon stands still for seconds, and nobody loses anything by it."""

import time

import pytest

from bench import tunnel

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

DELAYS = {"WintunCreateAdapter": 5000, "SetInterfaceDnsSettings": 3000, "CoInitializeEx": 4000}
# By when a check of the heartbeats that comes late has judged everybody.
JUDGED_AFTER_S = 3


def answers(client, request):
    return [message for message in list(client.messages) if message.get("request-id") == request]


def test_a_start_that_windows_holds_up_costs_no_client_its_connection(tunnel_bench):
    """The service thread waits for 12 s, longer than a client may be silent: whoever it cannot hear meanwhile stays."""
    bench = tunnel_bench
    bench.plan_failures(*(f"{call} 1 delay {ms}" for call, ms in DELAYS.items()))
    starter, other, quiet = bench.client(), bench.client(), bench.client(heartbeat=False)
    assert quiet.request("heartbeat")["status"] == "success"
    asked = time.monotonic()
    starter.send({"action": "start-tun", "request-id": "slow"})
    waits = []
    answered = None
    while answered is None or time.monotonic() < answered + JUDGED_AFTER_S:
        sent = time.monotonic()
        assert other.request("heartbeat", timeout=40)["status"] == "success"
        waits.append(time.monotonic() - sent)
        if answered is None and answers(starter, "slow"):
            answered = time.monotonic()
        time.sleep(0.05)
    print(f"the start took {answered - asked:.1f} s, a heartbeat meanwhile {max(waits):.1f} s at most")
    assert starter.expect({"request-id": "slow"})["success"]
    assert answered - asked > sum(DELAYS.values()) / 1000

    assert all(client.is_connected() for client in (starter, other, quiet))
    assert not [text for text in bench.log.texts() if "timed out" in text]
    assert quiet.request("heartbeat")["status"] == "success"
    assert {entry["call"]: entry["delayed"] for entry in bench.journal.entries() if "delayed" in entry} == DELAYS
    assert tunnel.is_running(other)
    tunnel.stop(other)
