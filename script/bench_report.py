#!/usr/bin/env python3
"""Runs the benchmark program, a row at a time, and compares each figure with its floor."""
import argparse
import json
import os
import statistics
import subprocess
import sys

import library_size
from bench_rows import DISTRIBUTION, IDLE, ROWS

# Where a smoke run writes: there it need not wait for the disk.
MEMORY_FILES = "/dev/shm"
SECONDS_PER_REPETITION = "0.05"
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Figures:
    """What one run of the program measured: values by benchmark, one a repetition."""

    def __init__(self, program, options, one_core=False):
        def on_one_core():
            os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
        done = subprocess.run([program, "--benchmark_format=json"] + options, check=True,
                              stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                              preexec_fn=on_one_core if one_core else None)
        self.rows = {}
        for row in json.loads(done.stdout)["benchmarks"]:
            if row.get("error_occurred"):
                raise RuntimeError(f"{row['run_name']} failed: {row.get('error_message')}")
            if row.get("run_type") == "iteration":
                self.rows.setdefault(row["run_name"], []).append(row)

    def values(self, name, field):
        if name not in self.rows:
            raise RuntimeError(f"no benchmark {name}")
        return [row[field] * (NANOSECONDS[row["time_unit"]] if field == "real_time" else 1)
                for row in self.rows[name]]

    def median(self, name, field):
        return statistics.median(self.values(name, field))


def measure(row, figures):
    """A row of the table."""
    best = min(row.figure, key=lambda name: figures.median(name, row.field))
    values = figures.values(best, row.field)
    figure = statistics.median(values)
    spread = (max(values) - min(values)) / figure * 100 if figure else 0.0
    if not row.floor:
        return (row.question, figure, spread, 0.0, figure, figure, row.relation, row.target)
    quick = max if row.field == "items_per_second" else min
    floors = [figures.values(name, row.field) if name in figures.rows else
              figures.values(best, name) for name in row.floor]
    floor = sum(statistics.median(values) for values in floors)
    quiet = quick(values) / sum(quick(values) for values in floors)
    return (row.question, figure, spread, floor, figure / floor, quiet, row.relation, row.target)


def bus_rows(build, smoke):
    """What one hop costs beside a bare echo; the program prints medians."""
    calls, rounds = ("100", "1") if smoke else ("500", "41")
    done = subprocess.run([build + "/bench/orb_bus_bench", calls, rounds],
                          stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, check=True)
    figures = json.loads(done.stdout)
    for name in ("echo", "nested", "descriptor"):
        yield (f"bus call, {name}, per hop", figures[name] * 1e3, 0.0, figures["bare"] * 1e3,
               figures[name] / figures["bare"], figures[name] / figures["bare"], "<=", 1.5)


def met(ratio, relation, target):
    return ratio <= target if relation == "<=" else ratio >= target


def run_all(args):
    """The table, and the distributions."""
    program = args.build + "/bench/orb_bench"
    if args.smoke:
        if os.access(MEMORY_FILES, os.W_OK):
            os.environ["TMPDIR"] = MEMORY_FILES
        every = Figures(program, ["--benchmark_min_time=0.01", f"--benchmark_filter=-{IDLE}"])
        return [measure(row, every) for row in ROWS if row.figure != [IDLE]], every
    table = []
    for row in ROWS:
        # In turn with its floors, because a machine is another one from minute to
        # minute; with nothing else, because each finds the caches as its neighbour
        # left them.
        repeated = [f"--benchmark_repetitions={args.repetitions * (2 if row.long else 1)}",
                    "--benchmark_enable_random_interleaving=true"] if row.floor else []
        options = [f"--benchmark_filter={row.benchmarks()}",
                   f"--benchmark_min_time={SECONDS_PER_REPETITION}"]
        table.append(measure(row, Figures(program, options + repeated, row.one_core)))
    return table, Figures(program, [f"--benchmark_filter={DISTRIBUTION}",
                                    "--benchmark_repetitions=5"])


def main():
    parser = argparse.ArgumentParser(prog="script/bench")
    parser.add_argument("build")
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("--repetitions", type=int, default=15)
    args = parser.parse_args()
    try:
        rows, figures = run_all(args)
        rows += bus_rows(args.build, args.smoke)
    except RuntimeError as error:
        print(f"bench: {error}", file=sys.stderr)
        return 1
    if args.json:
        keys = ("what", "figure", "spread_percent", "floor", "ratio", "quiet_ratio", "relation",
                "target")
        print(json.dumps([dict(zip(keys, row)) for row in rows], indent=1))
    else:
        print(f"{'what':40} {'figure':>12} {'spread':>7} {'floor':>12} {'ratio':>6} {'quiet':>6}"
              "  target")
        for what, figure, spread, floor, ratio, quiet, relation, target in rows:
            mark = "" if met(ratio, relation, target) else "  BEYOND"
            print(f"{what:40} {figure:12.1f} {spread:6.0f}% {floor:12.1f} {ratio:6.2f} "
                  f"{quiet:6.2f}  {relation} {target}{mark}")
        for name, found in figures.rows.items():
            if "p50_ns" in found[0]:
                print(f"{name}: p50 {figures.median(name, 'p50_ns'):.0f} ns, p99 "
                      f"{figures.median(name, 'p99_ns'):.0f} ns, p99.9 "
                      f"{figures.median(name, 'p999_ns'):.0f} ns")
        print(library_size.report(args.build))
    if args.smoke:
        return 0
    return 0 if all(met(row[4], row[6], row[7]) for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
