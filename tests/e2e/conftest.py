"""Fixtures of the end-to-end tests: a bench for each test, made and removed whatever happens in between."""

import re
import signal
from collections import namedtuple

import pytest

from bench import core, guest, paths, sweep, traffic, tunnel
from bench.machine import Bench
from bench.scripted_socks import Socks

# A client, and the two proxies of the tunnel that it has started.
Scripted = namedtuple("Scripted", "client proxy direct")


def pytest_sessionstart(session):  # pylint: disable=unused-argument
    """A run that was killed could not clean up: the next one does."""
    # The fixtures' clean-up has to run also when the run is ended from outside.
    signal.signal(signal.SIGTERM, lambda *_: pytest.exit("terminated", returncode=1))
    sweep.remove_abandoned()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if call.when == "call":
        item.call_passed = report.passed
    if report.failed and "bench" in getattr(item, "funcargs", {}):
        # The files stay too, but not every machine that runs the tests can be looked at afterwards.
        report.sections += item.funcargs["bench"].ends_of_logs()


@pytest.fixture
def bench(request):
    """A Windows machine with the product's files, a user in session 1, and the service not registered."""
    roles = getattr(request, "param", ("host",))
    name = re.sub(r"[^\w.-]+", "_", f"{request.module.__name__}.{request.node.name}")
    made = Bench(paths.OUTPUT / name, roles)
    if request.node.get_closest_marker("debug_log"):
        made.log_debug_lines()
    keep_logs = True
    try:
        made.up()
        yield made
        # What was wrong with the test is told by its own failure.
        if getattr(request.node, "call_passed", False):
            made.finish()
            keep_logs = False
    finally:
        made.down(keep_logs)


@pytest.fixture
def running(bench):
    """The same, with the service registered and running."""
    bench.register()
    bench.start()
    return bench


@pytest.fixture
def tunnel_bench(running):
    """The same, for a tunnel: its usual warnings are known, and in the end nothing may be left of it.

    Routes that the test takes away or that stay are to be told: bench.routes_that_change = (gone, new). So is a
    firewall rule that stays: bench.firewall_rules_that_stay.
    """
    tunnel.expect_in_log(running)
    running.routes_that_change = ([], [])
    running.firewall_rules_that_stay = []
    addresses, routes = tunnel.addresses(running), tunnel.routes(running)
    yield running
    if running.daemon_pids():
        running.stop()
    gone, new = running.routes_that_change
    assert (tunnel.adapters(running), tunnel.addresses(running)) == ([], addresses)
    assert sorted(tunnel.routes(running)) == sorted([route for route in routes if route not in gone] + new)
    assert tunnel.against_leaks(running) == {
        "filters": [], "sublayers": [], "sessions": [], "firewall rules": running.firewall_rules_that_stay}


@pytest.fixture
def servers(bench):
    """The servers of the Internet; the bench has to have the role `net`."""
    made = traffic.Servers(bench)
    yield made
    made.close()


@pytest.fixture
def core_client(running, servers):  # pylint: disable=unused-argument,redefined-outer-name
    """A client whose core is up; the tunnel is the test's to start. A tunnel that still runs is stopped."""
    tunnel.expect_in_log(running)
    running.log.allow(r"^\[TCP-NAT\] Listening on ")
    # The daemon's first sweep after its start takes a process for old that was started before it.
    running.log.allow(r"Found stale process entry on startup: \"core\" - state: QProcess::Running")
    made = running.client()
    core.start(running, made)
    yield made
    if tunnel.is_running(made):
        tunnel.stop(made)


@pytest.fixture
def tunnel_client(core_client):  # pylint: disable=redefined-outer-name
    """A client whose core and tunnel are up."""
    tunnel.start(core_client)
    return core_client


@pytest.fixture
def guest_client(running, tunnel_client):  # pylint: disable=redefined-outer-name
    """The same, for a test in which the guest uses the tunnel much; the bench has to have the role `guest`."""
    guest.allow(running, guest.ORDINARY_LINES + guest.BUSY_LINES)
    return tunnel_client


@pytest.fixture
def scripted(running):  # pylint: disable=redefined-outer-name
    """A tunnel for the guest whose two proxies do what the test tells them (scripted_socks.Socks)."""
    tunnel.expect_in_log(running)
    guest.allow(running, guest.ORDINARY_LINES)
    client = running.client()
    with Socks(running, 30808) as proxy, Socks(running, 40808) as direct:
        tunnel.start(client, proxy_port=proxy.port, direct_port=direct.port)
        yield Scripted(client, proxy, direct)
        if tunnel.is_running(client):
            tunnel.stop(client)
