"""The machine behind the Windows machine: its TCP enters the tunnel from elsewhere, and the engine terminates it."""

import json
import socket
import struct
import threading
from collections import namedtuple
from pathlib import Path

from . import sockets, tunnel
from .network import SERVER_NETWORK6, ip

ADDRESS = "198.51.100.2"
# Of the engine's lines at critical or warning level those that tell of ordinary work.
ORDINARY_LINES = (
    r"^\[DATA-ESTABLISHED\] Connection reached ESTABLISHED state - ",
    r"^\[DATA-UPLOAD\] Queuing ",
    r"^\[DATA-DOWNLOAD\] Received \d+ bytes from xray - ",
    r"^\[SEND-PENDING\] WSASend posted - port: ",
    r"^\[SOCKS5-SEND\] WSASend SUCCESS - port: ",
    r"^\[WINDOW-DEBUG\] ACK to ",
)
# And those that much traffic brings with it: a sender that is faster than what follows, segments out of their order.
BUSY_LINES = (
    r"^\[QUEUE-LARGE\] sendQueue growing - xray not consuming\? port: ",
    r"^\[UPLOAD BACKPRESSURE\] Queue full - port: ",
    r"^\[BACKPRESSURE\] (Stopping recv - queue full|Resuming recv - queue drained:)",
    r"^\[OOO-PROCESSED\] Processing buffered packet - port: ",
    r"^\[OOO-BUFFERED\] Buffering future packet - port: ",
    r"^\[DUP-DROP\] Dropping duplicate/old packet - port: ",
)


def allow(bench, patterns):
    for pattern in patterns:
        bench.log.allow(pattern)


def route_ipv6_into_tunnel(bench):
    """Once the tunnel is up: it makes no routes for IPv6, so this is a host that somebody else has routed so."""
    ip("-n", bench.network.name("host"), "-6", "route", "add", SERVER_NETWORK6, "dev", tunnel.INTERFACE)


# Where packets pass on their way between the guest and the tunnel.
_LINKS = (("guest", "uplink"), ("host", "guest0"), ("host", tunnel.INTERFACE))


def link_counters(bench, role, interface):
    """Linux's counters of an interface: {"rx": {"packets": …, "dropped": …, …}, "tx": {…}}."""
    told = json.loads(ip("-json", "-statistics", "-n", bench.network.name(role), "link", "show", interface))
    return told[0]["stats64"]


def drops(bench):
    """What was dropped so far by links, by the TUN and by the processors' queues: {where: count}."""
    counts = {}
    for role, interface in _LINKS:
        for direction, counters in link_counters(bench, role, interface).items():
            counts[f"{role} {interface} {direction}"] = counters["dropped"] + counters["errors"]
    for number, row in enumerate(Path("/proc/net/softnet_stat").read_text(encoding="ascii").splitlines()):
        counts[f"softnet {number}"] = int(row.split()[1], 16)
    return counts


def dropped_since(bench, before):
    """{where: count} of what was dropped since `before`, without zeros."""
    return {where: count - before[where] for where, count in drops(bench).items() if count != before[where]}


# A TCP segment that has passed, as it was on the wire; `intact`: its checksum is right.
Segment = namedtuple("Segment", "source destination seq ack flags window size intact")
FIN, SYN, RST, PSH, ACK = 1, 2, 4, 8, 16


def _folded(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total > 0xFFFF:
        total = (total >> 16) + (total & 0xFFFF)
    return total


def parse_segment(packet):
    """The IPv4 TCP segment that a packet is; None if it is another."""
    if len(packet) < 40 or packet[0] >> 4 != 4 or packet[9] != 6:
        return None
    header = (packet[0] & 15) * 4
    packet = packet[:struct.unpack_from("!H", packet, 2)[0]]
    tcp = packet[header:]
    ports = struct.unpack_from("!2H", tcp)
    seq, ack, offset, flags, window = struct.unpack_from("!2I2BH", tcp, 4)
    addresses = [socket.inet_ntoa(packet[at:at + 4]) for at in (12, 16)]
    pseudo = packet[12:20] + struct.pack("!2H", 6, len(tcp))
    return Segment(*zip(addresses, ports), seq, ack, flags, window, len(tcp) - (offset >> 4) * 4,
                   _folded(pseudo + tcp) == 0xFFFF)


class Tap:
    """Listens to an interface of a namespace while in the `with` block; `segments` are the TCP segments so far."""

    def __init__(self, bench, role="host", interface=tunnel.INTERFACE):
        self.segments = []
        # ETH_P_ALL: outgoing packets too.
        self._socket = sockets.in_namespace(
            bench, role, lambda: socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(3)))
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 24)
        self._socket.bind((interface, 3))
        self._socket.settimeout(0.2)
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._listen, daemon=True)
        self._thread.start()

    def _listen(self):
        while not self._ended.is_set():
            try:
                packet = self._socket.recv(65535)
            except TimeoutError:
                continue
            segment = parse_segment(packet)
            if segment:
                self.segments.append(segment)

    def from_guest(self):
        return [segment for segment in self.segments if segment.source[0] == ADDRESS]

    def to_guest(self):
        return [segment for segment in self.segments if segment.destination[0] == ADDRESS]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._thread.join(10)
        self._socket.close()
