"""The bench's Internet: servers, clients, and the core's way around a tunnel. No tunnel runs here."""

import pytest

from bench import core, traffic
from bench.network import RESOLVERS, ip

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)


def test_servers_answer_from_host_and_guest(bench, servers):
    for role, address in (("host", "192.0.2.2"), ("guest", "198.51.100.2")):
        assert traffic.peer(bench, role) == address
        traffic.download(bench, 5_000_000, role)
        traffic.upload(bench, 5_000_000, role)
        assert traffic.udp_echo(bench, [b"one", b"", b"x" * 1400], role=role) == [
            (b"one", traffic.ECHO), (b"", traffic.ECHO), (b"x" * 1400, traffic.ECHO)]
        assert traffic.tcp_echo(bench, b"tcp " * 50_000, role=role) == b"tcp " * 50_000
        for resolver in RESOLVERS:
            assert traffic.dig(bench, "web.test", server=resolver, role=role) == [traffic.NAMES["web.test"]]
        assert traffic.dig(bench, "other.test", "+tcp", server="1.1.1.1", role=role) == [traffic.NAMES["other.test"]]
        assert traffic.iperf3(bench, role=role, seconds=1)["end"]["sum_received"]["bits_per_second"] > 0
    assert traffic.dig(bench, "missing.test", server="8.8.8.8") == []
    assert servers.queries().count("web.test") == 8 and servers.queries()[-1] == "missing.test"
    assert traffic.curl(bench, f"http://{traffic.SERVER}/nothing").code == 404
    assert traffic.curl(bench, "http://203.0.113.99/", timeout=3).status != 0, "nobody is there"


def test_each_inbound_of_the_core_has_its_own_way_around_the_routes(running, servers):
    client = running.client()
    core.start(running, client)
    # Routes as a tunnel would have them, that lead nowhere.
    host = running.network.name("host")
    ip("-n", host, "tuntap", "add", "dev", "nowhere", "mode", "tun")
    ip("-n", host, "address", "add", "10.99.0.1/30", "dev", "nowhere")
    ip("-n", host, "link", "set", "nowhere", "up")
    for half in ("0.0.0.0/1", "128.0.0.0/1"):
        ip("-n", host, "route", "add", half, "dev", "nowhere")
    assert traffic.curl(running, f"http://{traffic.SERVER}/peer", timeout=2).status == 28, "the routes lead nowhere"
    for way, port in (("proxy", core.PROXY_PORT), ("direct", core.DIRECT_PORT)):
        seen = traffic.text(running, f"http://{traffic.SERVER}/peer", "--noproxy", "", "--socks5-hostname",
                            f"127.0.0.1:{port}")
        assert seen == traffic.PEERS[way]
        core.wait_for_taken(client, way, "tcp", f"{traffic.SERVER}:80")
    assert core.taken(client) == [("proxy", "tcp", f"{traffic.SERVER}:80"), ("direct", "tcp", f"{traffic.SERVER}:80")]
