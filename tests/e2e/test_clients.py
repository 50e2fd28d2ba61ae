"""Clients come, give signs of life, are told things, and go."""

import time

from bench import pipeload, wait_for

CONNECTED = {"event": "connected", "daemon-version": "2.0.1", "privilege-level": 1}


def test_a_client_is_greeted_with_version_and_privilege(running):
    client = running.connect()
    assert client.expect({"event": "connected"}) == CONNECTED


def test_request_ids_of_every_type_come_back_as_they_are(running):
    client = running.client()
    for identity in ["text", "", 7, -1.5, 0, True, None, [1, "a"], {"a": {"b": 1}}]:
        client.send({"action": "heartbeat", "request-id": identity})
        assert client.expect(lambda message: "status" in message) == {"status": "success", "request-id": identity}
    client.send({"action": "heartbeat"})
    assert client.expect(lambda message: "status" in message) == {"status": "success"}


def test_unknown_actions_are_answered_and_change_nothing(running):
    client = running.client()
    for action in ["Start", "HEARTBEAT", " heartbeat", "quit", ""]:
        answer = client.request(action)
        assert (answer["status"], answer["error"]) == ("error", f"Unknown action: {action}")
    client.send({"request-id": 1})
    assert client.expect({"request-id": 1})["error"] == "Unknown action: "
    client.send({"action": 5, "request-id": 2})
    assert client.expect({"request-id": 2})["error"] == "Unknown action: "


def test_the_resolvers_cache_is_flushed_without_a_tunnel_too(running):
    client = running.client()
    assert client.request("flush-dns-cache")["status"] == "success"
    assert len(running.journal.calls("DnsFlushResolverCache", result=True)) == 1
    running.plan_failures("DnsFlushResolverCache * 5")
    running.log.expect("^Failed to flush DNS resolver cache$")
    assert client.request("flush-dns-cache")["status"] == "success", "what came of it is in the log"
    assert len(running.journal.calls("DnsFlushResolverCache")) == 2


def test_a_silent_client_is_dropped_and_one_that_heartbeats_stays(running):
    running.log.expect(r'Client ".*" timed out \(no heartbeat for 10000 ms\)')
    alive = running.client()
    # Other requests are no signs of life.
    chatty = running.client(heartbeat=False)
    started = time.monotonic()
    while chatty.is_connected() and time.monotonic() - started < 25:
        try:
            chatty.send({"action": "list"})
        except AssertionError:
            break
        time.sleep(0.2)  # the pace of the client, not a wait
    took = time.monotonic() - started
    print(f"dropped after {took:.1f} s")
    assert 9.5 < took < 16.5
    assert chatty.wait_closed() == 2
    assert alive.request("heartbeat")["status"] == "success"
    running.log.wait_for("Checking for stale processes in session 1")
    assert not any("Client disconnected" in text for text in running.log.texts()), "one departure, with its own text"


def test_a_departure_is_told_once_with_who_is_left(running):
    stays, goes = running.client(), running.client()
    goes.kill()
    running.log.wait_for("Remaining connected clients: 1")
    running.log.wait_for("Checking for stale processes in session 1")
    assert sum("Client disconnected" in text for text in running.log.texts()) == 1
    assert stays.request("heartbeat")["status"] == "success"


def test_an_equal_or_older_version_is_welcome(running):
    client = running.client()
    for version in ["2.0.1", "2.0.1.0", "2.0.0", "1.99", "2.0.1-beta", ""]:
        answer = client.request("client-hello", log_path=running.log_path(), version=version)
        assert answer["status"] == "success", version
    assert client.request("heartbeat")["status"] == "success"


def test_a_hello_needs_a_log_path(running):
    client = running.client()
    answer = client.request("client-hello", version="99.0")
    assert (answer["status"], answer["error"]) == ("error", "Log path cannot be empty")
    # The version was not looked at: the daemon stays.
    assert client.request("heartbeat")["status"] == "success"


def test_a_newer_client_makes_the_daemon_step_aside_after_the_answer(running):
    client, other = running.client(), running.client()
    pid = running.daemon_pid()
    client.send({"action": "client-hello", "log-path": running.log_path(), "version": "10.0", "request-id": 1})
    assert client.expect({"request-id": 1}) == {
        "status": "restarting", "reason": "Client version is higher than daemon version", "request-id": 1}
    client.wait_closed()
    other.wait_closed()
    running.wait_for_state(1)
    wait_for(lambda: pid not in running.daemon_pids(), what="the end of the daemon")
    texts = running.log.texts()
    order = ["Initiating daemon restart due to version mismatch", "Event loop exited, stopping daemon...",
             "Stopping ruvod daemon...", "Daemon stopped", "Daemon cleanup complete, reporting service stopped"]
    places = [texts.index(text) for text in order]
    assert places == sorted(places)
    # It does not come back by itself, and starts again when it is told to.
    running.start()
    assert running.client().request("heartbeat")["status"] == "success"


def test_the_installers_control_reaches_every_client_and_nobody_goes(bench):
    bench.set_sessions("1 active alice", "2 active bob")
    bench.register()
    bench.start()
    clients = [bench.client(1), bench.client(2), bench.client(2)]
    assert bench.control(128) == 0
    for client in clients:
        assert client.expect({"event": "shutdown"}) == {"event": "shutdown", "reason": "installer-request"}
    assert bench.control(200) == 0
    for client in clients:
        assert client.request("heartbeat")["status"] == "success"
        assert len(client.events("shutdown")) == 1


def test_a_hundred_silent_clients_hold_nobody_up_and_are_dropped_in_time(running):
    running.log.expect(r'Client ".*" timed out \(no heartbeat for 10000 ms\)')
    result, _ = pipeload.run(running, "silent", session=1, count=100, hold=20000, timeout=90)
    print(result)
    assert result["dropped"] == 100
    assert 9500 < min(result["droppedMs"]) and max(result["droppedMs"]) < 16500
    assert running.client().request("heartbeat")["status"] == "success"
