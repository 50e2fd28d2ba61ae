"""Programs on the direct list go straight to their servers, all others through the core's proxy inbound."""

import pytest

from bench import core, programs, traffic, tunnel, wait_for
from bench.internet_server import IDENTITY_PORTS

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

SERVER = traffic.SERVER
DIRECT_LINE = r"^\[TCP-NAT\] Using DIRECT routing to "


class Ways:
    """Which way connections take. Each server is visited once, so that logs tell whose connection it was."""

    def __init__(self, bench, client):
        self._bench = bench
        self._client = client
        self._ports = iter(IDENTITY_PORTS)

    def of(self, visit):
        """Calls `visit` with a port of the server, which answers with its identity; "proxy" or "direct"."""
        port = next(self._ports)
        endpoint = f"{SERVER}:{port}"
        assert visit(port) == endpoint
        # An entry in the core's log comes a moment after the connection.
        if self._is_direct(endpoint):
            assert not [entry for entry in core.taken(self._client) if entry[2] == endpoint]
            return "direct"
        core.wait_for_taken(self._client, "proxy", "tcp", endpoint)
        return "proxy"

    def _is_direct(self, endpoint):
        return f"[TCP-NAT] Using DIRECT routing to {endpoint}" in self._bench.log.texts()

    def of_windows(self, name):
        return self.of(lambda port: programs.run_windows(self._bench, name, "tcp", SERVER, port, "rest"))

    def of_linux(self, name):
        script = 'exec 3<>"/dev/tcp/$0/$1"; cat <&3'
        return self.of(lambda port: programs.run_linux(self._bench, name, "/bin/bash", "-c", script, SERVER, port))


@pytest.fixture
def ways(running, core_client):
    return Ways(running, core_client)


def test_windows_programs_on_the_direct_list_go_straight(running, core_client, ways):
    running.log.expect(DIRECT_LINE)
    tunnel.start(core_client, direct_processes=["Shop.EXE", "mail.exe"], proxy_processes=["browser.exe", "mail.exe"])
    assert ways.of_windows("shop.exe") == "direct"
    assert ways.of_windows("MAIL.exe") == "direct", "the direct list goes before the proxy list"
    assert ways.of_windows("browser.exe") == "proxy"
    assert ways.of_windows("myshop.exe") == "proxy", "a name is the whole name"
    assert ways.of_windows("other.exe") == "proxy"


def test_programs_that_are_open_at_once_are_told_apart(running, core_client):
    running.log.expect(DIRECT_LINE)
    tunnel.start(core_client, direct_processes=["shop.exe"])
    steps = ("send", "hello", "line", "wait", "send", "again", "line")
    clients = [programs.WindowsClient(running, name, "tcp", SERVER, traffic.ECHO[1], *steps)
               for name in ("shop.exe", "mail.exe", "shop.exe", "mail.exe")]
    try:
        for client in clients:
            assert client.expect("line")["text"] == "hello"
            client.expect("waiting")
        for client in clients:
            client.go_on()
            assert client.finish() == 0
            assert client.events[-1]["text"] == "again"
    finally:
        for client in clients:
            client.close()
    endpoint = f"{SERVER}:{traffic.ECHO[1]}"
    ways = lambda: [entry[0] for entry in core.taken(core_client) if entry[2] == endpoint]
    wait_for(lambda: len(ways()) >= 2, what="two connections in the core's log")
    assert ways() == ["proxy", "proxy"]
    assert running.log.texts().count(f"[TCP-NAT] Using DIRECT routing to {endpoint}") == 2


def test_programs_of_linux_are_routed_by_their_names_too(running, core_client, ways):
    running.log.expect(DIRECT_LINE)
    tunnel.start(core_client, direct_processes=["browser"])
    assert ways.of_linux("browser") == "direct"
    assert ways.of_linux("mail") == "proxy"


def test_without_lists_all_goes_through_the_proxy(core_client, ways):
    tunnel.start(core_client)
    assert ways.of_windows("shop.exe") == "proxy"


def test_an_owner_that_cannot_be_told_is_proxied(running, core_client, ways):
    """The table of connections cannot be read: no rule for programs applies, and nothing is lost."""
    running.log.expect(r"^GetExtendedTcpTable failed: 31$")
    running.log.expect(DIRECT_LINE)
    tunnel.start(core_client, direct_processes=["shop.exe"])
    assert ways.of_windows("shop.exe") == "direct"
    # From the second call on: the first only tells the table's size.
    running.plan_failures("GetExtendedTcpTable 2+ 31")
    assert ways.of_windows("shop.exe") == "proxy"
    running.log.wait_for("GetExtendedTcpTable failed: 31")
