"""The real proxy core, built for Windows, as a client starts it through the daemon; and a web server behind it."""

import hashlib
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from .network import UPLINK_ADDRESSES
from .paths import ROOT, windows_path
from .waiting import wait_for

BUILT = ROOT / "build" / "core-windows" / "core.exe"
# The program that the product's filters let pass, below the folder of the product.
EXECUTABLE = "core/xray.exe"
sys.path.append(str(ROOT / "tests" / "winehost" / "core"))

import core_config  # noqa: E402  pylint: disable=wrong-import-position

PROXY_PORT, DIRECT_PORT = core_config.DEFAULT_PORTS


def install(application):
    """Puts the program where the product expects it: each bench has it from the start."""
    if not BUILT.exists():
        raise RuntimeError(f"{BUILT} is missing: run scripts/build-core first")
    executable = application / EXECUTABLE
    executable.parent.mkdir()
    try:
        os.link(BUILT.resolve(), executable)
    except OSError:  # another file system
        shutil.copy2(BUILT, executable)


def configure(bench, **options):
    """Writes a configuration (core_config.build); returns the process specification of the core."""
    executable = bench.application / EXECUTABLE
    config = core_config.write(executable.with_name("config.json"), **options)
    return {"process-id": "core", "executable": windows_path(executable),
            "arguments": ["-config", windows_path(config)], "working-dir": windows_path(executable.parent)}


def output(client, process_id="core"):
    """What the core has printed so far, as its owner was told."""
    return "".join(event["data"] for event in client.events("stdout") if event["process-id"] == process_id)


def wait_until_up(client, process_id="core", starts=1):
    """Waits until the output of the core, of all its runs, says so often that it has started."""
    wait_for(lambda: output(client, process_id).count("started") >= starts, 30, "the core to say that it has started")


def start(bench, client, **options):
    """Starts the core through the daemon, its own connections kept out of any tunnel, and waits until it is up."""
    starts = output(client).count("started")
    answer = client.request("start", **configure(bench, send_through=UPLINK_ADDRESSES, **options))
    assert answer["status"] == "started", answer
    wait_until_up(client, starts=starts + 1)


def allow_kill(bench):
    """What may be logged when it is killed: what cannot reach it, and a sweep that finds what is left."""
    bench.log.allow(r'Found stale process entry (on startup: |for )"core" - state: QProcess::NotRunning')
    bench.log.allow(r"^\[RUVO-TUN\] The proxy does not answer any more on port \d+$")
    bench.log.allow(r"^\[UDP-NAT\] Failed to (create SOCKS5 UDP session for |connect to SOCKS5 proxy: 10061$)")
    bench.log.allow(r"^Failed to (connect to proxy: 10061|send |receive )|^\[TCP-NAT\] Failed to connect to SOCKS5 proxy$")


def kill(bench, client):
    """Ends it in the middle of whatever it does."""
    answer = client.request("kill", process_id="core")
    assert answer["status"] == "killed", answer
    wait_for(lambda: not bench.windows_processes(Path(EXECUTABLE).name), 10, "the end of the core")


def taken(client, process_id="core"):
    """What the inbounds have taken so far: [("proxy" or "direct", "tcp" or "udp", "host:port"), …], in order."""
    found = re.findall(r"accepted (tcp|udp):(\S+) \[(proxy|direct)\]", output(client, process_id))
    return [(way, protocol, destination) for protocol, destination, way in found]


def wait_for_taken(client, way, protocol, destination, timeout=15):
    """Waits until an inbound's log tells of this connection."""
    wait_for(lambda: (way, protocol, destination) in taken(client), timeout,
             f"{protocol}:{destination} at the inbound {way!r}; taken: {taken(client)[-20:]}")


class WebServer:
    """Serves one file of known bytes in a namespace of the bench."""

    PORT = 8080

    def __init__(self, bench, role="host", size=3_000_000):
        folder = bench.directory / "www"
        folder.mkdir()
        data = bytes(range(256)) * (size // 256)
        (folder / "page").write_bytes(data)
        self.digest = hashlib.sha256(data).hexdigest()
        self._process = subprocess.Popen(
            [*bench.network.enter(role), "/usr/bin/python3", "-m", "http.server", str(self.PORT), "--directory", folder],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def close(self):
        self._process.kill()
        self._process.wait(10)


def fetch(bench, port, url, role="host"):
    """What curl gets through the SOCKS5 inbound at `port`: the digest of the bytes."""
    result = subprocess.run(
        [*bench.network.enter(role), "curl", "--silent", "--show-error", "--fail", "--max-time", "30", "--retry", "5",
         "--retry-connrefused", "--retry-delay", "1", "--socks5-hostname", f"127.0.0.1:{port}", url],
        capture_output=True, timeout=60, check=False)
    assert result.returncode == 0, result.stderr
    return hashlib.sha256(result.stdout).hexdigest()
