#!/usr/bin/python3
"""Server and client of the traffic that scripts/bench measures. Only the standard library.

    traffic_load.py serve ADDRESS               TCP at 7001, UDP echo at 7002; prints "ready"
    traffic_load.py KIND ADDRESS [--socks PORT] [--seconds S] [--streams N]
                                                prints the figures as one JSON object

Kinds: up, down (bytes in bulk), rtt (100 bytes there and back, one at a time), connect (a connection, a byte there and
back, the end, one after the other), udp (datagrams there and back, 32 under way), udp-new (the same, each from a new
port), hold (opens that many connections and keeps them until standard input ends).
"""

import argparse
import contextlib
import json
import socket
import struct
import sys
import threading
import time

TCP_PORT, UDP_PORT = 7001, 7002
BLOCK = bytes(1 << 18)


def serve_tcp(connection):
    """The first byte says what is wanted: (u)pload, (d)ownload or (e)cho."""
    with connection, contextlib.suppress(OSError):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        kind = connection.recv(1)
        room = bytearray(1 << 18)
        while kind == b"d":
            connection.sendall(BLOCK)
        while size := connection.recv_into(room):
            if kind == b"e":
                connection.sendall(room[:size])


def serve_udp(endpoint):
    while True:
        data, sender = endpoint.recvfrom(65535)
        endpoint.sendto(data, sender)


def serve(address):
    endpoint = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    endpoint.bind((address, UDP_PORT))
    threading.Thread(target=serve_udp, args=(endpoint,), daemon=True).start()
    with socket.create_server((address, TCP_PORT), backlog=1024) as listener:
        print("ready", flush=True)
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=serve_tcp, args=(connection,), daemon=True).start()


def received_exactly(connection, size):
    data = b""
    while len(data) < size:
        block = connection.recv(size - len(data))
        if not block:
            raise ConnectionError("the proxy has closed the connection")
        data += block
    return data


class Way:
    """How connections and datagrams get to the server: as they are, or through a SOCKS5 proxy (RFC 1928)."""

    def __init__(self, address, socks):
        self.address, self.socks = address, socks

    def _request(self, command, port):
        connection = socket.create_connection(("127.0.0.1", self.socks), timeout=30)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.sendall(b"\5\1\0")
        received_exactly(connection, 2)
        target = socket.inet_aton(self.address) + struct.pack("!H", port)
        connection.sendall(bytes([5, command, 0, 1]) + target)
        reply = received_exactly(connection, 10)
        if reply[1] != 0:
            raise ConnectionError(f"the proxy answers {reply[1]}")
        return connection, struct.unpack("!H", reply[8:])[0]

    def connect(self, kind):
        if self.socks:
            connection, _ = self._request(1, TCP_PORT)
        else:
            connection = socket.create_connection((self.address, TCP_PORT), timeout=30)
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.sendall(kind)
        return connection

    @contextlib.contextmanager
    def udp(self):
        """A function that sends, and one that receives."""
        with contextlib.ExitStack() as stack:
            endpoint = stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            endpoint.settimeout(2)
            header, to = b"", (self.address, UDP_PORT)
            if self.socks:
                control, port = self._request(3, 0)
                stack.enter_context(control)
                header = b"\0\0\0\1" + socket.inet_aton(self.address) + struct.pack("!H", UDP_PORT)
                to = ("127.0.0.1", port)
            yield (lambda data: endpoint.sendto(header + data, to)), (lambda: endpoint.recv(65535)[len(header):])


def bulk(way, kind, seconds, streams):
    """Megabits a second of all streams together, counted where they arrive or leave after the first half second."""
    counts = [0] * streams
    measuring, ended = threading.Event(), threading.Event()

    def run(index):
        room = bytearray(1 << 18)
        with way.connect(b"u" if kind == "up" else b"d") as connection, contextlib.suppress(OSError):
            while not ended.is_set():
                size = connection.send(BLOCK) if kind == "up" else connection.recv_into(room)
                if not size:
                    break
                if measuring.is_set():
                    counts[index] += size

    threads = [threading.Thread(target=run, args=(index,), daemon=True) for index in range(streams)]
    for thread in threads:
        thread.start()
    time.sleep(0.5)
    measuring.set()
    start = time.monotonic()
    time.sleep(seconds)
    total, spent = sum(counts), time.monotonic() - start
    ended.set()
    return {"megabits": round(total * 8 / spent / 1e6, 1)}


def rates(times, seconds):
    times.sort()
    return {"per_second": round(len(times) / seconds, 1), "p50_ms": round(times[len(times) // 2] * 1000, 3),
            "p99_ms": round(times[len(times) * 99 // 100] * 1000, 3)}


def one_after_the_other(exchange, seconds):
    times, start = [], time.monotonic()
    now = start
    while now - start < seconds:
        exchange()
        after = time.monotonic()
        times.append(after - now)
        now = after
    return rates(times, now - start)


def round_trips(way, seconds):
    with way.connect(b"e") as connection:
        def exchange():
            connection.sendall(b"x" * 100)
            received_exactly(connection, 100)
        return one_after_the_other(exchange, seconds)


def short_connections(way, seconds):
    def exchange():
        with way.connect(b"e") as connection:
            connection.sendall(b"x")
            received_exactly(connection, 1)
    return one_after_the_other(exchange, seconds)


def datagrams(way, seconds):
    """Echoes a second with 32 datagrams under way; lost ones are counted."""
    lost = count = 0
    with way.udp() as (send, receive):
        send(b"first")
        receive()
        start = time.monotonic()
        for _ in range(32):
            send(b"x" * 100)
        while (spent := time.monotonic() - start) < seconds:
            try:
                receive()
                count += 1
            except TimeoutError:
                lost += 32
                for _ in range(31):
                    send(b"x" * 100)
            send(b"x" * 100)
    return {"per_second": round(count / spent, 1), "lost": lost}


def datagrams_from_new_ports(way, seconds):
    def exchange():
        with way.udp() as (send, receive):
            send(b"x" * 40)
            receive()
    return one_after_the_other(exchange, seconds)


def hold(way, count):
    connections = [way.connect(b"e") for _ in range(count)]
    for connection in connections:
        connection.sendall(b"x")
        received_exactly(connection, 1)
    print(json.dumps({"open": len(connections)}), flush=True)
    sys.stdin.read()
    return {}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("kind", choices=("serve", "up", "down", "rtt", "connect", "udp", "udp-new", "hold"))
    parser.add_argument("address")
    parser.add_argument("--socks", type=int, default=0)
    parser.add_argument("--seconds", type=float, default=3)
    parser.add_argument("--streams", type=int, default=1)
    options = parser.parse_args()
    if options.kind == "serve":
        serve(options.address)
    way = Way(options.address, options.socks)
    kinds = {
        "up": lambda: bulk(way, "up", options.seconds, options.streams),
        "down": lambda: bulk(way, "down", options.seconds, options.streams),
        "rtt": lambda: round_trips(way, options.seconds),
        "connect": lambda: short_connections(way, options.seconds),
        "udp": lambda: datagrams(way, options.seconds),
        "udp-new": lambda: datagrams_from_new_ports(way, options.seconds),
        "hold": lambda: hold(way, options.streams),
    }
    print(json.dumps(kinds[options.kind]()))


if __name__ == "__main__":
    main()
