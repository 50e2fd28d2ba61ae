"""What another program sends around the tunnel while filters come and go, and what of it gets to the other side."""

import bisect
import json
import re
import socket
import struct
import subprocess
import threading
from collections import namedtuple

from . import prober, sockets
from .network import GATEWAY6, SERVERS, UPLINK_ADDRESSES
from .waiting import wait_for

PERIOD = 0.01
KINDS = ("dns", "tcp", "ipv6")
# Nobody else talks to this one.
TARGET = SERVERS[1]
SOURCE6 = "2001:db8:3::2"
_ETH_P_ALL, _ETH_P_IP, _ETH_P_IPV6 = 0x0003, 0x0800, 0x86DD
_SOL_PACKET, _PACKET_STATISTICS = 263, 6
_SO_TIMESTAMPNS, _SO_RCVBUFFORCE = 35, 33
_UDP, _TCP, _ICMP6, _HOP_BY_HOP = 17, 6, 58, 0

# A probe as it was sent (`arrived`: when the other side had it, None: never). `error`: what the sender was told.
Probe = namedtuple("Probe", "kind number sent error arrived")
# A packet that has come to the other side, of whatever kind.
Packet = namedtuple("Packet", "kind key arrived")


class Wire:
    """The other end of the uplink: every packet to the probes' targets, and every datagram or segment of IPv6."""

    def __init__(self, bench):
        self._socket = sockets.in_namespace(bench, "net", self._open)
        self.packets = []
        self.strangers = []  # IPv6 that no prober has sent
        self._ended = False
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    @staticmethod
    def _open():
        made = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(_ETH_P_ALL))
        made.bind(("host0", _ETH_P_ALL))
        made.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 1 << 24)
        made.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
        made.settimeout(0.1)
        return made

    def _read(self):
        while not self._ended:
            try:
                data, ancillary, _, (_, protocol, direction, *_) = self._socket.recvmsg(2048, 64)
            except TimeoutError:
                continue
            if direction == socket.PACKET_OUTGOING:
                continue
            seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
            self._note(protocol, data, seconds + nanoseconds / 1e9)

    def _note(self, protocol, data, arrived):
        if protocol == _ETH_P_IPV6:
            if data[6] in (_ICMP6, _HOP_BY_HOP):  # neighbours and groups, which the kernel cares for
                return
            found = _mark(data)
            (self.packets if found else self.strangers).append(Packet("ipv6", found, arrived))
        elif protocol == _ETH_P_IP and socket.inet_ntoa(data[16:20]) == TARGET:
            header = (data[0] & 15) * 4
            if data[9] == _UDP:
                self.packets.append(Packet("dns", _mark(data), arrived))
            elif data[9] == _TCP and data[header + 13] & 0x12 == 0x02:  # the beginning of a connection
                self.packets.append(Packet("tcp", struct.unpack_from("!H", data, header)[0], arrived))

    def close(self):
        """Nothing may have escaped it."""
        self._ended = True
        self._thread.join(10)
        _, dropped = struct.unpack("II", self._socket.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 8))
        self._socket.close()
        assert dropped == 0, f"{dropped} packets were not looked at"


def _mark(data):
    found = re.search(prober.MARK.encode() + rb"(\d+)", data)
    return int(found[1]) if found else None


class Prober:
    """Another program on the machine, and the wire; from `with` to its end.

    It is up when a probe of each kind has arrived, or, with `arrives` false, was sent.
    """

    def __init__(self, bench, arrives=True):
        self._bench = bench
        self._arrives = arrives
        self._file = bench.directory / "probes.jsonl"
        self._process = self._wire = self._answers = None

    def __enter__(self):
        self._wire = Wire(self._bench)
        # So that there are answers, too: a filter must not take them for the beginning of something.
        self._answers = sockets.udp(self._bench, "net", (GATEWAY6, prober.DISCARD))
        threading.Thread(target=self._echo, daemon=True).start()
        command = [*self._bench.network.enter("host"), "/usr/bin/python3", "-B", prober.__file__, str(PERIOD),
                   UPLINK_ADDRESSES[0], TARGET, SOURCE6, GATEWAY6]
        with open(self._file, "wb") as output:
            self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=output, start_new_session=True)
        wait_for(lambda: self._seen() == set(KINDS), 10, "a probe of each kind")
        return self

    def _seen(self):
        return {packet.kind for packet in self._wire.packets} if self._arrives else {row[0] for row in self._rows()}

    def _rows(self):
        # The last line may still be on its way.
        whole = self._file.read_text(encoding="ascii").rpartition("\n")[0]
        return [json.loads(line) for line in whole.splitlines()]

    def _echo(self):
        while True:
            try:
                data, sender = self._answers.recvfrom(2000)
                self._answers.sendto(data, sender)
            except TimeoutError:
                continue
            except OSError:
                return

    def __exit__(self, *_):
        self._process.stdin.close()
        self._process.wait(10)
        self._answers.close()
        self._wire.close()

    def strangers(self):
        """Datagrams and segments of IPv6 on the wire that are no probes."""
        return self._wire.strangers

    def probes(self):
        """All probes, in order, once it has ended."""
        arrivals = {}
        for packet in self._wire.packets:
            arrivals.setdefault((packet.kind, packet.key), []).append(packet.arrived)
        rows = self._rows()
        by_port = {}
        for kind, number, sent, error, port in rows:
            if kind == "tcp":
                by_port.setdefault(port, []).append((sent, number))
        # A connection is known by its port, which may have served an earlier one.
        connections = {}
        for (kind, port), times in arrivals.items():
            if kind == "tcp":
                for arrived in times:
                    users = by_port.get(port, [])
                    place = bisect.bisect(users, (arrived, float("inf"))) - 1
                    assert place >= 0, f"a connection from port {port} that nobody has begun"
                    connections.setdefault(users[place][1], arrived)
        return [Probe(kind, number, sent, error,
                      connections.get(number) if kind == "tcp" else arrivals.get((kind, number), [None])[0])
                for kind, number, sent, error, _ in rows]


def count(probes, begin, end):
    """Of the probes that were sent between two times: {kind: (sent, how many of them arrived)}."""
    counts = {}
    for kind in KINDS:
        some = [probe for probe in probes if probe.kind == kind and begin <= probe.sent < end]
        counts[kind] = (len(some), sum(probe.arrived is not None for probe in some))
    return counts
