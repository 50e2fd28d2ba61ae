"""Sends UDP datagrams to an address as fast as it can until it is killed: flood.py ADDRESS PORT SIZE.

What Linux refuses (a full queue, an interface that is gone) is not tried again.
"""

import socket
import subprocess
import sys
from pathlib import Path


def main(address, port, size):
    payload = bytes(int(size))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        while True:
            try:
                sender.sendto(payload, (address, int(port)))
            except OSError:
                pass


class Flood:
    """Two programs that flood an address from a namespace, while in the `with` block."""

    def __init__(self, bench, address, port=9, size=1000, role="host", senders=2):
        # No proxy runs that could carry them; 10004 is a connect that a stop ended.
        bench.log.allow(r"^\[UDP-NAT\] Failed to (connect to SOCKS5 proxy: 100(61|04)$|create SOCKS5 UDP session for )")
        bench.log.allow(r"^\[UDP-NAT\] Forward failed, falling back to old handler$")
        bench.log.allow(r"^\[RUVO-TUN\] The proxy does not answer any more on port 10808$")
        words = [*bench.network.enter(role), sys.executable, "-B", Path(__file__).resolve(), address, port, size]
        self._command = list(map(str, words))
        self._senders = senders

    def __enter__(self):
        self._running = [subprocess.Popen(self._command, stdin=subprocess.DEVNULL) for _ in range(self._senders)]
        return self

    def __exit__(self, *_):
        for process in self._running:
            process.kill()
        for process in self._running:
            process.wait(10)


if __name__ == "__main__":
    main(*sys.argv[1:])
