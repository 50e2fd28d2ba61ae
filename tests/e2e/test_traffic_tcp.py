"""Real TCP traffic of real programs through the tunnel: every byte arrives, by the inbound that it should take."""

import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import both_ends, core, sockets, traffic
from bench.both_ends import Sender
from bench.machine import volume

pytestmark = pytest.mark.parametrize("bench", [("host", "net")], indirect=True)

# A whole volume takes its time on a slow machine.
PATIENCE = 1200


@pytest.mark.timeout(2 * PATIENCE)
def test_pages_uploads_and_echoes_arrive_whole_through_the_proxy_inbound(running, tunnel_client):
    assert traffic.peer(running) == traffic.PEERS["proxy"]
    core.wait_for_taken(tunnel_client, "proxy", "tcp", f"{traffic.SERVER}:80")
    size = volume(1 << 30, 100_000_000)
    down = traffic.download(running, size, timeout=PATIENCE)
    began = time.monotonic()
    traffic.upload(running, size, timeout=PATIENCE)
    up = size / (time.monotonic() - began)
    print(f"\n{size / 1e6:.0f} MB each way: {up * 8e-6:.0f} Mbit/s up, {down * 8e-6:.0f} Mbit/s down")
    assert traffic.tcp_echo(running, b"echo" * 500_000) == b"echo" * 500_000
    assert {way for way, _, _ in core.taken(tunnel_client)} == {"proxy"}


@pytest.mark.usefixtures("tunnel_client")
def test_iperf3_up_and_down_on_one_stream_and_on_eight(running):
    for streams in (1, 8):
        for reverse in (False, True):
            told = traffic.iperf3(running, "--parallel", streams, reverse=reverse)
            received = told["end"]["sum_received"]["bits_per_second"]
            print(f"\niperf3 {'down' if reverse else 'up'}, {streams} streams: {received / 1e6:.0f} Mbit/s")
            assert len(told["start"]["connected"]) == streams
            for stream in told["end"]["streams"]:
                assert stream["receiver"]["bytes"] > 0, "a stream starved"


@pytest.mark.usefixtures("tunnel_client")
def test_many_short_requests_at_once(running):
    request = f"GET /bytes/5000 HTTP/1.1\r\nHost: {traffic.SERVER}\r\nConnection: close\r\n\r\n".encode()
    count, threads = volume(10_000, 1_000), 16

    def fetch(_):
        with sockets.connect((traffic.SERVER, 80)) as connection:
            connection.sendall(request)
            answer, error = both_ends.receive_all(connection)
        head, _, body = answer.partition(b"\r\n\r\n")
        assert head.startswith(b"HTTP/1.1 200 ") and error is None, (head, error)
        return body

    began = time.monotonic()
    with ThreadPoolExecutor(threads, initializer=sockets.enter, initargs=(running, "host")) as pool:
        bodies = list(pool.map(fetch, range(count)))
    print(f"\n{count / (time.monotonic() - began):.0f} requests a second, {threads} at once")
    wrong = {number: len(body) for number, body in enumerate(bodies)
             if len(body) != 5000 or not both_ends.is_known(body)}
    assert not wrong, "the numbers of the bodies that are not as they were sent, and their lengths"


@pytest.mark.usefixtures("tunnel_client")
@pytest.mark.parametrize("direction", ["down", "up"])
def test_a_slow_reader_holds_up_the_sender_and_nothing_is_lost(running, direction):
    size = volume(200_000_000, 40_000_000)
    with both_ends.connections(running) as [(client, server)]:
        source, sink = (server, client) if direction == "down" else (client, server)
        sender = Sender(source, size)
        held = sender.wait_until_blocked()
        assert 0 < held < size, "the sender was not held up"
        both_ends.expect_known(sink, size)
        sender.finish()
        print(f"\n{direction}: {held} bytes lay between the ends")


@pytest.mark.usefixtures("tunnel_client")
@pytest.mark.parametrize("direction", ["down", "up"])
def test_what_a_slow_writer_sends_arrives_piece_by_piece(running, direction):
    with both_ends.connections(running) as [(client, server)]:
        source, sink = (server, client) if direction == "down" else (client, server)
        for number in range(100):
            piece = f"piece {number}".encode()
            source.sendall(piece)
            # Each before the next is sent: none waits to be sent together with others.
            assert both_ends.receive(sink, len(piece)) == piece
            time.sleep(0.005)


@pytest.mark.usefixtures("tunnel_client")
def test_both_directions_at_once(running):
    size = volume(200_000_000, 30_000_000)
    with both_ends.connections(running) as [(client, server)]:
        up, down = Sender(client, size), Sender(server, size)
        with ThreadPoolExecutor(2) as pool:
            for done in [pool.submit(both_ends.expect_known, end, size) for end in (client, server)]:
                done.result(300)
        up.finish()
        down.finish()
