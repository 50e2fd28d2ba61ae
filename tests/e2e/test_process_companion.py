"""A supervised child that brings a TUN adapter of its own: its left-over device, and its DNS server."""

import json
import shutil
import time

import pytest

from bench import wait_for
from bench.children import child, keys
from bench.paths import BUILD

GUID = "{01234567-89AB-CDEF-0123-456789ABCDEF}"
KEY = r"HKLM\SYSTEM\CurrentControlSet\Services\Tcpip\Parameters\Interfaces" + "\\" + GUID
OVERRIDE = {"tun-dns-override": {"address": "172.19.0.2", "iface": "ruvo-tun"}}
OBEYING = ("--ctrl-c-exit", 0, "--print", "up", "--wait")


@pytest.fixture
def client(running):
    """A client of a machine that has the removal tool, and settings of the adapter."""
    shutil.copy(BUILD / "tests/winehost/pnputil/pnputil.exe", running.prefix.directory / "drive_c/windows/system32")
    assert running.prefix.run("reg", "add", KEY, "/f").status == 0
    return running.client()


def show_adapter(bench, state=None):
    """The child's adapter is "up", "down" or not there."""
    lines = [f"{state} {GUID} ruvo-tun"] if state else []
    new = bench.substitutes / "adapters.new"
    new.write_text("".join(line + "\n" for line in lines), encoding="utf-8")
    new.rename(bench.substitutes / "adapters.txt")


def removals(bench):
    """The arguments of each call of the removal tool."""
    path = bench.prefix.directory / "drive_c/winehost/pnputil.jsonl"
    return [json.loads(row)["arguments"] for row in path.read_text().splitlines()] if path.exists() else []


def dns_server(bench):
    """What stands in the adapter's settings; nothing if there is no value."""
    result = bench.prefix.run("reg", "query", KEY, "/v", "NameServer")
    return result.stdout.split()[-1] if result.status == 0 else None


REMOVAL = ["/remove-device", "SWD\\Wintun\\" + GUID]


def test_a_left_over_device_is_removed_before_the_start_and_before_the_end_is_told(running, client):
    show_adapter(running, "up")
    answer = client.request("start", **child(running, "sing-box-tun", *OBEYING))
    assert answer["status"] == "started"
    assert removals(running) == [REMOVAL]
    client.expect({"event": "stdout"})
    client.request("stop", process_id="sing-box-tun")
    assert keys(client.expect({"event": "finished"})) == {
        "process-id": "sing-box-tun", "event": "finished", "data": "0"}
    assert removals(running) == [REMOVAL, REMOVAL]
    texts = running.log.texts()
    assert texts.count("[ProcessManager] TUN interface removed successfully") == 2


def test_without_such_an_adapter_or_for_another_child_nothing_is_removed(running, client):
    show_adapter(running)
    client.request("start", **child(running, "sing-box-tun", "--sleep", 1500))
    client.expect({"event": "finished"})
    show_adapter(running, "up")
    client.request("start", **child(running, "Sing-Box-Tun", "--exit", 0))
    client.expect({"event": "finished"})
    assert removals(running) == []


def test_an_adapter_that_comes_up_late_gets_its_dns_server(running, client):
    show_adapter(running)
    client.request("start", **child(running, "sing-box-tun", *OBEYING), **OVERRIDE)
    running.log.wait_for('[ProcessManager] Waiting for interface "ruvo-tun" to be UP (max 10000 ms)')
    show_adapter(running, "down")
    # Clients are served meanwhile.
    for _ in range(10):
        assert client.request("heartbeat")["status"] == "success"
    assert dns_server(running) is None
    show_adapter(running, "up")
    running.log.wait_for('DNS server set successfully to "172.19.0.2" for interface "ruvo-tun"')
    assert dns_server(running) == "172.19.0.2"
    client.request("stop", process_id="sing-box-tun")
    client.expect({"event": "finished"})
    assert dns_server(running) == "172.19.0.2", "nothing restores it"


def test_an_adapter_that_stays_down_gets_no_dns_server_and_its_child_lives_on(running, client):
    running.log.expect('Interface "ruvo-tun" not UP after')
    running.log.expect('Cannot set DNS - interface "ruvo-tun" not found')
    show_adapter(running, "down")
    client.request("start", **child(running, "sing-box-tun", *OBEYING), **OVERRIDE)
    start = time.monotonic()
    running.log.wait_for("Cannot set DNS", timeout=30)
    assert time.monotonic() - start > 8
    assert dns_server(running) is None
    assert client.request("status", process_id="sing-box-tun")["running"]
    client.request("stop", process_id="sing-box-tun")
    client.expect({"event": "finished"})


def test_a_removal_that_fails_or_hangs_is_a_line_in_the_log(running, client):
    running.log.expect('Failed to remove TUN interface: "no such device"')
    running.log.expect('Failed to remove TUN interface: "Process operation timed out"')
    show_adapter(running, "up")
    control = running.prefix.directory / "drive_c/winehost/pnputil.control"
    control.parent.mkdir(exist_ok=True)
    control.write_text("stderr no such device\nexit 5\n")
    assert client.request("start", **child(running, "sing-box-tun", *OBEYING))["status"] == "started"
    client.expect({"event": "stdout"})
    control.write_text("hang\n")
    client.request("stop", process_id="sing-box-tun")
    assert keys(client.expect({"event": "finished"}, timeout=30))["data"] == "0"
    wait_for(lambda: running.windows_processes("pnputil.exe") == [], 10, "the end of the tool")
