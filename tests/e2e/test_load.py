"""Many clients at once, clients that vanish, connect and drop, or never read: everybody else is served."""

import json
import time
from concurrent.futures import ThreadPoolExecutor

from bench import pipeload, wait_for
from bench.machine import volume

TWO_SESSIONS = ("1 active alice", "2 active bob")


def up(bench):
    bench.set_sessions(*TWO_SESSIONS)
    bench.register()
    bench.start()
    # What the first clients of a process cost once (buffers, caches, a heap that has been larger) is no leak: the same
    # load again must add nothing to it.
    pipeload.run(bench, "load", sessions="1,2", clients=200, requests=30, large_percent=1, max_size=1048576, timeout=120)
    no_clients(bench)


def no_clients(bench):
    wait_for(lambda: bench.log.texts()[-1] != "" and remaining(bench) == 0, 60, "all clients to be gone")


def remaining(bench):
    counts = [int(text.rsplit(" ", 1)[1]) for text in bench.log.texts() if text.startswith("Remaining connected")]
    return counts[-1] if counts else None


def figures(bench):
    return {"private KiB": bench.memory()["Private_Dirty"], "handles": bench.counts()["handles"],
            "threads": bench.counts()["threads"]}


def assert_back_where_it_was(bench, before):
    """Threads and memory that the system keeps in store for a while (thread pools, heaps) are given time to go."""
    no_clients(bench)

    def is_back(after):
        return (after["private KiB"] < before["private KiB"] + 24 * 1024 and after["handles"] <= before["handles"] + 10
                and after["threads"] <= before["threads"] + 4)

    print(f"before:      {before}\nright after: {figures(bench)}")
    try:
        wait_for(lambda: is_back(figures(bench)), 90, "memory, handles and threads to be back", interval=1)
    finally:
        print(f"in the end:  {figures(bench)}")


def test_every_answer_of_many_clients_comes_once_in_order_with_its_id(bench):
    up(bench)
    before = figures(bench)
    result, _ = pipeload.run(bench, "load", sessions="1,2", clients=200, requests=volume(1000, 60), outstanding=8,
                             large_percent=1, max_size=1048576, small_size=4096, timeout=volume(1800, 240))
    print(result)
    assert_back_where_it_was(bench, before)


def test_clients_that_vanish_take_nobody_with_them(bench):
    up(bench)
    before = figures(bench)
    result, _ = pipeload.run(bench, "load", sessions="1,2", clients=volume(200, 60), requests=volume(1000, 60),
                             outstanding=8, kill_percent=1, timeout=volume(1800, 240))
    print(result)
    assert_back_where_it_was(bench, before)


def test_a_storm_of_connections_that_drop_at_once_shuts_nobody_out(bench):
    up(bench)
    before = figures(bench)
    result, _ = pipeload.run(bench, "storm", session=1, count=volume(10000, 1000), probe="1,2",
                             timeout=volume(900, 200))
    print(result)
    assert result["connected"] == volume(10000, 1000), "nobody was shut out for good"
    for probe in result["during"]:
        # A server that lost its listener is opened again by the poll; the storm itself keeps two cores busy.
        assert probe["failed"] == 0 and max(probe["maxMs"], probe["maxRetriedMs"]) < 5000, probe
    for probe in result["after"]:
        assert probe["answered"] and probe["ms"] < 4000, probe
    # Once the backlog is done, both pipes answer at once.
    for session in (1, 2):
        start = time.monotonic()
        assert bench.ruvoctl("--session", session, "heartbeat").status == 0
        print(f"session {session} after the storm: {(time.monotonic() - start) * 1000:.0f} ms with the program's start")
    assert_back_where_it_was(bench, before)


def test_a_client_that_never_reads_is_bounded_and_others_are_served(bench):
    bench.log.expect(r'Client ".*" does not read its messages')
    up(bench)
    other = bench.client(2)
    before = figures(bench)
    deaf = pipeload.Pipeload(bench, "deaf", session=1, bytes=128 * 1024 * 1024)
    for _ in range(20):
        assert other.request("heartbeat", timeout=10)["status"] == "success"
    status, result, _ = deaf.result(timeout=120)
    print(result)
    assert status == 0 and result["disconnected"], result
    other.close()
    assert_back_where_it_was(bench, before)


def test_a_flood_of_requests_of_one_client_keeps_nobody_waiting(bench):
    bench.set_sessions(*TWO_SESSIONS)
    bench.register()
    bench.start()
    bench.log.expect('Process not found: "none"')
    other = bench.client(2)
    count = volume(20000, 8000)
    requests = [json.dumps({"action": "stop", "process-id": "none", "request-id": n}).encode() for n in range(count)]
    frames = b"".join(len(request).to_bytes(4, "big") + request for request in requests)
    lines = ["sleep-until-message 15000", f"hex {frames.hex()}", *["sleep-until-message 120000"] * count, "close"]
    waited = []
    with ThreadPoolExecutor(1) as pool:
        flood = pool.submit(pipeload.run, bench, "raw", lines, timeout=240, session=1)
        bench.log.wait_for("Process not found")
        while not flood.done():
            start = time.monotonic()
            assert other.request("list", timeout=60)["status"] == "success"
            waited.append(time.monotonic() - start)
    _, messages = flood.result()
    print(f"{len(waited)} answers beside the flood, the slowest after {max(waited) * 1000:.0f} ms")
    assert max(waited) < 1.5 and len(waited) > 5, waited
    assert [message["request-id"] for message in messages if "request-id" in message] == list(range(count))
    other.close()
