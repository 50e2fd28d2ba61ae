"""Real UDP traffic through the tunnel: names from the direct inbound, all else from the proxy's."""

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


def test_queries_to_the_tunnels_resolver_are_answered_by_the_direct_inbound(running, client):
    assert traffic.dig(running, "web.test") == [traffic.NAMES["web.test"]]
    core.wait_for_taken(client, "direct", "udp", "8.8.8.8:53")


def test_datagrams_go_through_the_proxy_inbound_and_a_flow_has_one_association(running, client):
    payloads = [b"one", b"two", b"x" * 1400]
    assert traffic.udp_echo(running, payloads) == [(payload, traffic.ECHO) for payload in payloads]
    core.wait_for_taken(client, "proxy", "udp", f"{traffic.SERVER}:{traffic.ECHO[1]}")
    assert [each for each in core.taken(client) if each[1] == "udp"] == [
        ("proxy", "udp", f"{traffic.SERVER}:{traffic.ECHO[1]}")]
