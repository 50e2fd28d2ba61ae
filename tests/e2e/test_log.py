"""The log file of the running daemon: where it is, how it grows, turns and goes, and that it is never in the way."""

import re
import shutil

from bench import pipeload, wait_for

LINE = re.compile(rb"^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] (INFO|WARNING|CRITICAL): .*\r$")
LIMIT = 0x100000


def file_of(bench, name="daemon.log"):
    return bench.directory / "logs" / name


def hello(bench, client, name="daemon.log"):
    answer = client.request("client-hello", log_path=bench.log_path(name), version="2.0.1")
    assert answer["status"] == "success"


def test_a_client_decides_where_the_log_goes_and_folders_are_made(running):
    client = running.client()
    hello(running, client, "deep/er/daemon.log")
    text = file_of(running, "deep/er/daemon.log").read_bytes()
    assert b"- Client version: \"2.0.1\" Daemon version: \"2.0.1\"" in text
    assert all(LINE.match(line) for line in text.split(b"\n")[:-1]), text
    assert b"DEBUG" not in text


def test_the_log_is_cleared_with_its_old_generation(running):
    client = running.client()
    hello(running, client)
    old = file_of(running, "daemon.log.old")
    old.write_text("before")
    assert client.request("clear-logs") == {"status": "success", "request-id": client.messages[-1]["request-id"]}
    assert not old.exists() and not file_of(running).exists()
    assert client.request("clear-logs")["status"] == "success", "nothing there is fine"
    hello(running, client)
    assert file_of(running).exists(), "the next line makes it anew"


def test_what_cannot_be_cleared_is_told(running):
    running.log.expect("FAILED to remove .old log file")
    running.log.expect("Failed to clear some daemon log files")
    client = running.client()
    hello(running, client)
    old = file_of(running, "daemon.log.old")
    old.mkdir()
    answer = client.request("clear-logs")
    assert (answer["status"], answer["error"]) == ("error", "Failed to clear daemon logs")
    old.rmdir()


def test_an_unwritable_or_vanished_log_changes_nothing_else(running):
    client = running.client()
    (running.directory / "logs").mkdir(exist_ok=True)
    (running.directory / "logs" / "blocked").write_text("a file where a folder should be")
    hello(running, client, "blocked/daemon.log")
    assert client.request("heartbeat")["status"] == "success"
    hello(running, client, "gone/daemon.log")
    shutil.rmtree(running.directory / "logs" / "gone")
    other = running.client()
    assert other.request("heartbeat")["status"] == "success"
    hello(running, client)


def test_a_pipe_is_no_log_file(running):
    # Each line would be a client that connects, which is worth a line.
    client = running.client()
    hello(running, client)
    for path in (r"\\.\pipe\ruvod-1", "//./pipe/ruvod-1", r"\\?\pipe\ruvod-1"):
        assert client.request("client-hello", log_path=path, version="2.0.1")["status"] == "success"
        assert client.request("clear-logs")["status"] == "success"
    hello(running, client)
    other = running.client()
    assert other.request("heartbeat")["status"] == "success"
    other.close()
    running.log.wait_for("Remaining connected clients: 1")
    assert sum("Client disconnected:" in text for text in running.log.texts()) == 1


def test_a_long_path_works(running):
    client = running.client()
    name = "/".join(["a folder with a long name"] * 12) + "/daemon.log"
    hello(running, client, name)
    assert len(running.log_path(name)) > 300
    assert b"- Client version:" in file_of(running, name).read_bytes()
    file_of(running, name).write_bytes(b"x" * (LIMIT + 1))
    for _ in range(101):
        hello(running, client, name)
    assert file_of(running, name + ".old").stat().st_size > LIMIT
    assert client.request("clear-logs")["status"] == "success"
    assert not file_of(running, name + ".old").exists()


def test_a_log_that_grew_too_large_becomes_the_old_generation(running):
    client = running.client()
    hello(running, client)
    path, old = file_of(running), file_of(running, "daemon.log.old")
    old.write_text("an earlier one")
    path.write_bytes(path.read_bytes() + b"x" * (LIMIT + 1))
    # Each hello is one line; every hundredth line looks at the size.
    for _ in range(101):
        hello(running, client)
    assert old.stat().st_size > LIMIT
    assert path.stat().st_size < LIMIT


def test_under_load_no_line_is_torn(running):
    client = running.client()
    hello(running, client)
    pipeload.run(running, "load", sessions=1, clients=20, requests=200, max_size=65536, timeout=120)
    # The last of them are noticed to have gone after their program has ended.
    wait_for(lambda: "Remaining connected clients: 1" in running.log.texts(), 30, "the load's clients to be gone")
    lines = file_of(running).read_bytes().split(b"\n")[:-1]
    assert len(lines) > 20
    assert all(LINE.match(line) for line in lines)
