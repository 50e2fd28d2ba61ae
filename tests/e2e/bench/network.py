"""Network namespaces of a bench: `host` is the Windows machine, `net` the Internet, `guest` a machine behind host."""

import itertools
import os
import re
import subprocess

from . import processes

# End, interface and address, twice: both are made inside the namespaces, so names cannot meet others'.
LINKS = (
    (("host", "uplink", "192.0.2.2/24"), ("net", "host0", "192.0.2.1/24")),
    (("guest", "uplink", "198.51.100.2/24"), ("host", "guest0", "198.51.100.1/24")),
)
ROUTES = (
    ("host", "default", "192.0.2.1", "net"),
    ("guest", "default", "198.51.100.1", "host"),
    ("net", "198.51.100.0/24", "192.0.2.2", "guest"),
)
# Where servers are, far behind the gateway: public resolvers, and addresses for documentation.
RESOLVERS = ("8.8.8.8", "8.8.4.4", "1.1.1.1", "1.0.0.1")
SERVERS = ("203.0.113.10", "203.0.113.20")
# The uplink has IPv6 as far as the gateway.
UPLINK6 = (("host", "uplink", "2001:db8:3::2/64"), ("net", "host0", "2001:db8:3::1/64"))
GATEWAY6 = "2001:db8:3::1"
# The guest has IPv6 as well, and the servers have an address in it. How `host` reaches that is the test's to say: the
# tunnel makes no routes for IPv6.
GUEST_LINK6 = (("guest", "uplink", "2001:db8:1::2/64"), ("host", "guest0", "2001:db8:1::1/64"))
GUEST_GATEWAY6 = "2001:db8:1::1"
SERVER6 = "2001:db8:2::10"
SERVER_NETWORK6 = "2001:db8:2::/64"
# Programs of `host` that bind to these leave through the uplink whatever the routes say, as a program of Windows that
# binds to an interface does.
UPLINK_ADDRESSES = ("192.0.2.2", "192.0.2.3")
UPLINK_TABLE = "100"
# What Windows gives such an interface: routes of a better metric win, as they would there.
ROUTE_METRIC = "25"
# Room for tens of thousands of connections a minute from one machine. The ports on which proxies and servers of tests
# listen are nobody's client port. Few connections in TIME_WAIT, and a small table for all of them: whoever asks for a
# connection's owner has the kernel walk through it.
HOST_SETTINGS = {
    "net.ipv4.ip_local_port_range": "1024 65535",
    "net.ipv4.ip_local_reserved_ports": "5201,10808,20808",
    "net.ipv4.tcp_tw_reuse": "1",
    "net.ipv4.tcp_max_tw_buckets": "1024",
}
CONNECTION_TABLE_SIZE = "4096"
OURS = re.compile(r"^ruvod-(\d+)-")

_counter = itertools.count(1)


def ip(*words):
    done = subprocess.run(["ip", *words], capture_output=True, text=True, timeout=20, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"ip {' '.join(words)}: {done.stderr.strip()}")
    return done.stdout


def namespaces():
    return [line.split()[0] for line in ip("netns", "list").splitlines() if line]


def add_namespace(name):
    """Makes a namespace with a table of connections of its own: the size comes from the namespace of its maker."""
    setting = f"net.ipv4.tcp_child_ehash_entries={CONNECTION_TABLE_SIZE}"
    script = f'sysctl -qw {setting} 2>/dev/null; exec ip netns add "$0"'  # kernels before 6.1 share one table
    subprocess.run(["unshare", "--net", "sh", "-c", script, name], check=True, timeout=20)


def remove_namespace(name):
    """Deletes a namespace and ends what still runs in it."""
    inside = [int(pid) for pid in ip("netns", "pids", name).split()]
    processes.kill(inside)
    ip("netns", "delete", name)


def remove_abandoned():
    """Removes the namespaces of runs whose process is gone."""
    for name in namespaces():
        owner = OURS.match(name)
        if owner and not processes.is_alive(int(owner[1])):
            remove_namespace(name)


class Network:
    """The namespaces of `roles`, and the links among them."""

    def __init__(self, roles=("host",)):
        self.run = f"ruvod-{os.getpid()}-{next(_counter)}"
        self.roles = tuple(roles)

    def name(self, role):
        return f"{self.run}-{role}"

    def enter(self, role):
        """What a command has to start with to run in that namespace."""
        return ["ip", "netns", "exec", self.name(role)]

    def up(self):
        for role in self.roles:
            add_namespace(self.name(role))
            ip("-n", self.name(role), "link", "set", "lo", "up")
        for link in LINKS:
            if all(role in self.roles for role, _, _ in link):
                self._connect(link)
        for role, target, gateway, needed in ROUTES:
            if role in self.roles and needed in self.roles:
                ip("-n", self.name(role), "route", "add", target, "via", gateway, "metric", ROUTE_METRIC)
        if "net" in self.roles:
            for address in RESOLVERS + SERVERS:
                ip("-n", self.name("net"), "address", "add", f"{address}/32", "dev", "lo")
            ip("-n", self.name("net"), "address", "add", f"{SERVER6}/128", "dev", "lo", "nodad")
        if {"host", "net"} <= set(self.roles):
            self._make_way_around_routes()
            self._give_ipv6(UPLINK6)
        if "host" in self.roles:
            self.set("host", **HOST_SETTINGS)
        if "guest" in self.roles:
            self.set("host", **{"net.ipv4.ip_forward": "1", "net.ipv6.conf.all.forwarding": "1"})
            self._give_ipv6(GUEST_LINK6)
            if "host" in self.roles:
                ip("-n", self.name("guest"), "-6", "route", "add", "default", "via", GUEST_GATEWAY6)

    def set(self, role, **settings):
        """Sets sysctls of a namespace."""
        words = [f"{name}={value}" for name, value in settings.items()]
        subprocess.run([*self.enter(role), "sysctl", "-qw", *words], check=True, timeout=20)

    def _connect(self, link):
        (role, device, _), (peer_role, peer_device, _) = link
        ip("link", "add", device, "netns", self.name(role), "type", "veth",
           "peer", "name", peer_device, "netns", self.name(peer_role))
        for end_role, end_device, address in link:
            ip("-n", self.name(end_role), "address", "add", address, "dev", end_device)
            ip("-n", self.name(end_role), "link", "set", end_device, "up")

    def _give_ipv6(self, link):
        for role, device, address in link:
            if role in self.roles:
                # Nobody else can have it: it is of use at once.
                ip("-n", self.name(role), "address", "add", address, "dev", device, "nodad")

    def _make_way_around_routes(self):
        host = self.name("host")
        ip("-n", host, "address", "add", f"{UPLINK_ADDRESSES[1]}/24", "dev", "uplink")
        ip("-n", host, "route", "add", "192.0.2.0/24", "dev", "uplink", "table", UPLINK_TABLE)
        ip("-n", host, "route", "add", "default", "via", "192.0.2.1", "table", UPLINK_TABLE)
        for address in UPLINK_ADDRESSES:
            ip("-n", host, "rule", "add", "from", address, "lookup", UPLINK_TABLE)

    def down(self):
        existing = namespaces()
        for role in self.roles:
            if self.name(role) in existing:
                remove_namespace(self.name(role))
