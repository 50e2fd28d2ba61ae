#!/usr/bin/python3
"""How many packets a second the product's adapter code takes from the adapter and gives to it, under Wine.

    adapter.py FIGURES.json [--seconds S] [--rounds N]

Alone: nothing is relayed. In: Linux floods the adapter, each packet is handed over and forgotten. Out: packets for
nobody are sent as fast as one and two threads can. The median of the rounds; prints a table, writes the figures.
"""

import argparse
import contextlib
import json
import os
import statistics
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
os.environ.setdefault("RUVOD_BUILD_DIR", str(ROOT / "build" / "windows"))
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from bench import paths, tunnel  # noqa: E402  pylint: disable=wrong-import-position
from bench.flood import Flood  # noqa: E402  pylint: disable=wrong-import-position
from bench.machine import Bench  # noqa: E402  pylint: disable=wrong-import-position
from bench.network import ip  # noqa: E402  pylint: disable=wrong-import-position

PROGRAM = paths.BUILD / "tests" / "e2e" / "adapterload" / "adapterload.exe"
SIZE = 1400
# Name, direction, threads that send (here or in the daemon's place).
ROWS = [("in, one flooding program", "in", 1), ("in, two flooding programs", "in", 2),
        ("out, one thread", "out", 1), ("out, two threads", "out", 2)]


def measure(bench, direction, senders, seconds):
    library = paths.windows_path(bench.application / "tun2" / "wintun.dll")
    words = [library, direction, seconds] + ([senders] if direction == "out" else [])
    process = bench.prefix.popen(PROGRAM, *words, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        assert json.loads(process.stdout.readline())["ready"]
        adapter, = tunnel.adapters(bench)
        host = bench.network.name("host")
        ip("-n", host, "address", "add", "10.6.7.1/30", "dev", adapter.interface)
        ip("-n", host, "link", "set", adapter.interface, "mtu", "1500")
        ip("-n", host, "route", "add", "203.0.113.99", "dev", adapter.interface)
        flood = Flood(bench, "203.0.113.99", size=SIZE, senders=senders) if direction == "in" else None
        with flood or contextlib.nullcontext():
            output, _ = process.communicate(b"go\n", timeout=seconds + 30)
        counted = json.loads(output)
        return counted["packets"] / counted["seconds"]
    finally:
        process.kill()
        process.wait(10)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("figures", type=Path)
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    bench = Bench(paths.OUTPUT / "adapter-figures")
    rows = {}
    try:
        bench.up()
        for name, direction, senders in ROWS:
            rates = [measure(bench, direction, senders, options.seconds) for _ in range(options.rounds)]
            rows[name] = {"packets_per_second": round(statistics.median(rates)), "best": round(max(rates)),
                          "megabits": round(statistics.median(rates) * SIZE * 8 / 1e6), "rounds": len(rates)}
    finally:
        bench.down()
    print(f"{'adapter, packets of ' + str(SIZE) + ' bytes':34} {'packets/s':>12} {'best':>12} {'Mbit/s':>8}")
    for name, row in rows.items():
        print(f"{name:34} {row['packets_per_second']:12,} {row['best']:12,} {row['megabits']:8,}")
    about = {"load_avg": os.getloadavg(), "processors": os.cpu_count(), "seconds": options.seconds}
    options.figures.write_text(json.dumps({"about": about, "rows": rows}, indent=2) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main()
