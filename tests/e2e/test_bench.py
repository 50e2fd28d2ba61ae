"""The bench itself: what the other tests rely on."""

import os
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from bench import processes, sweep, wait_for
from bench.daemon_log import DaemonLog
from bench.filters import cgroups
from bench.network import add_namespace, namespaces
from bench.paths import OUTPUT, WINPROBE

HERE = Path(__file__).parent


def start_stale(bench, name):
    """Starts a program of that name; returns it and its Windows process id."""
    known = {process["pid"] for process in bench.windows_processes(name)}
    program = bench.directory / name
    shutil.copy2(WINPROBE, program)
    started = bench.prefix.popen(program, "keep", stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)

    def new():
        return [process["pid"] for process in bench.windows_processes(name) if process["pid"] not in known]
    return started, wait_for(new, what=f"{name} to run")[0]


def test_processes_are_in_the_sessions_that_the_test_says(running):
    mine, _ = start_stale(running, "xray.exe")  # in session 1 if nothing is said
    others, others_pid = start_stale(running, "XRAY.EXE")
    running.set_process_sessions({others_pid: 2})
    client = running.client(1)
    running.log.expect(r'^Found stale process "xray\.exe" PID: \d+ in session 1 - killing$')
    client.close()
    running.log.wait_for("Killed 1 stale process(es) in session 1")
    wait_for(lambda: mine.poll() is not None, what="the end of xray.exe")
    assert others.poll() is None
    asked = {call["process"]: call["session"] for call in running.journal.calls("ProcessIdToSessionId", result=True)}
    assert asked[others_pid] == 2
    others.stdin.close()
    others.wait(10)


def test_a_session_list_that_cannot_be_understood_fails_the_call(running):
    running.log.expect(r"^WTSEnumerateSessionsW failed: 13$")
    for line in ("1 present alice", "one active alice", "1", "1 active alice bob", "fail", "5 active !"):
        before = len(running.journal.calls("sessions.txt", not_understood=line))
        running.set_sessions(line)
        wait_for(lambda: len(running.journal.calls("sessions.txt", not_understood=line)) > before,
                 what=f"the complaint about {line!r}")


@pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)
def test_the_networks_are_connected_through_the_host(bench):
    def ping(role, address):
        words = [*bench.network.enter(role), "ping", "-c", "1", "-W", "5", address]
        return subprocess.run(words, capture_output=True, timeout=20, check=False).returncode
    assert ping("host", "192.0.2.1") == 0
    assert ping("guest", "192.0.2.1") == 0
    assert ping("net", "198.51.100.2") == 0
    assert ping("host", "203.0.113.1") != 0


def test_handles_threads_and_memory_of_the_daemon_can_be_counted(running):
    before = running.counts()
    clients = [running.client() for _ in range(5)]
    wait_for(lambda: running.counts()["handles"] >= before["handles"] + 5, what="the handles of five pipes")
    assert running.counts()["pid"] == before["pid"] == running.configuration()["pid"]
    assert before["threads"] >= 2
    assert 1000 < running.memory()["Rss"] < 1000_000
    for client in clients:
        client.close()
    wait_for(lambda: running.counts()["handles"] <= before["handles"] + 2, what="the end of these handles")


def test_warnings_have_to_be_announced(tmp_path):
    def log_with(text, expected=(), allowed=()):
        (tmp_path / "ruvod.log").write_text(f"[2026-01-02 03:04:05.678] {text}\n", encoding="utf-8")
        log = DaemonLog()
        log.add(tmp_path, "ruvod.log")
        for pattern in expected:
            log.expect(pattern)
        for pattern in allowed:
            log.allow(pattern)
        return log

    log_with("INFO: all is well").check()
    log_with("WARNING: low on socks", expected=["^low"]).check()
    log_with("CRITICAL: low on socks", allowed=["socks", "shoes"]).check()
    for wrong in (log_with("WARNING: low"), log_with("CRITICAL: low", allowed=["high"])):
        with pytest.raises(AssertionError, match="unexpected"):
            wrong.check()
    with pytest.raises(AssertionError, match="missing"):
        log_with("INFO: low", expected=["low"]).check()


def test_what_a_killed_run_leaves_is_removed_by_the_next():
    directory = OUTPUT / "test_bench.killed"
    script = ("import sys; from pathlib import Path; from bench import Bench\n"
              "bench = Bench(Path(sys.argv[1])); bench.up(); bench.register(); bench.start()\n"
              "print(bench.network.name('host'), bench.filters.pid(), flush=True); sys.stdin.read()")
    run = subprocess.Popen([sys.executable, "-c", script, directory], cwd=HERE, stdin=subprocess.PIPE,
                           stdout=subprocess.PIPE, text=True)
    try:
        namespace, engine = run.stdout.readline().split()
        engine = int(engine)
        prefix = directory / "prefix"
        left = processes.pids_with_environment("WINEPREFIX", prefix)
        assert namespace in namespaces() and engine in cgroups.owners() and len(left) > 3
        sweep.remove_abandoned()
        assert namespace in namespaces() and prefix.exists(), "a run that lives is left alone"
        os.kill(run.pid, signal.SIGKILL)
        run.wait(10)
        sweep.remove_abandoned()
        assert namespace not in namespaces()
        assert not prefix.exists()
        assert not any(processes.is_alive(pid) for pid in [engine, *left])
        assert engine not in cgroups.owners()
    finally:
        run.kill()
        run.wait(10)
        sweep.remove_abandoned()
        shutil.rmtree(directory, ignore_errors=True)


def test_two_sweeps_at_once_do_not_stumble_over_each_other():
    ended = subprocess.Popen(["true"])
    ended.wait(10)
    for number in range(6):
        add_namespace(f"ruvod-{ended.pid}-{number}-host")
    sweeps = [subprocess.Popen([sys.executable, "-m", "bench.sweep"], cwd=HERE) for _ in range(2)]
    assert [run.wait(30) for run in sweeps] == [0, 0]
    assert not [name for name in namespaces() if name.startswith(f"ruvod-{ended.pid}-")]
