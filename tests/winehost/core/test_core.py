"""The bench's proxy core under Wine: what a test of the tunnel or of supervision expects of it."""

import hashlib
import http.server
import json
import os
import socket
import struct
import subprocess
import threading

import core_config
import pytest

from bench.paths import BUILD, ROOT, windows_path
from bench.waiting import wait_for

CORE = ROOT / "build/core-windows/core.exe"
PARENT = BUILD / "tests/winehost/testchild/ctrl_c_parent.exe"
PAGE = os.urandom(20_000_000)
BOUND_TO = "127.0.0.2"


class PageHandler(http.server.BaseHTTPRequestHandler):
    """Serves one page and remembers from which address it was fetched."""

    def do_GET(self):  # pylint: disable=invalid-name
        self.server.clients.append(self.client_address[0])
        self.send_response(200)
        self.send_header("Content-Length", str(len(PAGE)))
        self.end_headers()
        self.wfile.write(PAGE)

    def log_message(self, format, *args):  # pylint: disable=redefined-builtin
        pass


@pytest.fixture(scope="module")
def page_server():
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), PageHandler)
    server.clients = []
    threading.Thread(target=server.serve_forever, daemon=True).start()
    yield server
    server.shutdown()
    server.server_close()


@pytest.fixture(scope="module")
def udp_echo():
    """A UDP socket that answers each datagram with itself; yields its address."""
    echo = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    echo.bind(("127.0.0.1", 0))

    def answer():
        while True:
            data, sender = echo.recvfrom(65536)
            if not data:
                return
            echo.sendto(data, sender)

    thread = threading.Thread(target=answer, daemon=True)
    thread.start()
    yield echo.getsockname()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as end:
        end.sendto(b"", echo.getsockname())
    thread.join(timeout=10)
    echo.close()


def free_ports(count):
    listeners = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = tuple(listener.getsockname()[1] for listener in listeners)
    for listener in listeners:
        listener.close()
    return ports


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Core:
    def __init__(self, prefix, folder):
        self.ports = free_ports(2)
        self.config = core_config.write(folder / "core.json", send_through=BOUND_TO, ports=self.ports)
        self.log = folder / "core.log"
        with open(self.log, "wb") as log:
            self.process = prefix.popen(CORE, "-config", windows_path(self.config), stdin=subprocess.DEVNULL,
                                        stdout=log, stderr=log)


@pytest.fixture(scope="module")
def core(prefix, tmp_path_factory):
    started = Core(prefix, tmp_path_factory.mktemp("core"))
    try:
        wait_for(lambda: all(map(accepts, started.ports)), 30, f"the inbounds; {started.log.read_text()}")
        yield started
    finally:
        started.process.kill()
        started.process.wait(timeout=10)


@pytest.mark.parametrize("inbound", (0, 1))
def test_carries_a_page_whole(core, page_server, inbound):
    page_server.clients.clear()
    url = f"http://127.0.0.1:{page_server.server_port}/"
    proxy = f"127.0.0.1:{core.ports[inbound]}"
    fetched = subprocess.run(["curl", "-sS", "--fail", "--max-time", "60", "--socks5-hostname", proxy, url],
                             capture_output=True, check=True, timeout=90).stdout
    assert hashlib.sha256(fetched).digest() == hashlib.sha256(PAGE).digest()
    assert page_server.clients == [BOUND_TO]
    way = f"tcp:127.0.0.1:{page_server.server_port} [{('proxy', 'direct')[inbound]}]"
    wait_for(lambda: way in core.log.read_text(), 10, f"{way} in the access log")


@pytest.mark.parametrize("inbound", (0, 1))
def test_carries_datagrams(core, udp_echo, inbound):
    with socket.create_connection(("127.0.0.1", core.ports[inbound]), timeout=10) as control, \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as datagrams:
        control.sendall(b"\x05\x01\x00")
        assert control.recv(2, socket.MSG_WAITALL) == b"\x05\x00"
        control.sendall(b"\x05\x03\x00\x01" + bytes(6))
        reply = control.recv(10, socket.MSG_WAITALL)
        assert reply[:4] == b"\x05\x00\x00\x01"
        relay = (socket.inet_ntoa(reply[4:8]), struct.unpack("!H", reply[8:])[0])
        header = b"\x00\x00\x00\x01" + socket.inet_aton(udp_echo[0]) + struct.pack("!H", udp_echo[1])
        datagrams.settimeout(10)
        datagrams.sendto(header + b"a datagram", relay)
        assert datagrams.recv(65536) == header + b"a datagram"


def test_ends_at_ctrl_c(prefix, tmp_path):
    config = core_config.write(tmp_path / "core.json", ports=free_ports(2))
    new_console = "0x10"
    result = prefix.run(PARENT, new_console, "0", "started", 10000, CORE, "-config", windows_path(config), timeout=60)
    assert json.loads(result.stdout.splitlines()[-1]) == {"sent": True, "ended": True, "code": 0}


def test_the_configuration_is_as_tests_know_it():
    config = core_config.build()
    assert [inbound["port"] for inbound in config["inbounds"]] == [10808, 20808]
    assert all(inbound["protocol"] == "socks" and inbound["settings"]["udp"] for inbound in config["inbounds"])
    assert "sendThrough" not in config["outbounds"][0]
    one, two = "192.0.2.2", "192.0.2.3"
    assert [way["sendThrough"] for way in core_config.build(send_through=one)["outbounds"]] == [one, one]
    assert [way["sendThrough"] for way in core_config.build(send_through=(one, two))["outbounds"]] == [one, two]
