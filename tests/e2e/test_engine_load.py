"""Many connections of the guest at once, opened, used and ended at random: nothing of them stays."""

import random
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import both_ends, guest, sockets, traffic
from bench.machine import volume
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)

AT_ONCE, THREADS = 500, 25


def live(seed, count, until):
    """A thread's connections, `count` of them at a time, until that time: what became of how many."""
    chance = random.Random(seed)
    known = b"".join(both_ends.known_bytes(100_000))
    opened = used = reset = 0
    connections = []
    try:
        while time.monotonic() < until:
            if len(connections) < count:
                connections.append(sockets.connect(traffic.ECHO, timeout=60))
                opened += 1
                continue
            connection = connections[chance.randrange(count)]
            data = known[:chance.choice((1, 100, 1460, 5_000, 100_000))]
            match chance.randrange(5):
                case 0 | 1:
                    connection.sendall(data)
                    assert both_ends.receive(connection, len(data)) == data
                    used += 1
                case 2:
                    connection.sendall(data)  # in the middle of it
                    connections.remove(connection)
                    sockets.reset(connection)
                    reset += 1
                case 3:
                    connections.remove(connection)
                    sockets.reset(connection)
                    reset += 1
                case 4:
                    connections.remove(connection)
                    connection.close()
    finally:
        for connection in connections:
            sockets.reset(connection)
    return opened, used, reset


def run(bench, seconds):
    """So many connections at once for so long: opened, used and reset ones."""
    until = time.monotonic() + seconds
    with ThreadPoolExecutor(THREADS, initializer=sockets.enter, initargs=(bench, "guest")) as pool:
        lives = pool.map(live, range(THREADS), [AT_ONCE // THREADS] * THREADS, [until] * THREADS)
        return [sum(column) for column in zip(*lives)]


def settled_counts(bench):
    """The daemon's handles and threads, once they have not changed for three seconds."""
    seen = []

    def settled():
        seen.append(bench.counts()["handles"])
        return len(seen) > 3 and len(set(seen[-4:])) == 1
    wait_for(settled, 90, "the number of handles to stay", interval=1)
    return bench.counts()


@pytest.mark.timeout(600)
@pytest.mark.usefixtures("guest_client")
def test_connections_opened_used_and_reset_at_random_leave_nothing_behind(running):
    run(running, 2)  # what the daemon makes once and keeps
    before = settled_counts(running)
    opened, used, reset = run(running, volume(60, 10))
    print(f"\n{opened} connections opened, {used} exchanges on them, {reset} reset in the middle")
    assert opened > AT_ONCE and used > 0 and reset > 0
    after = settled_counts(running)
    print(f"handles and threads {before['handles']}, {before['threads']} before, "
          f"{after['handles']}, {after['threads']} after")
    assert after["handles"] <= before["handles"] + 4
    # And all is as it was.
    assert traffic.peer(running, "guest") == traffic.PEERS["proxy"] == traffic.peer(running)
    dropped = guest.drops(running)
    traffic.download(running, 10_000_000, "guest")
    traffic.upload(running, 10_000_000, "guest")
    assert guest.dropped_since(running, dropped) == {}
