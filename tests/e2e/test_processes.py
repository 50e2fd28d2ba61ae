"""Supervised processes end to end: the real core, scripted children, their owners, and what is left behind."""

import itertools
import json
import threading
import time

import pytest

from bench import core, pipeload, wait_for
from bench.children import TIMESTAMP, child, keys, output, raw_start
from bench.machine import volume


@pytest.fixture
def client(running):
    connected = running.client()
    # One second after its start the daemon sweeps entries that do not run, pending restarts too; nothing tells when
    # that is over if there are none.
    time.sleep(1.5)
    return connected


def test_the_core_carries_traffic_under_supervision(running, client):
    spec = core.configure(running)
    server = core.WebServer(running)
    try:
        answer = client.request("start", **spec)
        assert keys(answer) == {"status": "started", "message": "Process started successfully"}
        # The event came before the answer.
        order = [message for message in client.messages if message.get("event") == "started" or "status" in message]
        assert keys(order[-2]) == {"process-id": "core", "event": "started"}
        core.wait_until_up(client)
        for port in (core.PROXY_PORT, core.DIRECT_PORT):
            assert core.fetch(running, port, f"http://127.0.0.1:{server.PORT}/page") == server.digest
        wait_for(lambda: "127.0.0.1:8080" in output(client, "core"), what="the access in the core's output")

        status = client.request("status", process_id="core")
        assert set(status) == {
            "status", "timestamp", "process-id", "state", "pid", "start-time", "running", "request-id"}
        assert (status["state"], status["running"], status["process-id"]) == (2, True, "core")
        assert TIMESTAMP.match(status["start-time"])
        (entry,) = client.request("list")["processes"]
        assert entry == {"process-id": "core", "state": 2, "pid": status["pid"], "running": True}
        running_again = client.request("start", **spec)
        assert keys(running_again) == {"status": "error", "error": "Process already exists: core"}
    finally:
        server.close()
    # The start that failed took the core away from its owner: the next client to start it would get its events.
    assert client.request("stop", process_id="core")["status"] == "stopping"
    wait_for(lambda: client.request("list")["processes"] == [], 20, "the core to be gone")


def test_stop_ends_a_child_with_ctrl_c(running, client):
    client.request("start", **child(running, "obeys", "--ctrl-c-exit", 7, "--print", "up", "--wait"))
    client.expect({"event": "stdout", "process-id": "obeys"})
    assert keys(client.request("stop", process_id="obeys")) == {
        "status": "stopping", "message": "Process stop requested"}
    assert keys(client.expect({"event": "finished"})) == {"process-id": "obeys", "event": "finished", "data": "7"}
    assert keys(client.request("status", process_id="obeys")) == {
        "status": "error", "error": "Process not found: obeys"}


def test_a_child_that_ignores_ctrl_c_is_terminated_after_ten_seconds_without_a_word(running, client):
    client.request("start", **child(running, "deaf", "--ignore-ctrl-c", "--print", "up", "--wait"))
    client.expect({"event": "stdout", "process-id": "deaf"})
    start = time.monotonic()
    client.request("stop", process_id="deaf")
    wait_for(lambda: not client.request("status", process_id="deaf")["running"], 20, "the end of the child")
    assert 9 < time.monotonic() - start < 16
    assert client.request("status", process_id="deaf")["state"] == 0
    assert client.events("finished") == []


def test_kill_gives_no_finished_and_the_entry_stays_until_the_next_start(running, client):
    running.log.expect('Found stale process entry for "victim"')
    spec = child(running, "victim", "--print", "up", "--wait")
    client.request("start", **spec)
    client.expect({"event": "stdout"})
    assert keys(client.request("kill", process_id="victim")) == {"status": "killed", "message": "Process killed"}
    status = client.request("status", process_id="victim")
    assert (status["state"], status["pid"], status["running"]) == (0, -1, False)
    assert client.request("start", **spec)["status"] == "started"
    assert client.events("finished") == []
    client.request("stop", process_id="victim")
    client.expect({"event": "finished"})


def test_restart_only_stops(running, client):
    client.request("start", **child(running, "one", "--ctrl-c-exit", 0, "--print", "up", "--wait", auto_restart=True))
    client.expect({"event": "stdout"})
    assert keys(client.request("restart", process_id="one")) == {
        "status": "restarting", "message": "Process restart initiated"}
    client.expect({"event": "finished"})
    assert client.request("list")["processes"] == []
    assert len(client.events("started")) == 1


def test_a_crash_loop_ends_after_its_restarts_with_the_last_exit_code(running, client):
    running.log.expect(r"exceeded max restart attempts \( 3 \), giving up")
    client.request("start", **child(running, "loop", "--print", "again", "--sleep", 200, "--exit", 3,
                                    auto_restart=True, max_restart_attempts=3, restart_delay_ms=300))
    finished = client.expect({"event": "finished"}, timeout=30)
    assert keys(finished) == {"process-id": "loop", "event": "finished", "data": "3"}
    assert len(client.events("started")) == 4
    assert client.messages[-1] == finished, "nothing follows the end"


def test_requests_for_nobody_and_broken_specifications(running, client):
    running.log.expect('Process not found: "nobody"')
    for action in ("stop", "kill", "restart", "status"):
        assert keys(client.request(action, process_id="nobody")) == {
            "status": "error", "error": "Process not found: nobody"}
    answer = client.request("stdin", process_id="nobody", data="x")
    assert (answer["status"], answer["error"]) == ("error", "Failed to write to process stdin")
    assert keys(client.request("start"))["error"] == "Missing or empty process-id"
    assert keys(client.request("start", process_id="x"))["error"] == "Missing or empty executable"
    running.log.expect("CreateProcess failed: 2")
    assert keys(client.request("start", process_id="x", executable="C:\\nothing.exe"))["error"] == (
        "Failed to start process: x")
    assert keys(client.request("list")) == {"status": "success", "processes": []}


def test_standard_input_arrives_in_order(running, client):
    client.request("start", **child(running, "echo", "--echo", 0))
    for number in range(50):
        assert client.request("stdin", process_id="echo", data=f"{number:03} é\n")["status"] == "success"
    expected = "".join(f"{number:03} é\n" for number in range(50))
    wait_for(lambda: output(client, "echo").replace("\ufffd", "").count("\n") == 50, what="all lines back")
    got = output(client, "echo")
    assert [line[:3] for line in got.splitlines()] == [line[:3] for line in expected.splitlines()]
    client.request("kill", process_id="echo")


def test_a_flood_neither_blocks_the_daemon_nor_loses_order(running, client):
    other = running.client()
    seconds = volume(10, 4)
    client.request("start", **child(running, "flood", "--flood", "stdout", 10_000_000, 1000 * seconds, "--wait"))
    slowest = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        start = time.monotonic()
        assert other.request("heartbeat")["status"] == "success"
        slowest = max(slowest, time.monotonic() - start)
        time.sleep(0.1)  # the pace of the client, not a wait
    text = output(client, "flood")
    numbers = [int(line) for line in text.splitlines()[:-1]]
    print(f"{len(text)} bytes in about {seconds} s, slowest heartbeat {slowest * 1000:.0f} ms")
    assert numbers == list(range(len(numbers))) and len(numbers) > 1000
    assert slowest < 2
    client.request("kill", process_id="flood")


def test_a_child_that_never_reads_its_input_holds_nobody_up(running, client):
    other = running.client()
    client.request("start", **child(running, "mute", "--wait"))
    for _ in range(16):
        start = time.monotonic()
        assert client.request("stdin", process_id="mute", data="x" * 65536)["status"] == "success"
        assert other.request("heartbeat")["status"] == "success"
        assert time.monotonic() - start < 5
    assert client.request("kill", process_id="mute")["status"] == "killed"


def test_events_reach_only_the_owner_and_a_departure_stops_its_children(running, client):
    other = running.client()
    client.request("start", **child(running, "mine", "--print", "one", "--wait"))
    other.request("start", **child(running, "theirs", "--print", "two", "--wait"))
    client.expect({"event": "stdout", "process-id": "mine"})
    other.expect({"event": "stdout", "process-id": "theirs"})
    assert {message["process-id"] for message in client.messages if "process-id" in message} == {"mine"}
    client.kill()
    running.log.wait_for('Stopping process "mine" (owned by disconnected client')
    wait_for(lambda: [p["process-id"] for p in other.request("list")["processes"]] == ["theirs"], 20,
             "the departed client's child to be gone")
    assert other.request("status", process_id="theirs")["running"]
    assert {message["process-id"] for message in other.messages if "process-id" in message} == {"theirs"}
    other.request("stop", process_id="theirs")
    other.expect({"event": "finished"})


def test_leftover_cores_of_the_session_are_ended_and_nobody_else(running):
    running.log.expect(r'Found stale process "XRAY.exe" PID: \d+ in session 1 - killing')
    names = {"XRAY.exe": 1, "sing-box.exe": 1, "antifilter.exe": 2}
    processes = {}
    for name in names:
        child(running, "unused", name=name)
        processes[name] = running.prefix.popen(running.application / name, "--wait")
        wait_for(lambda name=name: running.windows_processes(name), what=f"{name} to run")
    running.set_process_sessions({
        running.windows_processes(name)[0]["pid"]: session for name, session in names.items()})
    leaving = running.client(1)
    leaving.close()
    wait_for(lambda: processes["XRAY.exe"].poll() is not None, 20, "the end of the left-over core")
    running.log.wait_for("Killed 1 stale process(es) in session 1")
    assert processes["sing-box.exe"].poll() is None and processes["antifilter.exe"].poll() is None
    for process in processes.values():
        process.kill()


def test_stopping_the_service_stops_the_children_in_order(running, client):
    client.request("start", **child(running, "obeys", "--ctrl-c-exit", 0, "--print", "up", "--wait"))
    client.expect({"event": "stdout"})
    start = time.monotonic()
    running.stop()
    assert time.monotonic() - start < 15
    texts = running.log.texts()
    order = ["Stopping ruvod daemon...", "[ProcessManager] Stopping all 1 managed processes...",
             '[ProcessManager] Stopping process: "obeys"', "[ProcessManager] All processes stopped gracefully",
             "Daemon stopped"]
    places = [texts.index(text) for text in order]
    assert places == sorted(places)
    assert running.windows_processes("testchild.exe") == []


def test_while_the_service_stops_clients_are_served_but_nothing_new_starts(running, client):
    client.request("start", **child(running, "deaf", "--ignore-ctrl-c", "--print", "up", "--wait"))
    client.expect({"event": "stdout"})
    assert running.sc("stop").status == 0
    running.log.wait_for('[ProcessManager] Stopping process: "deaf"')
    assert client.request("heartbeat")["status"] == "success"
    for action, fields in (("start", child(running, "late", "--wait")), ("start-tun", {})):
        answer = client.request(action, **fields)
        assert (answer["status"], answer["error"]) == ("error", "Daemon is stopping")
    newcomer = running.connect()
    assert newcomer.wait_closed() == 2 and newcomer.messages == []
    running.wait_for_state(1, timeout=30)
    # Ten seconds of grace: the manager hears after five of them that it still goes on.
    points = [entry["check-point"] for entry in running.journal.calls("SetServiceStatus", state=3)]
    assert len(points) >= 2 and points == list(range(1, len(points) + 1))
    wait_for(lambda: running.windows_processes("testchild.exe") == [], 10, "the end of the child")
    assert client.events("finished") == []


def test_the_children_of_a_client_that_timed_out_are_stopped(running):
    running.log.expect(r'Client ".*" timed out')
    running.log.allow("Found stale process entry on startup")
    silent, other = running.client(heartbeat=False), running.client()
    silent.request("start", **child(running, "orphan", "--ctrl-c-exit", 0, "--print", "up", "--wait"))
    running.log.wait_for('Stopping process "orphan" (owned by timed-out client', timeout=30)
    wait_for(lambda: other.request("list")["processes"] == [], 20, "the end of the orphan")


def in_one_write(bench, *requests):
    """The answers and events that come when all the requests are written at once."""
    digits = "".join((len(data).to_bytes(4, "big") + data).hex()
                     for data in (json.dumps(request).encode() for request in requests))
    _, messages = pipeload.run(bench, "raw", ["sleep-until-message 5000", f"hex {digits}", "expect-none 0",
                                              *["sleep-until-message 10000"] * (len(requests) + 1), "close"])
    return messages[1:]


def test_start_and_kill_in_one_write(running):
    # The sweep a second after the daemon's start may find the entry before the killed child's end does; the client's
    # departure then misses it.
    running.log.allow("Found stale process entry on startup|Process not found: \"brief\"")
    messages = in_one_write(running, raw_start(running, "brief", "--wait"),
                            {"action": "kill", "process-id": "brief", "request-id": "kill"})
    assert [message.get("event") or message["status"] for message in messages] == ["started", "started", "killed"]
    assert running.windows_processes("testchild.exe") == []


def test_a_stop_control_ends_the_wait_for_an_interface_without_a_word(running, client):
    client.request("start", **child(running, "tunnel", "--ctrl-c-exit", 0, "--print", "up", "--wait"),
                   **{"tun-dns-override": {"address": "10.0.0.1", "iface": "nothing"}})
    running.log.wait_for('[ProcessManager] Waiting for interface "nothing" to be UP')
    start = time.monotonic()
    running.stop()
    assert time.monotonic() - start < 8


def test_a_stop_control_during_a_pending_restart(running, client):
    client.request("start", **child(running, "loop", "--exit", 3, auto_restart=True, restart_delay_ms=60_000))
    running.log.wait_for("scheduling restart attempt 1 of 3 in 60000 ms")
    start = time.monotonic()
    running.stop()
    assert time.monotonic() - start < 8
    assert client.events("finished") == []


def test_a_stop_control_while_standard_input_is_blocked(running, client):
    client.request("start", **child(running, "mute", "--ctrl-c-exit", 0, "--print", "up", "--wait"))
    client.expect({"event": "stdout"})
    client.request("stdin", process_id="mute", data="x" * 1_000_000)
    start = time.monotonic()
    running.stop()
    assert time.monotonic() - start < 14
    assert running.windows_processes("testchild.exe") == []


def test_a_stop_control_in_a_flood_of_starts(running, client):
    # A child that has no console yet cannot be asked to end.
    running.log.allow("Failed to send Ctrl|Failed to attach|AttachConsole failed|TerminateProcess failed")
    enough = threading.Event()

    def flood():
        for number in itertools.count():
            if enough.wait(0.02):  # the pace of the client
                return
            try:
                client.send(raw_start(running, f"flood {number}", "--ctrl-c-exit", 0, "--wait"))
            except AssertionError:
                return  # the connection has ended with the service

    client.request("start", **child(running, "slow", "--ctrl-c-exit", 0, "--ctrl-c-delay", 2000, "--print", "up",
                                    "--wait"))
    client.expect({"event": "stdout"})
    sender = threading.Thread(target=flood)
    sender.start()
    try:
        wait_for(lambda: len(client.events("started")) > 10, what="the flood to have begun")
        start = time.monotonic()
        running.stop(timeout=60)
        took = time.monotonic() - start
    finally:
        enough.set()
        sender.join()
    answers = [message.get("error") or message["status"] for message in client.messages if "request-id" in message]
    print(f"{answers.count('started')} were started, {answers.count('Daemon is stopping')} refused; "
          f"the stop took {took:.1f} s")
    assert set(answers) == {"started", "Daemon is stopping"}
    assert took < 50
    assert running.windows_processes("testchild.exe") == []
