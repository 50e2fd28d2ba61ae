"""Pipes follow the users: one for each session with somebody logged on, as the session list changes."""

import time

from bench import wait_for

POLL = 3  # seconds between two looks at the session list
SLACK = 2  # of a busy machine


def time_until(condition, what):
    start = time.monotonic()
    wait_for(condition, timeout=POLL + 10, what=what)
    return time.monotonic() - start


def polls(bench):
    return bench.journal.calls("WTSEnumerateSessionsW")


def wait_for_polls(bench, count):
    """Waits until the daemon has looked `count` more times, the last time to its end."""
    wanted = len(polls(bench)) + count
    wait_for(lambda: len(polls(bench)) >= wanted, timeout=count * POLL + 10, what=f"{count} more polls")


def started(bench, sessions):
    bench.set_sessions(*sessions)
    bench.register()
    bench.start()
    return bench


def test_only_sessions_with_a_user_get_a_pipe(bench):
    started(bench, [
        "0 active services",
        "1 active alice",
        "2 connected bob",
        "3 disconnected carol",
        "4 active",
        "5 active !1722",
        "6 idle dave",
        "7 listen erin",
        "8 connect-query frank",
        "4294967295 active grace",
    ])
    pipes = [session for session in (*range(9), 4294967295) if bench.has_pipe(session)]
    assert pipes == [1, 2, 4294967295]
    for session in pipes:
        name = f'"\\\\\\\\.\\\\pipe\\\\ruvod-{session}"'
        texts = bench.log.texts()
        created = texts.index(f"Creating pipe for new active session {session}")
        assert texts[created + 1] == f"Named pipe server started for session {session} : {name}"
        assert bench.client(session).request("heartbeat")["status"] == "success"


def test_a_user_who_logs_on_gets_a_pipe_within_a_poll(bench):
    started(bench, ["1 active alice"])
    bench.set_sessions("1 active alice", "2 active bob")
    took = time_until(lambda: bench.has_pipe(2), "the pipe of session 2")
    print(f"a pipe {took:.1f} s after the log-on")
    assert took < POLL + SLACK
    assert bench.client(2).request("heartbeat")["status"] == "success"
    assert bench.log.texts().count("Creating pipe for new active session 2") == 1


def test_a_user_without_name_gets_a_pipe_once_the_name_is_there(bench):
    started(bench, ["1 connected"])
    wait_for_polls(bench, 1)
    assert not bench.has_pipe(1)
    bench.set_sessions("1 active alice")
    assert time_until(lambda: bench.has_pipe(1), "the pipe of session 1") < POLL + SLACK


def test_a_user_who_logs_off_takes_the_pipe_away_but_no_client(bench):
    started(bench, ["1 active alice", "2 active bob"])
    alice, bob = bench.client(1), bench.client(2)
    bench.set_sessions("1 active alice")
    took = time_until(lambda: not bench.has_pipe(2), "the end of the pipe of session 2")
    print(f"no pipe {took:.1f} s after the log-off")
    assert took < POLL + SLACK
    bench.log.wait_for("Removing pipe for inactive session 2")
    wait_for_polls(bench, 2)
    for client in (alice, bob):
        assert client.request("heartbeat")["status"] == "success"
    assert bench.control(128) == 0
    assert bob.expect({"event": "shutdown"})["reason"] == "installer-request"
    late = bench.ruvoctl("--session", 2, "--timeout", 1000, "heartbeat")
    assert late.status == 2, late
    assert bench.has_pipe(1)


def test_a_user_who_comes_back_finds_the_pipe_again(bench):
    started(bench, ["3 active alice"])
    first = bench.client(3)
    for _ in range(2):
        bench.set_sessions()
        wait_for(lambda: not bench.has_pipe(3), timeout=POLL + 10, what="the end of the pipe")
        bench.set_sessions("3 active alice")
        wait_for(lambda: bench.has_pipe(3), timeout=POLL + 10, what="the pipe")
        assert bench.client(3).request("heartbeat")["status"] == "success"
    assert first.request("heartbeat")["status"] == "success"


def test_session_0_never_gets_a_pipe(bench):
    started(bench, ["0 active somebody"])
    wait_for_polls(bench, 1)
    assert not bench.has_pipe(0)
    bench.set_sessions("0 connected somebody", "1 active alice")
    wait_for(lambda: bench.has_pipe(1), timeout=POLL + 10, what="the pipe of session 1")
    assert not bench.has_pipe(0)
    assert not bench.log.wait_for("Creating pipe", count=1)[1:]


def test_a_failing_session_list_removes_all_pipes_until_it_works_again(bench):
    started(bench, ["1 active alice", "2 active bob"])
    client = bench.client(1)
    bench.log.expect(r"^WTSEnumerateSessionsW failed: 5$")
    bench.set_sessions("fail 5")
    for session in (1, 2):
        wait_for(lambda: not bench.has_pipe(session), timeout=POLL + 10, what=f"the end of pipe {session}")
    assert client.request("heartbeat")["status"] == "success"
    bench.set_sessions("1 active alice", "2 active bob")
    for session in (1, 2):
        wait_for(lambda: bench.has_pipe(session), timeout=POLL + 10, what=f"the pipe of session {session}")
    assert client.request("heartbeat")["status"] == "success"
    warnings = [line for line in bench.log.lines() if line.level == "WARNING"]
    assert len(warnings) == len([poll for poll in polls(bench) if poll.get("error") == 5])


def test_a_daemon_that_starts_without_a_session_list_serves_once_there_is_one(bench):
    bench.log.expect(r"^WTSEnumerateSessionsW failed: 1722$")
    started(bench, ["fail 1722"])
    assert not bench.has_pipe(1)
    bench.set_sessions("1 active alice")
    assert time_until(lambda: bench.has_pipe(1), "the pipe of session 1") < POLL + SLACK


def test_it_looks_every_three_seconds_and_gives_all_memory_back(bench):
    started(bench, ["1 active alice", "2 active bob", "3 disconnected carol"])
    wait_for_polls(bench, 3)
    bench.stop()
    times = [poll["time-ms"] for poll in polls(bench)]
    pauses = [later - earlier for earlier, later in zip(times, times[1:])]
    print(f"pauses between polls: {pauses} ms")
    assert all(2700 < pause < 3000 + SLACK * 1000 for pause in pauses)

    entries = bench.journal.entries()
    given = sorted(entry["block"] for entry in entries if "block" in entry and entry["call"] != "WTSFreeMemory")
    freed = sorted(entry["block"] for entry in entries if entry["call"] == "WTSFreeMemory")
    assert given == freed and len(given) >= 4 * 3  # the list and two names, four times


def test_clients_of_two_sessions_that_connect_at_once_are_both_served(bench):
    started(bench, ["1 active alice", "2 active bob"])
    clients = [bench.connect(session) for _ in range(5) for session in (1, 2)]
    for client in clients:
        client.expect({"event": "connected"})
        assert client.request("heartbeat")["status"] == "success"
