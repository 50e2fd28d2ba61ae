"""A whole SOCKS5 server (RFC 1928) in the Windows machine's namespace that a test tells how to answer."""

import select
import socket
import struct
import threading
from collections import namedtuple

from . import sockets
from .both_ends import receive
from .scripted_proxy import CONNECTED, METHOD_REPLY, Proxy, copy
from .waiting import wait_for

CONNECT, ASSOCIATE = 1, 3
IPV4, NAME, IPV6 = 1, 3, 4
NO_METHOD = b"\x05\xff"

# What a client asked for; `kind` is how it named the host.
Request = namedtuple("Request", "command kind host port")
# A datagram that came to a relay: whom it is for, and what it says.
Datagram = namedtuple("Datagram", "kind host port payload")


def refusal(reply):
    """An answer that says no, with this number."""
    return bytes([5, reply, 0, 1]) + bytes(6)


def _read_request(connection):
    _, command, _, kind = receive(connection, 4)
    if kind == NAME:
        host = receive(connection, receive(connection, 1)[0]).decode()
    else:
        host = _host_text(kind, receive(connection, 4 if kind == IPV4 else 16))
    return Request(command, kind, host, *struct.unpack("!H", receive(connection, 2)))


def _host_text(kind, data):
    return socket.inet_ntop(socket.AF_INET if kind == IPV4 else socket.AF_INET6, data)


def _datagram_head(kind, host, port):
    family = socket.AF_INET if kind == IPV4 else socket.AF_INET6
    return bytes([0, 0, 0, kind]) + socket.inet_pton(family, host) + struct.pack("!H", port)


def parse_datagram(data):
    """What follows the header of RFC 1928 section 7, and where to."""
    kind = data[3]
    size = 4 if kind == IPV4 else 16
    port, = struct.unpack_from("!H", data, 4 + size)
    return Datagram(kind, _host_text(kind, data[4:4 + size]), port, data[6 + size:])


class Socks(Proxy):
    """Answers as the test says and notes what it was asked for.

    method: what it sends for the greeting. answer: a function that gets a Request and its number among those of its
    command, from 0, and says what is sent for it: None for success, bytes for anything else. It may wait. What is
    granted is handed on into the namespace `net`, or, with hand_on=False, to the test (`take`); datagrams are handed
    on and answered in either case.
    """

    def __init__(self, bench, port, answer=lambda request, number: None, *, hand_on=True):
        self.method = METHOD_REPLY
        self.answer = answer
        self.requests = []
        self.datagrams = []
        self._bench = bench
        self.hand_on = hand_on
        self._taken = []
        self._arrival = threading.Condition()
        super().__init__(bench, port)

    def of(self, command):
        """The requests of that command so far."""
        return [request for request in list(self.requests) if request.command == command]

    def wait_for_requests(self, command, count=1, timeout=20):
        """The first so many requests of that command, once they are there."""
        wait_for(lambda: len(self.of(command)) >= count, timeout, f"{count} request(s) {command} at the proxy")
        return self.of(command)[:count]

    def _serve(self, connection):
        receive(connection, 3)
        connection.sendall(self.method)
        if self.method != METHOD_REPLY:
            return
        request = _read_request(connection)
        with self._arrival:
            number = len(self.of(request.command))
            self.requests.append(request)
        words = self.answer(request, number)
        if words is not None:
            connection.sendall(words)
        elif request.command == CONNECT:
            self._connect(connection, request)
        else:
            self._associate(connection)

    def _connect(self, connection, request):
        if self.hand_on:
            onward = sockets.tcp(self._bench, (request.host, request.port), "net", timeout=None)
            self._also_close(onward)
            connection.sendall(CONNECTED)
            threading.Thread(target=copy, args=(onward, connection), daemon=True).start()
            copy(connection, onward)
            return
        connection.sendall(CONNECTED)
        with self._arrival:
            self._taken.append(connection)
            self._arrival.notify_all()

    def take(self, timeout=20):
        """The next connection behind its reply."""
        with self._arrival:
            assert self._arrival.wait_for(lambda: self._taken, timeout), "no connection came to the proxy"
            return self._taken.pop(0)

    def _associate(self, control):
        with sockets.udp(self._bench, "host", ("127.0.0.1", 0)) as relay, \
                sockets.udp(self._bench, "net") as onward4, sockets.udp(self._bench, "net", ("::", 0)) as onward6:
            port = struct.pack("!H", relay.getsockname()[1])
            control.sendall(b"\x05\x00\x00\x01" + socket.inet_aton("127.0.0.1") + port)
            self._relay(control, relay, {IPV4: onward4, IPV6: onward6})

    def _relay(self, control, relay, onward):
        """Until the control connection ends, and with it the association."""
        client = None
        ends = [control, relay, *onward.values()]
        while True:
            ready, _, _ = select.select(ends, [], [])
            if control in ready:
                return
            if relay in ready:
                data, client = relay.recvfrom(65535)
                datagram = parse_datagram(data)
                self.datagrams.append(datagram)
                onward[datagram.kind].sendto(datagram.payload, (datagram.host, datagram.port))
            for kind, each in onward.items():
                if each in ready:
                    data, sender = each.recvfrom(65535)
                    relay.sendto(_datagram_head(kind, *sender[:2]) + data, client)
