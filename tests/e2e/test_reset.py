"""Connections are reset while there is traffic: the engine's go, relays go on, and new ones wait for a second."""

import json
import re
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from datetime import datetime, timedelta
from threading import Event

import pytest

from bench import both_ends, core, guest, sockets, traffic, tunnel
from bench.both_ends import Sender
from bench.machine import volume
from bench.network import SERVER6
from bench.waiting import wait_for

WEB = (traffic.SERVER, 80)
GUESTS_PORT = 9101  # where nobody but the guest connects to
SECOND = timedelta(seconds=1)
INTERFACE = "[RESET] Interface metric: 0 AutoMetric: false Forwarding: true"
DONE = "Connection reset complete - starting proxy health check"
CHECKING = "[RESET] 🔍 Checking if WFP filters survived connection reset..."
WAITING = "[RESET] Waiting 1000ms for xray to initialize..."
READY = "[RESET] Proxy marked ready after 1000ms initialization delay"

with_guest = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)
without_guest = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)


@pytest.fixture(autouse=True)
def usual_lines(bench):
    """What every reset logs at warning level or above."""
    for text in (INTERFACE, CHECKING):
        bench.log.allow(f"^{re.escape(text)}$")
    bench.log.allow(r"^\[WINDOW-DEBUG\] ACK to ")  # that says no to a connection


def reset(client):
    answer = client.request("reset-connections", 20)
    assert {key: value for key, value in answer.items() if key != "request-id"} == {"status": "success"}


def times(bench, text):
    """When the daemon logged that."""
    return [datetime.strptime(line.time, "%Y-%m-%d %H:%M:%S.%f") for line in bench.log.lines() if line.text == text]


def time_held(bench):
    """How long the last reset has kept the service thread from all else, as the log tells."""
    began = None
    for line in bench.log.lines():
        at = datetime.strptime(line.time, "%Y-%m-%d %H:%M:%S.%f")
        if line.text.startswith("Client ") and 'action: "reset-connections"' in line.text:
            began, held = at, None
        elif began and not held and line.text.startswith("Sending response to client"):
            held = at - began
    return held


def refused_until(bench, role):
    """Connects again and again while that is refused; when it was not any more."""
    while True:
        try:
            with sockets.tcp(bench, WEB, role):
                return datetime.now()
        except ConnectionRefusedError:
            time.sleep(0.01)


def at_inbound(bench):
    """The daemon's connections to the proxy inbound, by the ports that they come from."""
    words = [*bench.network.enter("host"), "ss", "-Htn", "state", "established", f"dport = :{core.PROXY_PORT}"]
    rows = subprocess.run(words, capture_output=True, text=True, timeout=20, check=True).stdout.splitlines()
    return {row.split()[2].rpartition(":")[2] for row in rows}


@contextmanager
def asking_for_names(bench, *roles):
    """Looks names up from there all the time; what has no answer for 3 s is asked again. The answers, by role."""
    ended, answered = Event(), dict.fromkeys(roles, 0)

    def ask(role):
        while not ended.is_set():
            try:
                found = traffic.dig(bench, "web.test", role=role, timeout=3)
            except AssertionError:
                continue
            assert found == [traffic.NAMES["web.test"]]
            answered[role] += 1
    with ThreadPoolExecutor(len(roles)) as pool:
        asked = [pool.submit(ask, role) for role in roles]
        try:
            yield answered
        finally:
            ended.set()
        for each in asked:
            each.result(30)


def iperf3_that_gives_up(bench, streams):
    """An upload of the guest for a minute, unless nothing is acknowledged for 3 s: what iperf3 says."""
    words = ["iperf3", "--json", "--client", traffic.SERVER, "--port", traffic.IPERF_PORT, "--time", 60,
             "--parallel", streams, "--snd-timeout", 3000]
    done = subprocess.run([*bench.network.enter("guest"), *map(str, words)], capture_output=True, text=True,
                          timeout=90, check=False)
    return json.loads(done.stdout)["error"]


@with_guest
@pytest.mark.debug_log
@pytest.mark.timeout(300)
@pytest.mark.usefixtures("servers")
def test_under_load_the_engines_connections_go_and_relays_go_on(running, guest_client):
    guest.route_ipv6_into_tunnel(running)
    size, streams, flows = volume(1 << 30, 300_000_000), 4, 3
    with ThreadPoolExecutor(3) as pool, both_ends.connections(running) as [(relay_client, relay_server)], \
            asking_for_names(running, "host", "guest") as answered:
        sender = Sender(relay_server, size)
        reading = pool.submit(both_ends.expect_known, relay_client, size, pause=0.02, every=1 << 20)
        relays = wait_for(lambda: at_inbound(running), 10, "the relay")
        assert len(relays) == 1

        iperf3 = pool.submit(iperf3_that_gives_up, running, streams)
        endpoints = [sockets.udp(running, "guest", ("::", 0)) for _ in range(flows)]
        for endpoint in endpoints:
            endpoint.sendto(b"ping", (SERVER6, traffic.ECHO[1]))
        with both_ends.connections(running, 3, port=GUESTS_PORT, role="guest") as pairs, guest.Tap(running) as tap:
            flood = Sender(pairs[0][1], 1 << 30)  # a download of the guest
            draining = pool.submit(both_ends.receive_all, pairs[0][0])
            pairs[0][0].settimeout(4)
            wait_for(lambda: len(at_inbound(running)) == 1 + streams + 1 + flows + 3, 20, "all connections")
            wait_for(lambda: flood.sent > 20_000_000 and min(answered.values()) > 2, 20, "traffic")
            assert 0 < sender.sent < size and not iperf3.done()

            reset(guest_client)
            answered_before = dict(answered)
            for role in ("guest", "host"):
                with pytest.raises(ConnectionRefusedError):
                    sockets.tcp(running, WEB, role)
            assert at_inbound(running) == relays
            assert not times(running, READY), "all of that came too late to tell"
            with ThreadPoolExecutor(2) as others:
                opened = list(others.map(refused_until, [running] * 2, ("guest", "host")))

            # Nobody has told the guest: what it sends is not acknowledged, and nothing comes.
            assert isinstance(draining.result(20)[1], TimeoutError)
            assert iperf3.result(60).endswith("Connection timed out")
            for client, server in pairs[1:]:
                client.settimeout(1)
                with pytest.raises(TimeoutError):
                    client.recv(1)
                assert both_ends.receive_all(server)[0] == b""
            assert not [segment for segment in tap.to_guest()
                        if segment.source[1] == GUESTS_PORT and segment.flags & (guest.RST | guest.FIN)]
        [began], [ready] = times(running, WAITING), times(running, READY)
        assert ready - began >= SECOND and min(opened) - began >= SECOND
        print(f"\nready {(ready - began).total_seconds():.3f} s after the wait began, "
              f"connections {[f'{(each - began).total_seconds():.3f} s' for each in opened]}")

        assert reading.result(240) > 0  # every byte, in its order
        sender.finish()
        assert traffic.peer(running, "guest") == traffic.PEERS["proxy"] == traffic.peer(running)
        wait_for(lambda: all(answered[role] > answered_before[role] + 2 for role in answered), 20, "names")
    for endpoint in endpoints:
        endpoint.close()
    held = time_held(running).total_seconds()
    print(f"the service thread was held for {held * 1000:.0f} ms")
    assert 0.1 <= held < 2


@without_guest
@pytest.mark.debug_log
def test_a_reset_says_what_it_does(running, tunnel_client):
    lines = len(running.log.lines())
    reset(tunnel_client)
    running.log.wait_for(READY)
    texts = (INTERFACE, DONE, CHECKING, WAITING, READY, "✓ DNS resolver cache flushed",
             "RuvoTunManager: All connections reset")
    told = [(line.level, line.text) for line in running.log.lines()[lines:] if line.text in texts]
    assert told[:4] == [("DEBUG", texts[5]), ("WARNING", INTERFACE), ("DEBUG", DONE), ("CRITICAL", CHECKING)]
    # The thread that waits for the proxy and the one that answers do not wait for each other.
    assert sorted(told[4:]) == sorted([("DEBUG", WAITING), ("DEBUG", texts[6]), ("DEBUG", READY)])
    assert told[-1] == ("DEBUG", READY)
    print(f"\na reset without connections holds the service thread for {time_held(running).total_seconds() * 1000:.0f} ms")


@without_guest
@pytest.mark.debug_log
def test_two_in_quick_succession_refuse_until_a_second_after_the_second(running, tunnel_client):
    reset(tunnel_client)
    reset(tunnel_client)
    opened = refused_until(running, "host")
    _, second = times(running, WAITING)
    [ready] = running.log.wait_for(READY)
    assert times(running, READY)[0] - second >= SECOND and opened - second >= SECOND
    assert ready.level == "DEBUG"
    assert traffic.peer(running) == traffic.PEERS["proxy"]


@without_guest
@pytest.mark.debug_log
def test_a_stop_does_not_wait_for_the_second_and_the_next_tunnel_does_not_either(running, tunnel_client):
    reset(tunnel_client)
    began = time.monotonic()
    tunnel.stop(tunnel_client)
    took = time.monotonic() - began
    print(f"\nstopped within {took:.2f} s")
    assert took < 5 and not times(running, READY)
    tunnel.start(tunnel_client)
    assert traffic.peer(running) == traffic.PEERS["proxy"]
    assert not times(running, READY)


@without_guest
@pytest.mark.debug_log
def test_without_a_tunnel_there_is_nothing_to_reset(running):
    running.log.expect(r"^RuvoTunManager: Cannot reset connections - TUN not running$")
    client = running.client()
    reset(client)
    running.log.wait_for("Cannot reset connections")
    assert not [text for text in running.log.texts() if "[RESET]" in text or "resolver cache" in text]


@without_guest
def test_filters_whose_session_somebody_has_ended_are_all_named(running, tunnel_client):
    numbers = [each["id"] for each in running.filters.filters()]
    assert len(numbers) == tunnel.FILTERS
    session, = running.filters.sessions()
    running.filters.end_behind_back(session["id"])
    assert not any((running.filters.filters(), running.filters.sublayers(), running.filters.sessions()))
    missing = [f"[FILTER-CHECK] ❌ Filter ID {number} is MISSING! Error: 6" for number in numbers]
    counted = f"[FILTER-CHECK] 0 filters exist, {tunnel.FILTERS} are MISSING"
    disappeared = "[FILTER-CHECK] 🔥🔥🔥 FILTERS DISAPPEARED WITHOUT CLEANUP! 🔥🔥🔥"
    for text in (*missing, counted, disappeared):
        running.log.expect(f"^{re.escape(text)}$")
    before = len(running.log.lines())
    reset(tunnel_client)
    running.log.wait_for("FILTERS DISAPPEARED WITHOUT CLEANUP!")
    checked = [text for text in running.log.texts()[before:] if text.startswith("[FILTER-CHECK]")]
    assert checked[1:] == [*missing, counted, disappeared]

    # What cannot be deleted any more is no trouble, and the next tunnel has filters of its own.
    calls = len(running.journal.entries())
    tunnel.stop(tunnel_client)
    stopped = [entry for entry in running.journal.entries()[calls:] if entry["call"].startswith("Fwpm")]
    assert {(entry["result"], entry["error"]) for entry in stopped} == {(False, 6)}
    assert stopped[-1]["call"] == "FwpmEngineClose0"
    assert running.firewall_rules() == []
    tunnel.start(tunnel_client)
    assert len(running.filters.filters()) == tunnel.FILTERS
    tunnel.stop(tunnel_client)
    assert not any(tunnel.against_leaks(running).values())


@without_guest
def test_filters_that_somebody_has_deleted_are_named(running, tunnel_client):
    numbers = [each["id"] for each in running.filters.filters()]
    reset(tunnel_client)
    assert not [text for text in running.log.texts() if "is MISSING!" in text]
    gone = [numbers[0], numbers[len(numbers) // 2], numbers[-1]]
    for number in gone:
        running.filters.delete_behind_back(number)
    left = len(numbers) - len(gone)
    for pattern in (rf"^\[FILTER-CHECK\] {left} filters exist, {len(gone)} are MISSING$",
                    r"^\[FILTER-CHECK\] 🔥🔥🔥 FILTERS DISAPPEARED WITHOUT CLEANUP! 🔥🔥🔥$",
                    *(rf"^\[FILTER-CHECK\] ❌ Filter ID {number} is MISSING! Error: \d+$" for number in gone)):
        running.log.expect(pattern)
    reset(tunnel_client)
    running.log.wait_for("FILTERS DISAPPEARED WITHOUT CLEANUP!")
    assert len([text for text in running.log.texts() if "is MISSING!" in text]) == len(gone)
    tunnel.stop(tunnel_client)
    assert running.filters.filters() == []
