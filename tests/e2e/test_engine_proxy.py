"""What the engine makes of its proxy's answers, of one that does not read, and of a guest that does not."""

import re
import socket
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from bench import both_ends, guest, sockets, traffic, tunnel
from bench.both_ends import Sender
from bench.scripted_proxy import CONNECTED
from bench.scripted_socks import CONNECT, IPV4, NO_METHOD, Request, refusal
from bench.waiting import wait_for

pytestmark = pytest.mark.parametrize("bench", [("host", "net", "guest")], indirect=True)

WEB = (traffic.SERVER, 80)
REFUSED = "(10061=WSAECONNREFUSED, 10060=WSAETIMEDOUT, 10051=WSAENETUNREACH)"
REPLIES = ("(1=general failure, 2=not allowed, 3=network unreachable, 4=host unreachable, 5=connection refused, "
           "6=TTL expired, 7=command not supported, 8=address type not supported)")


def dial(bench, timeout=20):
    """A connection from the guest."""
    return sockets.tcp(bench, WEB, "guest", timeout)


def slow_to_read():
    """A receive buffer that is soon full."""
    return [(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 16)]


def test_a_proxy_that_is_not_there_refuses_the_guests_connection(running):
    tunnel.expect_in_log(running)
    guest.allow(running, guest.ORDINARY_LINES)
    fail5 = f"[FAIL-5] ConnectEx to proxy FAILED on completion - socket error: 10061 {REFUSED}"
    running.log.expect("^" + re.escape(fail5))
    client = running.client()
    tunnel.start(client, proxy_port=30808, direct_port=40808)
    with guest.Tap(running) as tap:
        began = time.monotonic()
        with pytest.raises(ConnectionRefusedError):
            dial(running)
        print(f"\nrefused after {time.monotonic() - began:.2f} s")
        wait_for(tap.to_guest, 5, "the reset")
    opening, answer = tap.from_guest()[-1], tap.to_guest()[-1]
    assert (answer.flags, answer.seq, answer.ack) == (guest.RST | guest.ACK, 0, (opening.seq + 1) % (1 << 32))
    tunnel.stop(client)


@pytest.mark.usefixtures("servers")
def test_the_guests_connection_opens_when_the_proxy_has_said_yes_and_not_before(running, scripted):
    granted = threading.Event()

    def once_granted(_request, _number):
        granted.wait(30)
    scripted.proxy.answer = once_granted
    with guest.Tap(running) as tap, ThreadPoolExecutor(1) as pool:
        opening = pool.submit(dial, running)
        try:
            assert scripted.proxy.wait_for_requests(CONNECT) == [Request(CONNECT, IPV4, *WEB)]
            # The guest asks again after a second, and that is no second connection.
            wait_for(lambda: len([each for each in tap.from_guest() if each.flags == guest.SYN]) > 1, 10,
                     "the guest to ask again")
            assert tap.to_guest() == [] and not opening.done()
        finally:
            granted.set()
        with opening.result(20) as connection:
            connection.sendall(b"GET /peer HTTP/1.1\r\nConnection: close\r\n\r\n")
            assert both_ends.receive(connection, 12) == b"HTTP/1.1 200"
    assert tap.to_guest()[0].flags == guest.SYN | guest.ACK
    assert len(scripted.proxy.of(CONNECT)) == 1


@pytest.mark.usefixtures("servers")
def test_a_proxy_that_says_no_leaves_the_guest_without_an_answer(running, scripted):
    running.log.expect("^" + re.escape("[FAIL-6] SOCKS5 auth REJECTED by proxy - bytes: 2 method: 255") + "$")
    fail7 = f"[FAIL-7] SOCKS5 CONNECT request REJECTED by proxy - bytes: 10 ver: 5 reply: 5 {REPLIES}"
    running.log.expect("^" + re.escape(fail7) + rf".*{re.escape(traffic.SERVER)}")
    with guest.Tap(running) as tap:
        for method, answer in ((NO_METHOD, CONNECTED), (scripted.proxy.method, refusal(5))):
            scripted.proxy.method = method
            scripted.proxy.answer = lambda _request, _number, answer=answer: answer
            with pytest.raises(TimeoutError):
                dial(running, 0.8)  # before it asks again
        assert tap.to_guest() == []
    # And then it does.
    scripted.proxy.answer = lambda _request, _number: None
    assert traffic.tcp_echo(running, b"echo", role="guest") == b"echo"


def test_an_upload_that_nobody_takes_waits_and_arrives_whole(running, scripted):
    guest.allow(running, guest.BUSY_LINES)
    running.log.expect(r"^\[QUEUE-LARGE\] sendQueue growing - xray not consuming\? "
                       r"port: \d+ queueSize: \d+ bytes dest: ")
    running.log.expect(r"^\[UPLOAD BACKPRESSURE\] Queue full - port: \d+ queueSize: \d+")
    scripted.proxy.hand_on = False
    size = 20_000_000
    with dial(running) as connection, scripted.proxy.take() as onward:
        sender = Sender(connection, size)
        running.log.wait_for("[UPLOAD BACKPRESSURE] Queue full - port:")
        held = sender.wait_until_blocked()
        assert held < size
        onward.settimeout(60)
        seconds = both_ends.expect_known(onward, size)
        sender.finish()
        print(f"\n{held} bytes lay in between; all {size} came within {seconds:.1f} s from then on")
    sizes = [int(line.text.rpartition(" ")[2]) for line in running.log.wait_for("[UPLOAD BACKPRESSURE]")]
    assert all(0 < each <= 0x200000 for each in sizes), sizes


@pytest.mark.debug_log
def test_a_download_that_the_guest_does_not_read_pauses_and_goes_on(running, scripted):
    running.log.expect(r"^\[BACKPRESSURE\] Stopping recv - queue full")
    running.log.expect(r"^\[BACKPRESSURE\] Resuming recv - queue drained: port= ?\d+")
    scripted.proxy.hand_on = False
    size = 40_000_000
    with sockets.tcp(running, WEB, "guest", options=slow_to_read()) as connection, scripted.proxy.take() as onward:
        sender = Sender(onward, size)
        running.log.wait_for("[BACKPRESSURE] Stopping recv - queue full")
        held = sender.wait_until_blocked()
        assert held < size
        both_ends.expect_known(connection, size)
        sender.finish()
        print(f"\n{held} bytes lay in between")
        # Worker 0 looks at all connections at every 2000th completion that it gets.
        began = time.monotonic()
        while not [text for text in running.log.texts() if text.startswith("[TCP-DIAG] Total connections: ")]:
            assert time.monotonic() - began < 60
            for _ in range(500):
                connection.sendall(b"there")
                assert both_ends.receive(onward, 5) == b"there"
                onward.sendall(b"back")
                assert both_ends.receive(connection, 4) == b"back"
    [line, *_] = running.log.wait_for("[TCP-DIAG] Total connections:")
    assert line.text == ("[TCP-DIAG] Total connections: 1 CONNECTING: 0 H_GREETING: 0 H_AUTH: 0 H_REQUEST: 0 "
                         "H_RESPONSE: 0 ESTABLISHED: 1") and line.level == "DEBUG"
    running.log.wait_for("[FLOW] Resumed connection #")
