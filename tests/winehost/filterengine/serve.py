#!/usr/bin/env python3
r"""The filtering engine of the network namespace in which it is started, as root, until its standard input ends.

    python3 -m filterengine.serve [NAME=PROGRAM …]

Makes control groups: "wine" for all of Wine, whose programs are judged in their own processes, and NAME for native
programs that stand for PROGRAM, a whole path of Windows. As soon as it serves it prints a line of JSON:
{"ready": true, "groups": {"wine": PATH, …}}; a process enters a group by writing its id into PATH/cgroup.procs. In the
end, what is left in the groups is ended.
"""

import argparse
import json
import signal
import sys

from . import app_id
from .calls import Calls
from .cgroups import Groups
from .nftables import Nftables
from .objects import Objects
from .routes import Routes
from .ruleset import Group
from .server import Server

WINE = "wine"


def stand_in(text):
    name, sign, program = text.partition("=")
    if not sign or not name.isalnum() or name == WINE:
        raise argparse.ArgumentTypeError(f"{text!r} is not NAME=PROGRAM")
    return name, app_id.of_windows_path(program)


def main():
    parser = argparse.ArgumentParser(description="The filtering engine of a network namespace.")
    parser.add_argument("stand_ins", nargs="*", type=stand_in, metavar="NAME=PROGRAM")
    programs = {WINE: None} | dict(parser.parse_args().stand_ins)
    # Its end is that of its input, also where a terminal's Ctrl+C goes to all.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    groups = Groups(programs)
    try:
        nftables = Nftables([Group(groups.nftables_path(name), Groups.LEVEL, program)
                             for name, program in programs.items()])
        server = Server(Calls(Objects(), nftables.enforce, Routes().interface_to, nftables.changes))
        print(json.dumps({"ready": True, "groups": {name: groups.path(name) for name in programs}}), flush=True)
        server.serve_until(sys.stdin)
        nftables.remove()
    finally:
        groups.remove()


if __name__ == "__main__":
    main()
