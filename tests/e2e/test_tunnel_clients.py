"""One tunnel for everybody: who may start and stop it, whose departure ends it, and what ends with the service."""

import time

import pytest

from bench import tunnel, wait_for
from bench.network import RESOLVERS

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)


def wait_until_gone(bench, timeout=20):
    """The answer to a departure is nobody's: what can be seen of it is the machine."""
    wait_for(lambda: not tunnel.adapters(bench), timeout, "the end of the adapter")
    wait_for(lambda: not any(address in " ".join(tunnel.routes(bench)) for address in RESOLVERS), timeout,
             "the end of the bypass routes")


def test_the_tunnel_is_everybodys_and_goes_with_the_last_client(tunnel_bench):
    bench = tunnel_bench
    bench.set_sessions("1 active alice", "2 active bob")
    starter, other = bench.client(1), bench.client(1)
    wait_for(lambda: bench.has_pipe(2), 15, "the pipe of session 2")
    third = bench.client(2)
    tunnel.start(starter)
    answer = other.request("start-tun", tunnel_ip="10.9.9.1")
    assert (answer["success"], answer["error"]) == (False, "TUN already running")
    routes = tunnel.routes(bench)

    starter.close()
    bench.log.wait_for("Remaining connected clients: 2")
    bench.log.wait_for("TUN still running - other clients are connected", count=1)
    other.kill()
    bench.log.wait_for("Remaining connected clients: 1")
    bench.log.wait_for("TUN still running - other clients are connected", count=2)
    assert third.request("tun-status")["adapter-name"] == tunnel.NAME
    assert tunnel.routes(bench) == routes

    third.close()
    bench.log.wait_for("Remaining connected clients: 0")
    wait_until_gone(bench)
    texts = bench.log.texts()
    assert texts.count("TUN still running - other clients are connected") == 2
    assert not any("stop-tun" in text for text in texts), "nobody asked for it"
    assert not tunnel.is_running(bench.client(1))


def test_any_client_stops_it_and_any_starts_it_again(tunnel_bench):
    bench = tunnel_bench
    one, two = bench.client(), bench.client()
    tunnel.start(one)
    tunnel.stop(two)
    assert tunnel.adapters(bench) == []
    assert one.request("stop-tun")["error"] == "TUN not running"
    tunnel.start(two, tunnel_ip="10.8.8.1")
    assert tunnel.is_running(one)
    # Without a tunnel a departure is just that.
    tunnel.stop(one)
    one.close()
    bench.log.wait_for("Remaining connected clients: 1")
    assert "TUN still running - other clients are connected" not in bench.log.texts()


def test_it_stays_when_one_client_falls_silent_and_goes_with_the_last(tunnel_bench):
    bench = tunnel_bench
    first = bench.client(heartbeat=False)
    tunnel.start(first)
    routes = tunnel.routes(bench)
    # More than the five seconds between two checks apart: none finds both of them silent for too long.
    assert first.request("heartbeat")["status"] == "success"
    last_sign = time.monotonic()
    wait_for(lambda: time.monotonic() - last_sign > 6, 10, "the clients to be apart")
    silent = bench.client(heartbeat=False)

    bench.log.expect(r'^Client "[0-9a-f]+" timed out \(no heartbeat for 10000 ms\)$')
    bench.log.wait_for("timed out", 30, count=1)
    first.wait_closed()
    bench.log.wait_for("TUN still running - other clients are connected", count=1)
    assert tunnel.is_running(silent)
    assert tunnel.routes(bench) == routes

    bench.log.wait_for("timed out", 30, count=2)
    wait_until_gone(bench)
    silent.wait_closed()
    texts = bench.log.texts()
    assert texts.count("TUN still running - other clients are connected") == 1
    assert not any("Remaining connected clients" in text for text in texts), "that is said of those who disconnect"


def test_it_goes_with_the_service_and_comes_back_with_it(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    bench.stop()
    assert tunnel.adapters(bench) == []
    assert not any("uplink proto static" in route for route in tunnel.routes(bench))
    texts = bench.log.texts()
    # The children stay until the tunnel is gone: they are what it leads to.
    order = ["Stopping ruvod daemon...", "Stopping TUN...", "[ProcessManager] No processes to stop", "Daemon stopped"]
    assert [text for text in texts if text in order] == order
    client.wait_closed()

    bench.start()
    client = bench.client()
    assert not tunnel.is_running(client)
    tunnel.start(client)
    tunnel.stop(client)
    bench.stop()
    assert bench.log.texts().count("Stopping TUN...") == 1, "only where there is one"


def test_it_goes_with_a_daemon_that_steps_aside_for_a_newer_client(tunnel_bench):
    bench = tunnel_bench
    client = bench.client()
    tunnel.start(client)
    assert client.request("client-hello", log_path=bench.log_path(), version="99.0")["status"] == "restarting"
    bench.wait_for_state(1)
    assert tunnel.adapters(bench) == []
    wait_for(lambda: not bench.daemon_pids(), 20, "the end of the daemon")
