"""Load from a namespace of the bench: connections whose servers say who they are, DNS queries from new ports."""

import json
import subprocess
import sys
from pathlib import Path

from .network import SERVERS
from .waiting import wait_for

HERE = Path(__file__).resolve().parent
# Of each server: several, so that one client port can reach different ones.
PORTS = (9101, 9102)


class IdentityServers:
    """A server at each endpoint in `net` that tells its own address and closes; `close` ends them."""

    def __init__(self, bench, addresses=SERVERS, ports=PORTS):
        self.endpoints = [f"{address}:{port}" for address in addresses for port in ports]
        log = bench.directory / "identity-servers.log"
        with open(log, "wb") as output:
            self._process = subprocess.Popen(
                [*bench.network.enter("net"), sys.executable, "-B", HERE / "identity_server.py", *self.endpoints],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True)
        try:
            wait_for(lambda: "ready" in log.read_text(), 20, "the servers that say who they are")
        except BaseException:
            self.close()
            raise

    def close(self):
        self._process.kill()
        self._process.wait(10)


def _run(bench, words, role, timeout):
    words = [*bench.network.enter(role), sys.executable, "-B", HERE / "load_client.py", *words]
    done = subprocess.run([*map(str, words)], capture_output=True, text=True, timeout=timeout, check=False)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def short_connections(bench, count, endpoints, in_flight=64, role="host", patience=30, timeout=300):
    """Opens that many connections to the endpoints in turn, each of which has to be answered by the right server.

    Returns {"good": N, "wrong": N, "first_wrong": [[wanted, got], …], "failures": {"ECONNRESET": N, …},
    "per_second": N, "p50_ms": …, "p99_ms": …}.
    """
    return _run(bench, ["connections", count, in_flight, patience, *endpoints], role, timeout)


def queries_from_new_ports(bench, count, server, name="web.test", in_flight=32, role="host", patience=30,
                           timeout=300):
    """Sends that many DNS queries, each from a port that none before came from; at most 45,000. Returns the same."""
    return _run(bench, ["queries", count, in_flight, patience, server, name], role, timeout)
