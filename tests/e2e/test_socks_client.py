"""The SOCKS5 client against real servers: dante, which carries datagrams too, and microsocks."""

import json

import pytest

from bench import socks_servers, traffic
from bench.paths import BUILD
from bench.socks_servers import DANTE_PORT, MICROSOCKS_PORT

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

PROBE = BUILD / "tests" / "e2e" / "socksprobe" / "socksprobe.exe"
BOTH = {"dante": DANTE_PORT, "microsocks": MICROSOCKS_PORT}


@pytest.fixture
def servers(bench):
    internet = traffic.Servers(bench)
    try:
        proxies = socks_servers.SocksServers(bench)
        yield internet
        proxies.close()
    finally:
        internet.close()


def probe(bench, command, port, *words):
    """What the client came to, and its warnings."""
    result = bench.prefix.run(PROBE, command, "127.0.0.1", port, *words, timeout=60)
    assert result.status == 0, result
    answer = json.loads(result.stdout)
    return answer, answer.pop("warnings")


def test_connects_by_address_and_by_name_and_carries_bytes_whole(bench, servers):
    size = 3_000_000
    for name, port in BOTH.items():
        for target in (traffic.SERVER, "web.test"):
            result, warnings = probe(bench, "get", port, target, 80, f"/bytes/{size}")
            assert (result["connected"], result["size"], result["digest"], warnings) == (
                True, size, traffic.known_digest(size), []), (name, target, result)
            # Nothing of the stream was taken for the reply, and nothing of the reply for the stream.
            result, _ = probe(bench, "get", port, target, 80, "/peer")
            assert result["text"] == "192.0.2.2", (name, target, result)
    assert "web.test" in servers.queries(), "the server asked for the name"


def test_a_refused_target_is_told_by_its_reply_code(bench, servers):
    for name, port in BOTH.items():
        result, warnings = probe(bench, "get", port, traffic.SERVER, 81, "/")
        assert (result["connected"], warnings) == (False, ["SOCKS5 connection failed with reply: 5"]), name
        result, warnings = probe(bench, "get", port, "web.test", 81, "/")
        assert (result["connected"], warnings) == (False, ["SOCKS5 domain connection failed with reply: 5"]), name


def test_a_name_that_does_not_exist_is_told_by_its_reply_code(bench, servers):
    for port, code in ((DANTE_PORT, 4), (MICROSOCKS_PORT, 1)):
        result, warnings = probe(bench, "get", port, "missing.test", 80, "/")
        assert (result["connected"], warnings) == (False, [f"SOCKS5 domain connection failed with reply: {code}"])
    assert "missing.test" in servers.queries()


def test_a_name_of_255_bytes_is_sent_and_a_longer_one_is_not(bench, servers):
    before = len(servers.queries())
    result, warnings = probe(bench, "get", DANTE_PORT, "a" * 256, 80, "/")
    assert (result["connected"], warnings) == (False, ["Invalid domain name length"])
    assert len(servers.queries()) == before
    for port in BOTH.values():
        result, warnings = probe(bench, "get", port, "a" * 255, 80, "/")
        assert not result["connected"] and len(warnings) == 1, "it was sent, and the server refused it"


def test_datagrams_through_dante(bench, servers):
    texts = ["one", "two", "x" * 1200]
    result, warnings = probe(bench, "udp", DANTE_PORT, *traffic.ECHO, *texts)
    assert (result, warnings) == ({"opened": True, "answers": texts, "drained": True}, [])


def test_a_server_without_datagrams_refuses_the_association(bench, servers):
    result, warnings = probe(bench, "udp", MICROSOCKS_PORT, *traffic.ECHO, "one")
    assert (result, warnings) == ({"opened": False}, ["[UDP-NAT] UDP ASSOCIATE failed: 7"])


def test_nobody_listens(bench):
    result, warnings = probe(bench, "get", DANTE_PORT, traffic.SERVER, 80, "/")
    assert (result["connected"], warnings) == (False, ["Failed to connect to proxy: 10061"])
    result, warnings = probe(bench, "udp", DANTE_PORT, *traffic.ECHO, "one")
    assert (result, warnings) == ({"opened": False}, ["[UDP-NAT] Failed to connect to SOCKS5 proxy: 10061"])
