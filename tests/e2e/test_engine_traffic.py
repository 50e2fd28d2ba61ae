"""Real TCP traffic of a machine behind the Windows machine: the engine terminates it, and every byte arrives."""

import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import both_ends, core, guest, traffic, tunnel
from bench.both_ends import Sender
from bench.machine import volume
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)

# A whole volume takes its time on a slow machine.
PATIENCE = 1200


# The engine's window never closes, so what the guest has under way is bounded by its own buffers alone. With these,
# eight streams fit into the adapter's queue; what is lost there is sent again, but only after a time-out.
MODEST_SENDER = {"net.ipv4.tcp_wmem": "4096 16384 1048576"}


def through_engine(bench, count=1):
    """Connections from the guest to a server: [(client, server), …]."""
    return both_ends.connections(bench, count, role="guest")


@pytest.mark.timeout(4 * PATIENCE)
def test_downloads_and_uploads_arrive_whole_and_nothing_is_dropped(running, guest_client):
    down_size, up_size = volume(1 << 30, 107_000_000), volume(256 << 20, 26_000_000)
    assert traffic.peer(running, "guest") == traffic.PEERS["proxy"]
    core.wait_for_taken(guest_client, "proxy", "tcp", f"{traffic.SERVER}:80")
    running.network.set("guest", **MODEST_SENDER)
    before = guest.drops(running)
    for streams in (1, 8):
        for what, transfer, size in (("down", traffic.download, down_size), ("up", traffic.upload, up_size)):
            began = time.monotonic()
            with ThreadPoolExecutor(streams) as pool:
                server = traffic.SERVERS[streams % 2]
                list(pool.map(lambda number, part=size // streams, move=transfer, server=server: move(
                    running, part + number, "guest", server, timeout=PATIENCE), range(streams)))
            print(f"\n{size / 1e6:.0f} MB {what}, {streams} streams: "
                  f"{size * 8e-6 / (time.monotonic() - began):.0f} Mbit/s")
    assert guest.dropped_since(running, before) == {}
    assert {way for way, _, _ in core.taken(guest_client)} == {"proxy"}


@pytest.mark.usefixtures("guest_client")
def test_iperf3_up_and_down_on_one_stream_and_on_eight(running):
    # When time is up the server ends the upload in the middle.
    running.log.allow(r"^\[SEND-FAIL\] WSASend failed \(not pending\) - port: \d+ error: 1005[34] queueSize: ")
    running.network.set("guest", **MODEST_SENDER)
    before = guest.drops(running)
    with guest.Tap(running) as tap:
        traffic.tcp_echo(running, b"echo" * 5_000, role="guest")
    assert tap.from_guest() and tap.to_guest()
    # Nothing on the way leaves checksums to hardware that is not there: the engine drops what has a wrong one.
    assert [segment for segment in tap.segments if not segment.intact] == []
    for streams in (1, 8):
        for reverse in (False, True):
            told = traffic.iperf3(running, "--parallel", streams, role="guest", seconds=2, reverse=reverse)
            received = told["end"]["sum_received"]["bits_per_second"]
            print(f"\niperf3 {'down' if reverse else 'up'}, {streams} streams: {received / 1e6:.0f} Mbit/s")
            assert len(told["start"]["connected"]) == streams
            for stream in told["end"]["streams"]:
                assert stream["receiver"]["bytes"] > 0, "a stream starved"
    assert guest.dropped_since(running, before) == {}


@pytest.mark.timeout(PATIENCE)
def test_packets_that_wait_for_a_full_ring_arrive_in_their_order(running, guest_client):
    size = volume(100_000_000, 20_000_000)
    before = guest.drops(running)
    running.plan_packets("full 60 40")
    began = time.monotonic()
    with through_engine(running, 4) as pairs:
        senders = [Sender(source, size // 4)
                   for source in [server for _, server in pairs[:2]] + [client for client, _ in pairs[2:]]]
        sinks = [client for client, _ in pairs[:2]] + [server for _, server in pairs[2:]]
        with ThreadPoolExecutor(4) as pool:
            for done in [pool.submit(both_ends.expect_known, sink, size // 4) for sink in sinks]:
                done.result(PATIENCE / 2)
        for sender in senders:
            sender.finish()
    running.plan_packets()
    print(f"\n{size / 1e6:.0f} MB on four streams in {time.monotonic() - began:.1f} s, the ring full 60 of 100 ms")
    assert guest.dropped_since(running, before) == {}
    tunnel.stop(guest_client)
    [session] = running.journal.calls("WintunEndSession")
    assert session["refused-full"] > 0 and session["dropped"] == 0


# Linux cuts what it sends again where it cut it the first time, as long as it does not join small segments. That
# matters: bytes that overlap what waits out of its order are not trimmed, so another cut would bring some twice.
STEADY_CUTS = {"net.ipv4.tcp_retrans_collapse": "0", "net.ipv4.tcp_early_retrans": "0"}


@pytest.mark.timeout(PATIENCE)
def test_packets_out_of_their_order_and_twice_make_the_same_stream(running, guest_client):
    size = volume(100_000_000, 10_000_000)
    running.network.set("guest", **STEADY_CUTS)
    running.plan_packets("seed 17", "reorder 5 3", "duplicate 2 3")
    with guest.Tap(running) as tap:
        assert traffic.tcp_echo(running, b"echo" * 20_000, role="guest") == b"echo" * 20_000
    with through_engine(running, 2) as [(up, up_server), (down, down_server)]:
        senders = [Sender(up, size), Sender(down_server, size)]
        with ThreadPoolExecutor(2) as pool:
            for done in [pool.submit(both_ends.expect_known, end, size) for end in (up_server, down)]:
                done.result(PATIENCE / 2)
        for sender in senders:
            sender.finish()
    traffic.upload(running, size, "guest")
    running.plan_packets()
    running.log.wait_for("[OOO-PROCESSED] Processing buffered packet - port:")
    running.log.wait_for("[OOO-BUFFERED] Buffering future packet - port:")
    running.log.wait_for("[DUP-DROP] Dropping duplicate/old packet - port:")
    # What an old segment asks for is nothing: no acknowledgement goes back behind one that was sent before.
    acknowledged = [segment.ack for segment in tap.to_guest()]
    assert acknowledged == sorted(acknowledged)
    tunnel.stop(guest_client)
    [session] = running.journal.calls("WintunEndSession")
    print(f"\n{session['overtaken']} packets overtaken, {session['repeated']} repeated, of {session['received']}")
    assert session["overtaken"] > 100 and session["repeated"] > 50


@pytest.mark.usefixtures("scripted")
def test_what_is_sent_right_before_the_end_arrives_whole(running):
    # Behind a proxy that hands an end on as it comes, which the core does after some seconds.
    guest.allow(running, guest.BUSY_LINES)
    # The last bytes and the end in one segment: what is held back for more goes out with the end.
    with guest.Tap(running) as tap, through_engine(running) as [(client, server)]:
        client.sendall(b"a question")
        assert both_ends.receive(server, 10) == b"a question"
        both_ends.end_with(client, b"and the last words")
        assert both_ends.receive_all(server)[0] == b"and the last words"
        wait_for(lambda: [each for each in tap.from_guest() if each.flags & guest.FIN and each.size == 18], 5,
                 "a segment with the last words and the end")
    # An upload that is closed at once behind its last write.
    for size in (1, 1460, 100_000, 3_000_000):
        with through_engine(running, 5) as pairs:
            for client, _ in pairs:
                Sender(client, size).finish()
                client.close()
            for _, server in pairs:
                received, error = both_ends.receive_all(server)
                assert (len(received), error) == (size, None) and both_ends.is_known(received)
    # A download whose server closes at once.
    for size in (1, 1460, 100_000, 3_000_000):
        with through_engine(running) as [(client, server)]:
            Sender(server, size).finish()
            server.close()
            received, error = both_ends.receive_all(client)
            assert (len(received), error) == (size, None) and both_ends.is_known(received)


@pytest.mark.timeout(PATIENCE)
@pytest.mark.usefixtures("guest_client")
def test_a_reader_that_pauses_loses_nothing(running):
    pauses = [(0.001, 64 << 10), (0.1, 1 << 20), (3, 8 << 20)] + [(30, 8 << 20)] * volume(1, 0)
    size = 20_000_000
    before = guest.drops(running)
    for direction in ("down", "up"):
        with through_engine(running, len(pauses)) as pairs, ThreadPoolExecutor(len(pauses)) as pool:
            ends = [(server, client) if direction == "down" else (client, server) for client, server in pairs]
            senders = [Sender(source, size) for source, _ in ends]
            for _, sink in ends:
                sink.settimeout(120)  # what was refused is sent again after ever longer waits
            readers = [pool.submit(both_ends.expect_known, sink, size, pause=pause, every=every)
                       for (_, sink), (pause, every) in zip(ends, pauses)]
            for (pause, every), reader, sender in zip(pauses, readers, senders):
                seconds = reader.result(200)
                sender.finish()
                print(f"\n{direction}, {pause} s after every {every} bytes: {size / 1e6 / seconds:.1f} MB/s")
    assert guest.dropped_since(running, before) == {}
