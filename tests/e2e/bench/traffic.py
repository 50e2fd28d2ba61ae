"""Servers in the bench's Internet, and clients that speak with them from the Windows machine (or any namespace)."""

import json
import subprocess
import sys
from collections import namedtuple
from pathlib import Path

from . import internet_server, sockets
from .network import RESOLVERS, SERVER6, SERVERS, UPLINK_ADDRESSES
from .waiting import wait_for

HERE = Path(__file__).resolve().parent
SERVER = SERVERS[0]
ECHO = (SERVER, internet_server.ECHO_PORT)
IPERF_PORT = 5201
# Names that the resolvers know.
NAMES = {"web.test": SERVERS[0], "other.test": SERVERS[1]}
NAME6 = "six.test"  # of SERVER6
# Who the servers see, by the way that the core's connections take.
PEERS = dict(zip(("proxy", "direct"), UPLINK_ADDRESSES))

known_digest = internet_server.known_digest


class Servers:
    """Web, echo, name and iperf3 servers in the namespace `net`; `close` ends them."""

    def __init__(self, bench):
        self._enter = bench.network.enter("net")
        self._logs = bench.directory
        self._running = []
        self.query_log = self._logs / "dnsmasq.log"
        try:
            self._start_all()
        except BaseException:
            self.close()
            raise

    def _start_all(self):
        web = self._start("internet_server", [sys.executable, "-B", HERE / "internet_server.py", *RESOLVERS, *SERVERS, SERVER6])
        names = [f"--host-record={name},{address}" for name, address in (NAMES | {NAME6: SERVER6}).items()]
        listen = [f"--listen-address={address}" for address in RESOLVERS]
        # All else does not exist.
        self._start("dnsmasq-messages", [
            "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--user=root",
            "--bind-interfaces", "--pid-file=", "--local-ttl=60", "--log-queries", f"--log-facility={self.query_log}",
            "--address=/#/", *listen, *names])
        self._start("iperf3", ["iperf3", "--server", "--port", str(IPERF_PORT)])
        wait_for(lambda: "ready" in web.read_text(), 20, "the web server")
        for kind, port in (("tcp", 53), ("udp", 53), ("tcp", IPERF_PORT)):
            wait_for(lambda kind=kind, port=port: self._listens(kind, port), 20, f"a server at {kind} port {port}")

    def _start(self, name, command):
        log = self._logs / f"{name}.log"
        with open(log, "wb") as output:
            self._running.append(subprocess.Popen([*self._enter, *map(str, command)], stdin=subprocess.DEVNULL,
                                                  stdout=output, stderr=output, start_new_session=True))
        return log

    def _listens(self, kind, port):
        words = [*self._enter, "ss", "-Hln", f"--{kind}", f"sport = {port}"]
        return subprocess.run(words, capture_output=True, timeout=20, check=True).stdout.strip()

    def queries(self):
        """The names that were asked for, in order."""
        lines = self.query_log.read_text(errors="replace").splitlines() if self.query_log.exists() else []
        return [line.split(" query[")[1].split()[1] for line in lines if " query[" in line]

    def close(self):
        for process in self._running:
            process.kill()
        for process in self._running:
            process.wait(10)


def _run(bench, role, words, timeout):
    return subprocess.run([*bench.network.enter(role), *map(str, words)], capture_output=True, text=True,
                          timeout=timeout + 15, check=False)


# What came of a request: curl's exit status and words, the size of the answer and its digest, the HTTP status.
Fetched = namedtuple("Fetched", "status error size digest code speed")


def curl(bench, url, *options, role="host", timeout=60):
    """Fetches `url`; the answer is not kept but for its digest."""
    words = ["curl", "--silent", "--show-error", "--noproxy", "*", "--max-time", timeout, *options, url,
             "--write-out", "%{stderr}\n%{json}", "--output", "/dev/stdout"]
    command = [*bench.network.enter(role), *map(str, words)]
    digest, size = internet_server.hashlib.sha256(), 0
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        while block := process.stdout.read(1 << 16):
            digest.update(block)
            size += len(block)
        messages, _, told = process.stderr.read().decode(errors="replace").rpartition("\n")
        process.wait(timeout + 15)
    figures = json.loads(told)
    return Fetched(process.returncode, messages.strip(), size, digest.hexdigest(), figures["response_code"],
                   figures["speed_download"])


def text(bench, url, *options, role="host", timeout=60):
    """The text that a page holds."""
    done = _run(bench, role, ["curl", "--silent", "--show-error", "--fail", "--noproxy", "*", "--max-time", timeout,
                              *options, url], timeout)
    assert done.returncode == 0, f"curl {url}: {done.returncode} {done.stderr}"
    return done.stdout


def peer(bench, role="host", server=SERVER, **options):
    """As whom the web server sees a client in that namespace."""
    return text(bench, f"http://{server}/peer", role=role, **options)


def download(bench, size, role="host", server=SERVER, timeout=120):
    """Fetches that many known bytes; they have to come whole. Bytes per second."""
    fetched = curl(bench, f"http://{server}/bytes/{size}", role=role, timeout=timeout)
    assert (fetched.status, fetched.size, fetched.digest) == (0, size, known_digest(size)), fetched
    return fetched.speed


def upload(bench, size, role="host", server=SERVER, timeout=120):
    """Sends that many known bytes; they have to arrive whole."""
    body = bench.directory / f"body-{size}"
    with open(body, "wb") as file:
        file.writelines(internet_server.known_bytes(size))
    try:
        answer = text(bench, f"http://{server}/digest", "--request", "POST", "--upload-file", body,
                      role=role, timeout=timeout)
    finally:
        body.unlink()
    assert answer == known_digest(size), answer


def dig(bench, name, *options, server="10.6.7.2", kind="A", role="host", timeout=10):
    """Asks a name server; the answers as texts, [] for none. AssertionError if it does not answer."""
    done = _run(bench, role, ["dig", "+short", "+tries=1", f"+time={timeout}", *options, f"@{server}", name, kind],
                timeout)
    assert done.returncode == 0 and ";;" not in done.stdout, f"dig {name} @{server}: {done.stdout} {done.stderr}"
    return done.stdout.split()


def iperf3(bench, *options, role="host", server=SERVER, seconds=3, reverse=False):
    """Runs iperf3 and returns what it tells; "bits_per_second" of the received side is what counts."""
    words = ["iperf3", "--json", "--client", server, "--port", IPERF_PORT, "--time", seconds,
             *(["--reverse"] if reverse else []), *options]
    done = _run(bench, role, words, seconds + 30)
    told = json.loads(done.stdout)
    assert done.returncode == 0 and "error" not in told, told.get("error", done.stderr)
    return told


def udp_echo(bench, payloads, address=ECHO, role="host", timeout=20):
    """Sends datagrams to an echo server, one after the other from one socket, each after the last one's answer.

    Returns the answers and where they came from.
    """
    answers = []
    with sockets.udp(bench, role, timeout=timeout) as endpoint:
        for payload in payloads:
            endpoint.sendto(payload, address)
            answers.append(endpoint.recvfrom(65535))
    return answers


def identity(bench, address, role="host", timeout=30, **options):
    """Who a server of IDENTITY_PORTS says that it is: "ADDRESS:PORT"."""
    with sockets.tcp(bench, address, role, timeout, **options) as connection:
        told = bytearray()
        while data := connection.recv(100):
            told += data
        return told.decode()


def tcp_echo(bench, data, address=ECHO, role="host", timeout=30):
    """Sends bytes to an echo server and returns as many of what comes back."""
    with sockets.tcp(bench, address, role, timeout) as connection:
        connection.sendall(data)
        received = bytearray()
        while len(received) < len(data):
            block = connection.recv(65536)
            assert block, f"the connection ended after {len(received)} of {len(data)} bytes"
            received += block
        return bytes(received)
