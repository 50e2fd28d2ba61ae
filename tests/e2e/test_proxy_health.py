"""The proxy dies, and everybody is told, once: whatever connection notices it; after a reset it may take its time."""

import itertools
import time
from collections import namedtuple
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import core, guest, sockets, traffic, tunnel
from bench.network import SERVER6
from bench.scripted_proxy import Forwarder
from bench.scripted_socks import Socks
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)

LIMIT = 5       # failures until a port is checked
DETECTION = 3   # seconds
PROXY, DIRECT = 30808, 40808
# From a reset on: 100 ms, the gate's second, five checks a second apart, and what a busy machine adds.
LAST_CHECK = 0.1 + 1 + 4


def connect(role, address=(traffic.SERVER, 80)):
    """A connection that the proxy's death ends."""
    def attempt(bench):
        try:
            with sockets.tcp(bench, address, role, 10) as connection:
                assert connection.recv(1) == b"", "nobody can have answered"
        except (ConnectionError, TimeoutError):
            pass
    return attempt


def send(role, address=traffic.ECHO):
    """A datagram of a new flow."""
    def attempt(bench):
        with sockets.udp(bench, role, ("::", 0) if ":" in address[0] else ("", 0)) as endpoint:
            endpoint.sendto(b"datagram", address)
    return attempt


# Who notices, and on which inbound: the NAT path, the engine, and the associations of both.
Path = namedtuple("Path", "attempt port")
PATHS = {
    "tcp": Path(connect("host"), core.PROXY_PORT),
    "guest-tcp": Path(connect("guest"), core.PROXY_PORT),
    "guest-tcp-dns": Path(connect("guest", (traffic.SERVER, 53)), core.DIRECT_PORT),
    "udp": Path(send("host"), core.PROXY_PORT),
    "udp-dns": Path(send("host", (traffic.SERVER, 53)), core.DIRECT_PORT),
    "guest-udp-ipv6": Path(send("guest", (SERVER6, 7)), core.PROXY_PORT),
}


def told(client):
    return len(client.events("server-dead"))


def wait_until_told(clients, times, timeout=20):
    wait_for(lambda: all(told(client) >= times for client in clients), timeout, f"server-dead, number {times}")


def expect_told(clients, times):
    """So often, and no more: what comes after the answer to a request was sent after it."""
    for client in clients:
        assert client.request("heartbeat")["status"] == "success"
        assert told(client) == times


def expect_in_log(bench):
    core.allow_kill(bench)
    guest.allow(bench, guest.ORDINARY_LINES)
    bench.log.allow(r"^\[FAIL-5\] ConnectEx to proxy FAILED on completion - socket error: 10061 ")
    bench.log.allow(r"^\[RESET\] ")


def death_lines(bench):
    return [text for text in bench.log.texts() if "The proxy does not answer any more on port" in text]


def notice(bench, path, clients, times):
    """Connections fail until they are enough, and the clients are told; how long after the last one began."""
    for _ in range(LIMIT - 1):
        path.attempt(bench)
    began = time.monotonic()
    path.attempt(bench)
    wait_until_told(clients, times)
    return time.monotonic() - began


@pytest.mark.parametrize("path", PATHS.values(), ids=PATHS.keys())
def test_everybody_is_told_once_of_a_core_that_died(running, tunnel_client, path):
    expect_in_log(running)
    clients = [tunnel_client, running.client()]
    if path is PATHS["guest-udp-ipv6"]:
        guest.route_ipv6_into_tunnel(running)
    core.kill(running, tunnel_client)
    took = notice(running, path, clients, 1)
    print(f"\ntold within {took:.2f} s of the fifth connection's beginning")
    assert took < DETECTION
    for _ in range(2 * LIMIT):
        path.attempt(running)
    expect_told(clients, 1)
    assert [line.rpartition(" ")[2] for line in death_lines(running)] == [str(path.port)]


def test_everybody_is_told_of_a_core_that_hangs(running, core_client):
    """It lets everybody connect and says nothing: each connection fails after its ten seconds."""
    expect_in_log(running)
    clients = [core_client, running.client()]
    with Forwarder(running, PROXY, core.PROXY_PORT) as proxy:
        tunnel.start(core_client, proxy_port=PROXY, direct_port=core.DIRECT_PORT)
        assert is_echoed(running)
        proxy.mute = True
        with ThreadPoolExecutor(LIMIT) as pool:
            failures = [pool.submit(time_of_end, running) for _ in range(LIMIT)]
            wait_until_told(clients, 1, 40)
            took = time.monotonic() - max(failure.result(20) for failure in failures)
        print(f"\ntold {took:.2f} s after the fifth connection failed")
        assert took < DETECTION
        expect_told(clients, 1)
        tunnel.stop(core_client)


def time_of_end(bench):
    """When a connection that nobody answers has ended."""
    with sockets.tcp(bench, (traffic.SERVER, 80), timeout=30) as connection:
        try:
            assert connection.recv(1) == b""
        except ConnectionError:
            pass
        return time.monotonic()


def test_without_traffic_nobody_looks_and_a_second_death_is_news(running, tunnel_client):
    expect_in_log(running)
    clients = [tunnel_client, running.client()]
    path = PATHS["tcp"]
    core.kill(running, tunnel_client)
    # Nothing is to happen: neither an event, nor a connection that would find out.
    time.sleep(DETECTION + 2)
    expect_told(clients, 0)
    assert not [text for text in running.log.texts() if "10061" in text]
    for death in (1, 2):
        took = notice(running, path, clients, death)
        print(f"\ndeath {death}: told within {took:.2f} s of the fifth connection's beginning")
        assert took < DETECTION
        if death == 1:
            core.start(running, tunnel_client)
            wait_for(lambda: is_echoed(running), 20, "traffic through the new core")
            expect_told(clients, 1)
            core.kill(running, tunnel_client)
    for _ in range(LIMIT):
        path.attempt(running)
    expect_told(clients, 2)


def is_echoed(bench):
    try:
        return traffic.tcp_echo(bench, b"echo", timeout=5) == b"echo"
    except (AssertionError, OSError):
        return False


@pytest.fixture
def resettable(running, servers):  # pylint: disable=unused-argument
    """Two clients of a tunnel whose proxies have stopped listening, as those of a core that is being restarted."""
    tunnel.expect_in_log(running)
    expect_in_log(running)
    clients = [running.client(), running.client()]
    with Socks(running, PROXY) as proxy, Socks(running, DIRECT):
        tunnel.start(clients[0], proxy_port=PROXY, direct_port=DIRECT)
        assert is_echoed(running)
        assert proxy.requests
    yield clients
    tunnel.stop(clients[0])


def test_a_core_that_takes_four_seconds_after_a_reset_is_not_dead(running, resettable):
    assert resettable[0].request("reset-connections")["status"] == "success"
    began = time.monotonic()
    attempts = itertools.cycle([connect("host"), send("host"), connect("guest", (traffic.SERVER, 53))])
    made = 0
    while time.monotonic() < began + 4:
        next(attempts)(running)
        made += 1
        time.sleep(0.02)
    failed = len([text for text in running.log.texts() if "[TCP-NAT] Failed to connect to SOCKS5 proxy" in text])
    print(f"\n{made} connections, {failed} lines about those of the NAT path that failed at the proxy")
    assert failed >= 2 * LIMIT
    with Socks(running, DIRECT), Socks(running, PROXY):
        up = time.monotonic() - began
        assert up < LAST_CHECK, "the connections of this test have kept the proxy down for too long"
        wait_for(lambda: is_echoed(running), 5, "traffic through the proxy that came up")
        # Until the last check would have been.
        while time.monotonic() < began + LAST_CHECK + 2:
            assert is_echoed(running)
            time.sleep(0.05)
        expect_told(resettable, 0)
        print(f"up after {up:.2f} s, and nobody was told of a death")
    # And now it dies.
    assert notice(running, PATHS["tcp"], resettable, 1) < DETECTION
    expect_told(resettable, 1)


def test_a_core_that_stays_dead_after_a_reset_is_told_of_once(running, resettable):
    began = time.monotonic()
    assert resettable[0].request("reset-connections")["status"] == "success"
    wait_until_told(resettable, 1)
    took = time.monotonic() - began
    print(f"\ntold {took:.2f} s after the reset was asked for")
    assert LAST_CHECK - 0.5 < took < LAST_CHECK + DETECTION
    for _ in range(2 * LIMIT):
        connect("host")(running)
    # It is known to be dead, whether it is reset again or not.
    assert resettable[1].request("reset-connections")["status"] == "success"
    time.sleep(LAST_CHECK + 1)
    expect_told(resettable, 1)
    assert len(death_lines(running)) == 1
