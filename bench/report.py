#!/usr/bin/python3
"""The figures of scripts/bench: made from Google Benchmark's output, shown as a table, compared with older ones.

    report.py make FIGURES.json RAW.json...   condenses raw results into figures and prints their table
    report.py compare OLD.json NEW.json       prints both side by side

A row is one benchmark with one argument: bytes of a packet, or connections in a table. "ns" is the median over the
repetitions and "best" the smallest of them: on a busy machine the latter is the steadier. "bytes_per_cycle" is the
best too, and null where bytes mean nothing.
"""

import json
import signal
import statistics
import sys


class UsageError(Exception):
    pass


def condensed(raws):
    """Figures of several raw results; a later one replaces rows of the same name."""
    rows = {}
    for raw in raws:
        runs = [run for run in raw["benchmarks"] if run["run_type"] == "iteration"]
        # Repetitions of all benchmarks may be interleaved.
        runs.sort(key=lambda run: (run["family_index"], run["per_family_instance_index"]))
        for name in dict.fromkeys(run["name"] for run in runs):
            rows[name] = row_of([run for run in runs if run["name"] == name])
    if not rows:
        raise UsageError("there is no benchmark in these results")
    context = raws[0]["context"]
    about = {key: context[key] for key in ("date", "num_cpus", "mhz_per_cpu", "load_avg")}
    return {"about": about, "rows": rows}


def row_of(repetitions):
    for run in repetitions:
        if run.get("error_occurred"):
            raise UsageError(f"{run['name']}: {run['error_message']}")
        if run["time_unit"] != "ns":
            raise UsageError(f"{run['name']}: times are in {run['time_unit']}, not in ns")
    times = [run["cpu_time"] for run in repetitions]
    rates = [run["bytes_per_cycle"] for run in repetitions if "bytes_per_cycle" in run]
    return {
        "ns": round(statistics.median(times), 2),
        "best": round(min(times), 2),
        "bytes_per_cycle": round(max(rates), 2) if rates else None,
        "repetitions": len(times),
    }


def print_table(header, lines):
    widths = [max(len(line[column]) for line in [header, *lines]) for column in range(len(header))]
    for line in [header, ["-" * width for width in widths], *lines]:
        print(line[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(line[1:], widths[1:])), sep="  ")


def number(value):
    return "" if value is None else f"{value:.2f}"


def show(figures):
    about = figures["about"]
    load = ", ".join(f"{value:.1f}" for value in about["load_avg"])
    print(f"{about['date']}, {about['num_cpus']} processors of {about['mhz_per_cpu']} MHz, load {load}\n")
    lines = [[name, *(number(row[key]) for key in ("ns", "best", "bytes_per_cycle"))]
             for name, row in figures["rows"].items()]
    print_table(["benchmark / size", "ns", "best", "bytes/cycle"], lines)
    show_beside_lwip(figures["rows"])


def show_beside_lwip(rows):
    """How many times as fast our checksum is as lwIP's over the same bytes."""
    ratios = []
    for name, theirs in rows.items():
        benchmark, _, size = name.partition("/")
        ours = rows.get(f"checksumIp/{size}")
        if benchmark == "checksumLwip" and ours:
            ratios.append(f"{theirs['best'] / ours['best']:.1f} times as fast at {size} bytes")
    if ratios:
        print("\nchecksumIp against lwIP's:", ", ".join(ratios))


def compare(old, new):
    """Rows of both. A change is that of the best times; a row that only one side has says so."""
    lines = []
    for name in dict.fromkeys([*old["rows"], *new["rows"]]):
        before, after = old["rows"].get(name), new["rows"].get(name)
        if before is None or after is None:
            change = "new" if before is None else "gone"
        else:
            change = f"{(after['best'] / before['best'] - 1) * 100:+.0f} %"
        lines.append([name, number(before and before["best"]), number(after and after["best"]), change])
    print_table(["benchmark / size", "best before, ns", "best after, ns", "change"], lines)


def read(path):
    try:
        with open(path, encoding="utf-8") as file:
            return json.load(file)
    except (OSError, ValueError) as error:
        raise UsageError(f"{path}: {error}") from error


def read_figures(path):
    figures = read(path)
    if not isinstance(figures, dict) or not isinstance(figures.get("rows"), dict):
        raise UsageError(f"{path} does not hold figures of scripts/bench")
    return figures


def main(arguments):
    match arguments:
        case ["make", target, *raws] if raws:
            figures = condensed([read(path) for path in raws])
            with open(target, "w", encoding="utf-8") as file:
                json.dump(figures, file, indent=2)
                file.write("\n")
            show(figures)
        case ["compare", old, new]:
            compare(read_figures(old), read_figures(new))
        case _:
            raise UsageError(__doc__)


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # a reader that has seen enough is no error
    try:
        main(sys.argv[1:])
    except UsageError as error:
        sys.exit(f"error: {error}")
