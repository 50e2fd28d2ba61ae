"""The core dies and comes back while there is traffic: its connections end, new ones work, clients are answered."""

import socket
import threading
import time

import pytest

from bench import both_ends, core, sockets, traffic
from bench.internet_server import IDENTITY_PORTS
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

SERVERS = [(address, port) for address in traffic.SERVERS for port in IDENTITY_PORTS]


class Load:
    """Short connections one after the other on threads of their own, whatever comes of them."""

    def __init__(self, bench, threads):
        self.worked = self.failed = 0
        self.wrong = []
        self._bench = bench
        self._stopped = threading.Event()
        self._counting = threading.Lock()
        self._threads = [threading.Thread(target=self._run, args=(number,)) for number in range(threads)]
        for thread in self._threads:
            thread.start()

    def _run(self, number):
        sockets.enter(self._bench, "host")
        while not self._stopped.is_set():
            number += 1
            address, port = SERVERS[number % len(SERVERS)]
            try:
                with sockets.connect((address, port), timeout=30) as connection:
                    told, error = both_ends.receive_all(connection)
            except OSError:
                told, error = b"", None
            with self._counting:
                if told == f"{address}:{port}".encode() and error is None:
                    self.worked += 1
                else:
                    self.failed += 1
                    if told:
                        self.wrong.append((address, port, told))
            self._stopped.wait(0.01 if told else 0.05)

    def stop(self):
        self._stopped.set()
        for thread in self._threads:
            thread.join(40)
            assert not thread.is_alive()


@pytest.fixture
def load(running, tunnel_client):  # pylint: disable=unused-argument
    made = Load(running, 6)
    yield made
    made.stop()


def slowest_answer(client, while_true):
    """The longest that the daemon lets its client wait as long as that holds."""
    slowest = 0
    while while_true():
        began = time.monotonic()
        assert client.request("heartbeat")["status"] == "success"
        slowest = max(slowest, time.monotonic() - began)
        time.sleep(0.02)
    return slowest


def test_the_core_killed_and_started_again_under_load(running, tunnel_client, load):
    core.allow_kill(running)
    running.log.allow(r"^\[TCP-NAT\] AcceptEx completion failed$")
    observer = running.client()
    with both_ends.connections(running, 8) as pairs:
        for _, server in pairs[:4]:
            both_ends.Sender(server, 1 << 30)
        for client, server in pairs[4:]:
            client.sendall(b"open")
            assert both_ends.receive(server, 4) == b"open"
        received = [0]

        def drain(client):
            while block := client.recv(1 << 16):
                received[0] += len(block)
        drains = [threading.Thread(target=_ignoring_ends, args=(drain, client)) for client, _ in pairs[:4]]
        for thread in drains:
            thread.start()
        wait_for(lambda: received[0] > 5_000_000 and load.worked > 50, 60, "load")

        core.kill(running, tunnel_client)
        failed = load.failed
        # What was open ends, busy or idle.
        for client, _ in pairs[4:]:
            client.settimeout(20)
            assert both_ends.receive_all(client)[0] == b""
        for thread in drains:
            thread.join(20)
            assert not thread.is_alive(), "a download outlived its core"
        slowest = slowest_answer(observer, lambda: load.failed < failed + 100)

        core.start(running, tunnel_client)
        began = time.monotonic()
        worked = load.worked
        wait_for(lambda: load.worked > worked, 10, "a connection through the new core")
        print(f"\nthe first connection through the new core after {time.monotonic() - began:.2f} s")
        slowest = max(slowest, slowest_answer(observer, lambda: load.worked < worked + 100))
    load.stop()
    print(f"{load.worked} connections worked, {load.failed} did not; the slowest answer took {slowest * 1000:.0f} ms")
    assert load.wrong == []
    assert slowest < 5, "the daemon left its clients waiting"
    assert traffic.peer(running) == traffic.PEERS["proxy"]
    traffic.download(running, 10_000_000)


def _ignoring_ends(work, *arguments):
    try:
        work(*arguments)
    except (ConnectionError, socket.timeout):
        pass
