"""Run in a namespace: sends what must not leave around the tunnel, again and again, until its input ends.

    prober.py PERIOD SOURCE TARGET SOURCE6 TARGET6

Every PERIOD seconds a question for a name, by UDP and by the beginning of a TCP connection, to port 53 of TARGET, and a
datagram to TARGET6; all from the addresses of the uplink, so that no route takes them elsewhere. Prints for each a line
of JSON: [what, number, when it was about to be sent (seconds since 1970), error or 0, its port].
"""

import json
import select
import socket
import struct
import sys
import time

DNS, DISCARD = 53, 9
MARK = "probe-"


def question(number):
    """A query for an address of probe-NUMBER.test."""
    labels = b"".join(bytes([len(label)]) + label for label in (f"{MARK}{number}".encode(), b"test"))
    return struct.pack("!6H", number & 0xFFFF, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack("!2H", 1, 1)


def outcome(call, *arguments):
    try:
        call(*arguments)
    except BlockingIOError:
        return 0  # under way
    except OSError as problem:
        return problem.errno
    return 0


def datagrams(family, source):
    made = socket.socket(family, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
    made.bind((source, 0))
    return made


def report(what, number, began, error, port):
    sys.stdout.write(json.dumps([what, number, began, error, port]) + "\n")


def connect(number, source, target):
    """Begins a connection; its socket."""
    made = socket.socket(socket.AF_INET, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
    made.bind((source, 0))
    began = time.time()
    report("tcp", number, began, outcome(made.connect, (target, DNS)), made.getsockname()[1])
    return made


def main():
    period, source, target, source6, target6 = float(sys.argv[1]), *sys.argv[2:]
    udp, udp6 = datagrams(socket.AF_INET, source), datagrams(socket.AF_INET6, source6)
    number, due, connections = 0, time.monotonic(), []
    while True:
        number += 1
        for what, endpoint, address in (("dns", udp, (target, DNS)), ("ipv6", udp6, (target6, DISCARD))):
            began = time.time()
            error = outcome(endpoint.sendto, question(number), address)
            report(what, number, began, error, endpoint.getsockname()[1])
        connections.append(connect(number, source, target))
        # A beginning is not repeated for lack of an answer: each has a while for it, and is then given up.
        if len(connections) > 50:
            connections.pop(0).close()
        sys.stdout.flush()
        due = max(due + period, time.monotonic())
        if select.select([sys.stdin], [], [], max(0, due - time.monotonic()))[0]:
            return


if __name__ == "__main__":
    main()
