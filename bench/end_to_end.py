#!/usr/bin/python3
"""What the tunnel carries, beside the same traffic straight through the same core, measured in turns in one run. The
TCP rows also as a machine behind the Windows machine has them: its connections take the user-space engine, where the
Windows machine's own are rewritten and relayed.

    end_to_end.py FIGURES.json [--rounds N] [--seconds S]

Everything runs on the test bench: service, core and tunnel under Wine, real Linux clients and servers in namespaces.
Prints a table and writes the figures.
"""

import argparse
import contextlib
import json
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
os.environ.setdefault("RUVOD_BUILD_DIR", str(ROOT / "build" / "windows"))
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from bench import core, paths, tunnel  # noqa: E402  pylint: disable=wrong-import-position
from bench.machine import Bench  # noqa: E402  pylint: disable=wrong-import-position
from bench.network import SERVERS  # noqa: E402  pylint: disable=wrong-import-position

LOAD = Path(__file__).resolve().parent / "traffic_load.py"
# What is measured: the name, the kind of load, its streams, the figure, and its unit.
ROWS = [
    ("one stream up", "up", 1, "megabits", "Mbit/s"),
    ("one stream down", "down", 1, "megabits", "Mbit/s"),
    ("four streams up", "up", 4, "megabits", "Mbit/s"),
    ("four streams down", "down", 4, "megabits", "Mbit/s"),
    ("round trips on one connection", "rtt", 1, "per_second", "/s"),
    ("short connections in a row", "connect", 1, "per_second", "/s"),
    ("UDP echoes on one flow", "udp", 1, "per_second", "/s"),
    ("UDP echoes from new ports", "udp-new", 1, "per_second", "/s"),
]
# Where a load's clients run, for each way: straight through the core, through the tunnel as the machine's own
# traffic, and through the engine.
WAYS = {"plain": "host", "tunnel": "host", "engine": "guest"}
# What the engine is not in the way of: the guest's datagrams of IPv4 take the machine's own way.
KINDS_WITHOUT_ENGINE = ("udp", "udp-new")
HELD = 1000


class Load:
    """The load's server and clients on a bench whose tunnel is up."""

    def __init__(self, bench):
        self._bench = bench
        self._server = subprocess.Popen([*bench.network.enter("net"), sys.executable, LOAD, "serve", SERVERS[0]],
                                        stdout=subprocess.PIPE)
        assert self._server.stdout.readline() == b"ready\n"

    def _command(self, kind, way, **options):
        words = [*self._bench.network.enter(WAYS[way]), sys.executable, LOAD, kind, SERVERS[0]]
        words += ["--socks", core.PROXY_PORT] if way == "plain" else []
        words += [word for name, value in options.items() for word in (f"--{name}", value)]
        return [str(word) for word in words]

    def run(self, kind, way, seconds, streams):
        done = subprocess.run(self._command(kind, way, seconds=seconds, streams=streams), stdout=subprocess.PIPE,
                              timeout=seconds + 60, check=True)
        return json.loads(done.stdout)

    def memory_of_held_connections(self, way, count):
        """Resident KiB of the daemon before, and with that many idle connections."""
        before = self._bench.memory()["Rss"]
        command = self._command("hold", way, streams=count)
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as holder:
            try:
                assert json.loads(holder.stdout.readline()) == {"open": count}
                return before, self._bench.memory()["Rss"]
            finally:
                holder.stdin.close()
                holder.stdout.read()  # until it has ended them all

    def close(self):
        self._server.kill()
        self._server.wait(10)


def measure(rounds, seconds):
    bench = Bench(paths.OUTPUT / "benchmark", ("host", "net", "guest"))
    with contextlib.ExitStack() as stack:
        stack.callback(bench.down)
        bench.up()
        bench.register()
        bench.start()
        client = bench.client()
        time.sleep(1.5)  # the registry's sweep for stale entries comes in the daemon's second second
        core.start(bench, client)
        tunnel.start(client)
        load = Load(bench)
        stack.callback(load.close)
        # First: what streams leave behind would count as what connections find already there.
        memory = {}
        for way in ("engine", "tunnel"):
            before, held = load.memory_of_held_connections(way, HELD)
            memory[way] = {"resident_kib": before, "resident_kib_held": held, "held": HELD}
        figures = {}
        for _ in range(rounds):
            for name, kind, streams, key, unit in ROWS:
                for way in WAYS:
                    if way == "engine" and kind in KINDS_WITHOUT_ENGINE:
                        continue
                    told = load.run(kind, way, seconds, streams)
                    row = figures.setdefault(name, {"unit": unit})
                    row.setdefault(way, []).append(told[key])
                    row.setdefault(f"{way}_told", []).append(told)
                    print(f"{name}, {way}: {told}", file=sys.stderr, flush=True)
        tunnel.stop(client)
    return {"load_avg": os.getloadavg(), "rows": figures, "memory": memory}


def show(figures):
    print(f"{'':32}{'tunnel':>10}{'engine':>10}{'plain':>10}         tunnel/plain  engine/plain")
    for name, row in figures["rows"].items():
        medians = {way: statistics.median(row[way]) for way in WAYS if way in row}
        rates = [f"{medians[way]:10.0f}" if way in medians else f"{'-':>10}" for way in ("tunnel", "engine", "plain")]
        ratios = [f"{medians[way] / medians['plain']:14.2f}" if way in medians else f"{'-':>14}"
                  for way in ("tunnel", "engine")]
        print(f"{name:32}{''.join(rates)} {row['unit']:6}{''.join(ratios)}")
    print()
    for way, memory in figures["memory"].items():
        growth = (memory["resident_kib_held"] - memory["resident_kib"]) / memory["held"]
        print(f"{way}: resident memory {memory['resident_kib'] / 1024:.0f} MiB; {growth:.0f} KiB more for each of "
              f"{memory['held']} idle connections")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("output", type=Path)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=3)
    options = parser.parse_args()
    figures = measure(options.rounds, options.seconds)
    options.output.write_text(json.dumps(figures, indent=1), encoding="utf-8")
    show(figures)


if __name__ == "__main__":
    main()
