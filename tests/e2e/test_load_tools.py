"""What makes load in the tests of the tunnel, from one namespace to another with nothing in between."""

import threading

import pytest

from bench import load, sockets
from bench.network import SERVERS, Network


class Networks:
    """As much of a bench as these tools need: no Windows."""

    def __init__(self, directory):
        self.directory = directory
        self.network = Network(("host", "net"))


@pytest.fixture
def networks(tmp_path):
    made = Networks(tmp_path)
    try:
        made.network.up()
        yield made
    finally:
        made.network.down()


@pytest.fixture
def servers(networks):
    made = load.IdentityServers(networks)
    yield made
    made.close()


def answer_one(listener, text):
    """A server for one client."""
    def run():
        connection, _ = listener.accept()
        with connection:
            connection.sendall(text)
    thread = threading.Thread(target=run)
    thread.start()
    return thread


def test_short_connections_reach_the_servers_that_they_should(networks, servers):
    told = load.short_connections(networks, 4000, servers.endpoints)
    print(told)
    assert (told["good"], told["wrong"], told["failures"]) == (4000, 0, {})


def test_a_wrong_server_is_noticed(networks, servers):
    endpoint = f"{SERVERS[0]}:9200"
    with sockets.listener(networks, (SERVERS[0], 9200)) as listener:
        thread = answer_one(listener, b"203.0.113.20:9200")
        told = load.short_connections(networks, 4, [*servers.endpoints[:3], endpoint])
        thread.join(20)
    assert (told["good"], told["wrong"], told["first_wrong"]) == (3, 1, [[endpoint, "203.0.113.20:9200"]])


def test_an_answer_that_ends_too_early_is_noticed(networks):
    with sockets.listener(networks, (SERVERS[0], 9200)) as listener:
        thread = answer_one(listener, b"203.0.113.10:92")
        told = load.short_connections(networks, 1, [f"{SERVERS[0]}:9200"])
        thread.join(20)
    assert (told["good"], told["wrong"]) == (0, 1)


def test_refused_connections_are_counted(networks, servers):
    told = load.short_connections(networks, 20, [servers.endpoints[0], f"{SERVERS[0]}:9"])
    assert (told["good"], told["failures"]) == (10, {"ECONNREFUSED": 10})


def test_connections_that_nobody_answers_are_given_up(networks, servers):
    with sockets.listener(networks, (SERVERS[0], 9200)):
        told = load.short_connections(networks, 12, [servers.endpoints[0], f"{SERVERS[0]}:9200"], patience=2)
    assert (told["good"], told["failures"]) == (6, {"no answer": 6})


def test_each_query_comes_from_a_port_of_its_own(networks):
    ports = []
    server = sockets.udp(networks, "net", (SERVERS[0], 53))

    def answer():
        while True:
            query, client = server.recvfrom(4096)
            if not query:
                break
            ports.append(client[1])
            # The tenth name does not exist.
            flags = b"\x81\x83" if len(ports) == 10 else b"\x81\x80"
            server.sendto(query[:2] + flags + b"\0\1\0\1" + query[8:], client)

    thread = threading.Thread(target=answer)
    thread.start()
    try:
        told = load.queries_from_new_ports(networks, 2000, SERVERS[0])
    finally:
        with sockets.udp(networks, "net") as last:
            last.sendto(b"", (SERVERS[0], 53))
        thread.join(20)
        server.close()
    print(told)
    assert (told["good"], told["wrong"], told["failures"]) == (1999, 1, {})
    assert len(set(ports)) == len(ports) == 2000


def test_the_host_has_room_for_load(networks):
    def setting(name):
        with open(f"/proc/sys/net/ipv4/{name}", encoding="ascii") as file:
            return file.read().split()
    assert sockets.in_namespace(networks, "host", lambda: setting("ip_local_port_range")) == ["1024", "65535"]
    assert sockets.in_namespace(networks, "host", lambda: setting("tcp_tw_reuse")) == ["1"]
