#!/usr/bin/python3
"""Makes packet_corpus.txt: packets as scapy builds them, with the fields that scapy reads in them.

    make_packet_corpus.py            writes the file beside this script
    make_packet_corpus.py --check    fails when the file is not what this script makes

The same packets in every run: the random numbers come from a seeded generator of this script, and every field that
scapy would draw itself is given. One packet a line, blanks between its fields:

    packet version protocol source destination source-port destination-port seq ack flags payload-offset payload-length

"packet", the addresses, "seq", "ack" and "flags" are hexadecimal; an offset of "-" says that there is no payload to
be found. A line of IPv4 and TCP without IP options goes on with new addresses for it and with what scapy computes
for the packet once it has them:

    new-source new-source-port new-destination new-destination-port ip-checksum tcp-checksum
"""

import pathlib
import random
import sys

from scapy.config import conf

conf.ipv6_enabled = True
from scapy.layers.inet import ICMP, IP, TCP, UDP, IPOption_NOP, IPOption_RR  # noqa: E402
from scapy.layers.inet6 import (  # noqa: E402
    ICMPv6EchoRequest,
    IPv6,
    IPv6ExtHdrDestOpt,
    IPv6ExtHdrFragment,
    IPv6ExtHdrHopByHop,
    IPv6ExtHdrRouting,
    PadN,
)
from scapy.layers.l2 import GRE  # noqa: E402
from scapy.packet import Raw  # noqa: E402

COUNT = 2000
CORPUS = pathlib.Path(__file__).with_name("packet_corpus.txt")

rng = random.Random(20240711)


def payload():
    """Mostly a few bytes; now and then a full segment."""
    size = rng.choice([0, 0, 1, 2, 3, 4, 5, 7, 8, 13, 16, 21, 32, rng.randrange(64)])
    if rng.random() < 0.02:
        size = rng.choice([536, 1220, 1459, 1460])
    return Raw(rng.randbytes(size)) if size else None


def stacked(*layers):
    packet = None
    for layer in layers:
        if layer is not None:
            packet = layer if packet is None else packet / layer
    return packet


def address():
    return ".".join(str(rng.randrange(256)) for _ in range(4))


def address6():
    return ":".join(f"{rng.randrange(65536):x}" for _ in range(8))


def port():
    return rng.choice([53, 80, 443, 1, 65535, rng.randrange(1, 65536)])


def tcp():
    kinds = [
        ("MSS", rng.randrange(65536)),
        ("NOP", None),
        ("WScale", rng.randrange(15)),
        ("SAckOK", b""),
        ("Timestamp", (rng.getrandbits(32), rng.getrandbits(32))),
        ("SAck", (rng.getrandbits(32), rng.getrandbits(32))),
    ]
    options = rng.sample(kinds, rng.randrange(len(kinds))) if rng.random() < 0.5 else []
    return TCP(
        sport=port(), dport=port(), seq=rng.getrandbits(32), ack=rng.getrandbits(32), flags=rng.randrange(256),
        window=rng.randrange(65536), urgptr=rng.randrange(65536), reserved=rng.randrange(8), options=options,
    )


def udp():
    return UDP(sport=port(), dport=port())


def ipv4(options=(), **fields):
    return IP(
        src=address(), dst=address(), id=rng.randrange(65536), ttl=rng.randrange(1, 256), tos=rng.randrange(256),
        flags=rng.choice(["DF", 0]), options=list(options), **fields,
    )


def ip_options():
    slots = rng.randrange(1, 9)
    return [IPOption_NOP(), IPOption_RR(length=3 + 4 * slots, routers=[address() for _ in range(slots)])]


def extension_header(kind):
    if kind is IPv6ExtHdrRouting:
        return kind(addresses=[address6() for _ in range(rng.randrange(3))], segleft=0)
    if kind is IPv6ExtHdrFragment:
        return kind(id=rng.getrandbits(32), offset=0, m=0)  # the one fragment that is a whole packet
    return kind(options=[PadN(optdata=bytes(rng.randrange(60)))])


def ipv6(transport):
    kinds = [IPv6ExtHdrHopByHop, IPv6ExtHdrDestOpt, IPv6ExtHdrRouting, IPv6ExtHdrFragment]
    chosen = kinds[: rng.randrange(5)] if rng.random() < 0.6 else []
    headers = [extension_header(kind) for kind in chosen]
    fixed = IPv6(src=address6(), dst=address6(), hlim=rng.randrange(1, 256), tc=rng.randrange(256),
                 fl=rng.randrange(1 << 20))
    return stacked(fixed, *headers, transport, payload())


def echo(kind):
    return kind(id=rng.randrange(65536), seq=rng.randrange(65536))


def packet():
    """One packet of a kind drawn by weight."""
    kinds = [
        (40, lambda: stacked(ipv4(), tcp(), payload())),
        (5, lambda: stacked(ipv4(ip_options()), tcp(), payload())),
        (18, lambda: stacked(ipv4(), udp(), payload())),
        (3, lambda: stacked(ipv4(ip_options()), udp(), payload())),
        (5, lambda: stacked(ipv4(), echo(ICMP), payload())),
        (2, lambda: stacked(ipv4(), GRE(), ipv4(), udp(), payload())),
        (2, lambda: stacked(ipv4(proto=rng.choice([2, 50, 89, 132, 255])), payload())),
        (13, lambda: ipv6(tcp())),
        (9, lambda: ipv6(udp())),
        (3, lambda: ipv6(echo(ICMPv6EchoRequest))),
    ]
    return rng.choices([make for _, make in kinds], weights=[weight for weight, _ in kinds])[0]()


def line(raw):
    """What scapy reads in the bytes, and what it computes after a change of addresses."""
    read = (IP if raw[0] >> 4 == 4 else IPv6)(raw)
    source, destination = (raw[12:16], raw[16:20]) if read.version == 4 else (raw[8:24], raw[24:40])
    upper = next((read[layer] for layer in (TCP, UDP) if layer in read), None)
    sport = dport = seq = ack = flags = 0
    rest = b""
    if read.version == 4 and read.proto == 47:  # what GRE carries is no business of ours
        protocol, upper, found = 47, None, False
    elif upper is not None:
        protocol, found = (6 if TCP in read else 17), True
        sport, dport, rest = upper.sport, upper.dport, bytes(upper.payload)
        if TCP in read:
            seq, ack, flags = upper.seq, upper.ack, int(upper.flags) & 0xFF
    elif read.version == 4:
        protocol, found = read.proto, read.proto == 1
        rest = bytes(read.payload)
    else:
        protocol, found = 58, True
        rest = bytes(read[ICMPv6EchoRequest])
    offset, length = (len(raw) - len(rest), len(rest)) if found else ("-", 0)
    fields = [raw.hex(), read.version, protocol, source.hex(), destination.hex(), sport, dport, f"{seq:08x}",
              f"{ack:08x}", f"{flags:02x}", offset, length]
    if protocol == 6 and read.version == 4 and read.ihl == 5:
        fields += rewritten(read)
    return " ".join(str(field) for field in fields)


def rewritten(read):
    read.src, read.dst, read[TCP].sport, read[TCP].dport = address(), address(), port(), port()
    del read.chksum
    del read[TCP].chksum
    raw = bytes(read)
    again = IP(raw)
    return [raw[12:16].hex(), again[TCP].sport, raw[16:20].hex(), again[TCP].dport, f"{again.chksum:04x}",
            f"{again[TCP].chksum:04x}"]


def main():
    text = "".join(line(bytes(packet())) + "\n" for _ in range(COUNT))
    if sys.argv[1:] == ["--check"]:
        if CORPUS.read_text(encoding="ascii") != text:
            sys.exit(f"{CORPUS.name} is not what {pathlib.Path(__file__).name} makes; run it to make it anew")
    elif sys.argv[1:]:
        sys.exit(__doc__)
    else:
        CORPUS.write_text(text, encoding="ascii")


main()
