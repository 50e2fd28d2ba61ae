"""The service towards Windows' service manager: registration, start, controls, stop, removal."""

from bench import wait_for
from bench.paths import windows_path
from bench.processes import is_alive
from bench.service import NAME, RUNNING, START_PENDING, STOP_PENDING, STOPPED, parse_query

ACCESS = ("D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
          "(A;;CCLCSWRPWPDTLOCRRC;;;AU)")
GUIDANCE = ("ERROR: ruvod must be run as a Windows Service.\n"
            "To register the service, run: ruvod.exe --register\n"
            "Then start it via Services or: sc start RuvoService\n")
STOP_LINES = [
    "Service stop requested, quitting event loop...",
    "Event loop exited, stopping daemon...",
    "Stopping ruvod daemon...",
    "Daemon stopped",
    "Daemon cleanup complete, reporting service stopped",
]


def in_order(lines, texts):
    """Whether all of these lines come, each behind the one before it."""
    rest = iter(lines)
    return all(line in rest for line in texts)


def reports(bench, state):
    """What the daemon reported of a state, without what differs from run to run."""
    return [{key: entry[key] for key in ("type", "controls", "exit-code", "check-point", "wait-hint")}
            for entry in bench.journal.calls("SetServiceStatus", state=state)]


def test_register_prints_its_line_and_creates_the_service(bench):
    assert not bench.is_registered()
    result = bench.ruvod("--register")
    assert (result.status, result.stdout, result.stderr) == (0, "Service registered successfully\n", "")

    path = windows_path(bench.application / "ruvod.exe")
    assert bench.configuration() == {
        "type": 0x10, "start-type": 3, "error-control": 1, "path": f'"{path}"', "account": "LocalSystem",
        "display-name": "Ruvo Proxy Client Service", "load-order-group": "", "dependencies": "",
        "state": STOPPED, "controls": 0, "exit-code": 1077, "pid": 0,  # 1077: not started since it was made
    }


def test_register_gives_every_user_start_stop_and_controls(bench):
    bench.register()
    calls = bench.journal.calls("SetServiceObjectSecurity")
    assert [(call["what"], call["sddl"]) for call in calls] == [(4, ACCESS)]  # 4: the discretionary access list


def test_registering_again_is_refused(bench):
    bench.register()
    before = bench.configuration()
    result = bench.ruvod("--register")
    assert (result.status, result.stdout) == (1, "")
    assert result.stderr == "Failed to register service: Service already exists\n"
    assert bench.configuration() == before
    assert len(bench.journal.calls("SetServiceObjectSecurity")) == 1


def test_what_follows_register_is_ignored(bench):
    result = bench.ruvod("--register", "--unregister", "--help")
    assert (result.status, result.stdout, result.stderr) == (0, "Service registered successfully\n", "")
    assert bench.is_registered()


def test_outside_the_manager_it_says_how_to_start_it(running):
    # Wine's manager lets a program wait 10 s for the pipe of the service that it started last, unless that has ended.
    running.stop()
    running.unregister()
    before = running.log.lines()
    for arguments in ([], ["--REGISTER"], ["--Unregister"], ["register"], ["--register "], [""], ["--help"]):
        result = running.ruvod(*arguments)
        assert (result.status, result.stdout, result.stderr) == (1, "", GUIDANCE), arguments
    assert not running.is_registered()
    assert running.log.lines() == before


def test_start_goes_through_start_pending_to_running(bench):
    bench.register()
    assert bench.start() == [START_PENDING, RUNNING]
    assert reports(bench, START_PENDING) == [
        {"type": 0x10, "controls": 0, "exit-code": 0, "check-point": 1, "wait-hint": 3000}]
    assert reports(bench, RUNNING) == [
        {"type": 0x10, "controls": 5, "exit-code": 0, "check-point": 0, "wait-hint": 0}]
    assert bench.log.texts()[0] == "Starting ruvod daemon..."
    assert in_order(bench.log.texts(), ["Daemon started successfully", "Daemon ready for connections"])
    assert all(line.level == "INFO" for line in bench.log.lines())


def test_sc_starts_queries_and_stops_it(bench):
    bench.register()
    started = bench.sc("start")
    assert started.status == 0, started
    assert parse_query(started.stdout)["STATE"] in ((START_PENDING, "START_PENDING"), (RUNNING, "RUNNING"))
    bench.wait_for_state(RUNNING)
    rows = parse_query(bench.sc("query").stdout)
    assert rows["SERVICE_NAME"][0] == NAME
    assert rows["TYPE"] == (0x10, "WIN32_OWN_PROCESS")
    assert rows["STATE"] == (RUNNING, "RUNNING")
    assert bench.sc("stop").status == 0
    bench.wait_for_state(STOPPED)
    assert parse_query(bench.sc("query").stdout)["STATE"] == (STOPPED, "STOPPED")


def test_a_client_is_greeted_with_version_and_privilege(running):
    client = running.connect()
    greeting = client.expect({"event": "connected"})
    assert greeting == {"event": "connected", "daemon-version": "2.0.1", "privilege-level": 1}
    assert client.messages == [greeting]


def test_control_128_reaches_every_client_and_the_daemon_goes_on(running):
    running.set_sessions("1 active alice", "2 active bob")
    wait_for(lambda: running.has_pipe(2), what="the pipe of session 2")
    clients = [running.client(1), running.client(1), running.client(2)]
    assert running.control(128) == 0
    for client in clients:
        assert client.expect({"event": "shutdown"}) == {"event": "shutdown", "reason": "installer-request"}
    assert in_order(running.log.texts(), [
        "Received SERVICE_CONTROL_SHUTDOWN_CLIENTS from installer",
        "Broadcasting shutdown request to all connected clients (triggered by installer)"])
    assert running.state() == RUNNING
    for client in clients:
        assert client.request("heartbeat")["status"] == "success"
        assert len(client.events("shutdown")) == 1


def test_other_controls_of_the_user_are_accepted_and_ignored(running):
    client = running.client()
    before = running.log.texts()
    for code in (129, 200, 255):
        assert running.control(code) == 0
    assert client.request("heartbeat")["status"] == "success"
    assert [message.get("event") for message in client.messages] == ["connected", None]
    assert running.log.texts() == before
    assert running.state() == RUNNING


def test_stop_logs_its_steps_in_order_and_ends_stopped(running):
    client = running.client()
    pid = running.daemon_pid()
    running.stop()
    texts = running.log.texts()
    assert [text for text in texts if text in STOP_LINES] == STOP_LINES
    assert texts[-1] == STOP_LINES[-1]
    assert reports(running, STOP_PENDING) == [
        {"type": 0x10, "controls": 5, "exit-code": 0, "check-point": 1, "wait-hint": 30000}]
    assert reports(running, STOPPED) == [
        {"type": 0x10, "controls": 5, "exit-code": 0, "check-point": 0, "wait-hint": 0}]
    assert running.journal.calls("SetServiceStatus")[-1]["state"] == STOPPED
    assert running.configuration()["exit-code"] == 0
    assert not is_alive(pid)
    assert client.wait_closed() == 2
    assert not running.has_pipe(1)


def test_stop_in_the_instant_of_running_is_not_lost(bench):
    bench.register()
    for _ in range(5):
        status, answers = bench.probe("start", NAME, 20000, "stop")
        assert status == 0, answers
        states = [answer["state"] for answer in answers]
        # On a busy machine the service may run before its state is first asked for.
        assert states[0] in (START_PENDING, RUNNING) and RUNNING in states[:2] and states[-1] == STOPPED, states
        wait_for(lambda: not bench.daemon_pids(), what="the end of the daemon's process")
    assert bench.log.texts().count(STOP_LINES[0]) == 5
    assert bench.log.texts().count(STOP_LINES[-1]) == 5


def test_starts_again_directly_after_stopped(running):
    for _ in range(3):
        client = running.client()
        assert running.sc("stop").status == 0
        running.wait_for_state(STOPPED)
        assert running.start()[-1] == RUNNING
        assert client.wait_closed() == 2
        assert running.has_pipe(1)
    assert len(running.daemon_pids()) == 1
    assert running.client().request("heartbeat")["status"] == "success"


def test_unregister_stops_and_removes_the_running_service(running):
    pid = running.daemon_pid()
    result = running.ruvod("--unregister")
    assert (result.status, result.stdout, result.stderr) == (0, "Service unregistered successfully\n", "")
    wait_for(lambda: not is_alive(pid), what="the end of the daemon's process")
    wait_for(lambda: not running.is_registered(), what="the end of the service entry")
    assert running.log.texts()[-1] == STOP_LINES[-1]


def test_unregister_of_a_stopped_service_removes_it(bench):
    bench.register()
    result = bench.ruvod("--unregister")
    assert (result.status, result.stdout, result.stderr) == (0, "Service unregistered successfully\n", "")
    assert not bench.is_registered()
    bench.register()
    assert bench.state() == STOPPED


def test_unregister_without_a_service_fails(bench):
    result = bench.ruvod("--unregister")
    assert (result.status, result.stdout) == (1, "")
    assert result.stderr == "Failed to unregister service: Failed to open service\n"


def test_a_newer_client_makes_the_daemon_quit_and_the_service_stop(running):
    client = running.client()
    pid = running.daemon_pid()
    answer = client.request("client-hello", log_path=running.log_path(), version="2.0.2")
    assert {key: value for key, value in answer.items() if key != "request-id"} == {
        "status": "restarting", "reason": "Client version is higher than daemon version"}
    running.wait_for_state(STOPPED)
    wait_for(lambda: not is_alive(pid), what="the end of the daemon's process")
    texts = running.log.texts()
    assert in_order(texts, [
        'Client version "2.0.2" is higher than daemon version "2.0.1" - restarting daemon',
        "Initiating daemon restart due to version mismatch",
        *STOP_LINES[1:]])
    assert STOP_LINES[0] not in texts
    assert reports(running, STOP_PENDING) == []
    assert running.configuration()["exit-code"] == 0
    # Starting the newer daemon is the client's business.
    assert not running.daemon_pids()
    assert running.start()[-1] == RUNNING
