"""Real TCP traffic of real programs through the tunnel: every byte arrives, by the inbound that it should take."""

import pytest

from bench import core, traffic, tunnel

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)


@pytest.fixture
def servers(bench):
    made = traffic.Servers(bench)
    yield made
    made.close()


@pytest.fixture
def client(running, servers):  # pylint: disable=unused-argument
    """A client whose core and tunnel are up."""
    tunnel.expect_in_log(running)
    running.log.allow(r"^\[TCP-NAT\] Listening on ")
    running.log.allow(r"Found stale process entry on startup: \"core\" - state: QProcess::Running")
    made = running.client()
    core.start(running, made)
    tunnel.start(made)
    yield made
    tunnel.stop(made)


def test_pages_uploads_and_echoes_arrive_whole_through_the_proxy_inbound(running, client):
    assert traffic.peer(running) == traffic.PEERS["proxy"]
    core.wait_for_taken(client, "proxy", "tcp", f"{traffic.SERVER}:80")
    traffic.download(running, 50_000_000)
    traffic.upload(running, 50_000_000)
    assert traffic.tcp_echo(running, b"echo" * 500_000) == b"echo" * 500_000


def test_iperf3_up_and_down(running, client):
    for options in ([], ["-P", "4"]):
        for reverse in (False, True):
            told = traffic.iperf3(running, *options, reverse=reverse)
            print(options, "down" if reverse else "up", round(told["end"]["sum_received"]["bits_per_second"] / 1e6))
