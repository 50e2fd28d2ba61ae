"""Run in a namespace: tries to get an answer by each way it is told, and prints what came of it.

    attempts.py [["udp", "192.0.2.1", 53], …]     (or "tcp"; "ping" without a port)

Prints a list: "answered", "refused" (the system did not let it out), or "silence".
"""

import errno
import json
import socket
import sys

REFUSALS = (errno.EPERM, errno.ECONNREFUSED, errno.ECONNRESET, errno.EACCES)
PATIENCE = 2


def _ping(family):
    """A socket, an echo request, and whether something that has come in is an answer."""
    if family == socket.AF_INET:
        # Received with its IP header.
        return (socket.socket(family, socket.SOCK_RAW, socket.IPPROTO_ICMP), b"\x08\0\xf7\xff" + bytes(4),
                lambda data: data[20] == 0)
    return (socket.socket(family, socket.SOCK_RAW, socket.IPPROTO_ICMPV6), b"\x80" + bytes(7),
            lambda data: data[0] == 129)


def _endpoint(kind, family):
    if kind == "ping":
        return _ping(family)
    return socket.socket(family, {"tcp": socket.SOCK_STREAM, "udp": socket.SOCK_DGRAM}[kind]), b"hello", bool


def attempt(kind, address, port=0):
    endpoint, request, is_answer = _endpoint(kind, socket.AF_INET6 if ":" in address else socket.AF_INET)
    with endpoint:
        endpoint.settimeout(PATIENCE)
        try:
            endpoint.connect((address, port))
            endpoint.send(request)
            while not is_answer(endpoint.recv(100)):
                pass
            return "answered"
        except TimeoutError:
            return "silence"
        except OSError as problem:
            if problem.errno in REFUSALS:
                return "refused"
            raise


if __name__ == "__main__":
    print(json.dumps([attempt(*each) for each in json.loads(sys.argv[1])]))
