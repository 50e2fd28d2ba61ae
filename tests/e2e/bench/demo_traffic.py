"""What scripts/run shows of the tunnel's work: real programs use it, the core and the servers tell what they saw."""

import subprocess
import time

from . import core, traffic
from .demo_output import headline, say

PAGE = UPLOAD = 30_000_000
RESOLVER = "10.6.7.2"


def _rate(size, seconds):
    return f"{size / 1e6:.0f} MB at {size * 8e-6 / seconds:.0f} Mbit/s"


def _witness(client, way, protocol, destination):
    core.wait_for_taken(client, way, protocol, destination)
    say(f"      the core took {protocol}:{destination} at its inbound {way!r}")


def show_page(bench, client):
    page = f"http://{traffic.SERVER}/bytes/{PAGE}"
    say(f"   curl {page}")
    began = time.monotonic()
    traffic.download(bench, PAGE)
    say(f"      {_rate(PAGE, time.monotonic() - began)}, bytes as the server has them")
    _witness(client, "proxy", "tcp", f"{traffic.SERVER}:80")
    seen = traffic.peer(bench)
    say(f"      the server saw {seen}, the way of the core's proxy inbound")
    assert seen == traffic.PEERS["proxy"]


def show_name(bench, client, servers):
    say(f"   dig @{RESOLVER} web.test")
    answers = traffic.dig(bench, "web.test", server=RESOLVER)
    say(f"      {' '.join(answers)}")
    assert answers == [traffic.NAMES["web.test"]]
    _witness(client, "direct", "udp", "8.8.8.8:53")
    assert "web.test" in servers.queries()


def show_filters(bench):
    words = ["dig", "+short", "+tries=1", "+time=1", "@8.8.8.8", "web.test"]
    for title, enter in (("another program", bench.network.enter("host")), ("the core", bench.filters.enter_as("core"))):
        done = subprocess.run([*enter, *words], capture_output=True, text=True, timeout=20, check=False)
        answered = done.returncode == 0
        say(f"   dig @8.8.8.8 web.test, around the tunnel, by {title}: {done.stdout.strip() if answered else 'nothing'}")
        assert answered == (title == "the core"), done.stdout


def show_datagrams(bench, client):
    host, port = traffic.ECHO
    say(f"   five datagrams to the echo server at {host}:{port}")
    payloads = [f"datagram {number}".encode() for number in range(5)]
    assert traffic.udp_echo(bench, payloads) == [(payload, traffic.ECHO) for payload in payloads]
    say("      all came back")
    _witness(client, "proxy", "udp", f"{host}:{port}")


def show_upload(bench, client):
    server = traffic.SERVERS[1]
    say(f"   curl --request POST --upload-file body http://{server}/digest")
    began = time.monotonic()
    traffic.upload(bench, UPLOAD, server=server)
    say(f"      {_rate(UPLOAD, time.monotonic() - began)}, the server has the same digest")
    _witness(client, "proxy", "tcp", f"{server}:80")


def show_traffic(bench, client, servers):
    """Programs of the Windows machine that know nothing of any proxy. `client` owns the core."""
    headline("programs use the network; all of it goes through the tunnel")
    assert not core.taken(client), "the core has been used before"
    show_page(bench, client)
    show_name(bench, client, servers)
    show_filters(bench)
    show_datagrams(bench, client)
    show_upload(bench, client)
