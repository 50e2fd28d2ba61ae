"""Whether filters can be enforced on this machine, tried in the network namespace in which it is started, as root.

    python3 -m filterengine.check       says what is missing; status 0 if nothing
"""

import os
import socket
import subprocess
import sys

from .arbitration import Condition, Filter
from .cgroups import Groups
from .nftables import Nftables
from .ruleset import FAMILIES, Group

NOBODY = r"\device\harddiskvolume26\nobody.exe"
# A datagram to a port of this machine: 0 if it may leave, else the error.
SEND = """
import socket, sys
family, address = (socket.AF_INET6, '::1') if sys.argv[1] == 'ip6' else (socket.AF_INET, '127.0.0.1')
try:
    socket.socket(family, socket.SOCK_DGRAM).sendto(b'x', (address, 53))
except OSError as problem:
    sys.exit(problem.errno)
"""


def sends(family, group=None):
    enter = ["sh", "-c", 'echo $$ >"$0/cgroup.procs" && exec "$@"', group] if group else []
    return subprocess.run([*enter, sys.executable, "-c", SEND, family], timeout=20, check=False).returncode == 0


def problem():
    """What does not work; None: everything does."""
    try:
        groups = Groups(["check"])
    except OSError as error:
        return str(error)
    try:
        nftables = Nftables([Group(groups.nftables_path("check"), Groups.LEVEL, NOBODY)])
        blocks = [Filter(number, layer, "{}", "check", "", 0, weight, action, (Condition(field, value),))
                  for number, (layer, weight, action, field, value) in enumerate(
                      each for layer in FAMILIES.values() for each in (
                          (layer, 2, "permit", "app-id", NOBODY), (layer, 1, "block", "remote-port", 53)))]
        nftables.enforce(blocks)
        for family in [name for name in FAMILIES if name == "ip" or _has_ipv6()]:
            if sends(family):
                return f"nftables: what it is to block in the family {family} passes"
            if not sends(family, groups.path("check")):
                return f"nftables: it does not know a program of the family {family} by its control group"
        nftables.enforce([])
        if not sends("ip"):
            return "nftables: what was blocked stays blocked"
        nftables.remove()
    except (OSError, RuntimeError) as error:
        return f"nftables: {error}"
    finally:
        groups.remove()
    return None


def _has_ipv6():
    with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind(("::1", 0))
        except OSError:
            return False
    return True


def main():
    if os.geteuid() != 0:
        sys.exit("error: only root can do this")
    found = problem()
    if found:
        sys.exit(f"error: filters cannot be enforced here: {found}")


if __name__ == "__main__":
    main()
