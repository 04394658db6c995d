#!/usr/bin/env python3
"""Runs the benchmark program and compares each figure with its floor."""
import argparse
import json
import os
import statistics
import subprocess
import sys

import library_size

# Where a smoke run writes: there it need not wait for the disk.
MEMORY_FILES = "/dev/shm"
# A disk is another one from minute to minute, so that these take turns with their
# floors. The others do not: each would find the caches as its neighbour left them.
DISK = "RecordsToDisk|FloorDisk|FloorSqlite"


class Runs:
    """Figures by benchmark name, one a repetition."""

    def __init__(self, output):
        self.rows = {}
        for row in output["benchmarks"]:
            if row.get("run_type") == "iteration" and not row.get("error_occurred"):
                self.rows.setdefault(row["run_name"], []).append(row)
        self.failed = [r["run_name"] for r in output["benchmarks"] if r.get("error_occurred")]

    def values(self, name, field="real_time"):
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
        if name not in self.rows:
            raise KeyError(f"no benchmark {name}")
        rows = self.rows[name]
        if field == "real_time":
            return [r["real_time"] * scale[r["time_unit"]] for r in rows]
        return [r[field] for r in rows]

    def median(self, name, field="real_time"):
        return statistics.median(self.values(name, field))

    def spread(self, name, field="real_time"):
        values = self.values(name, field)
        middle = statistics.median(values)
        return (max(values) - min(values)) / middle * 100 if middle else 0.0


# (question, benchmark, floor benchmarks to add, "<=" or ">=", target)
TIMES = [
    ("kiv_log, counter, 100 KPIs", "BM_LogCounter/100",
     ["BM_FloorMutex", "BM_FloorMap/100", "BM_FloorVirtual", "BM_FloorSteadyClock"], "<=", 0.6),
    ("kiv_log, counter, 1024 KPIs", "BM_LogCounter/1024",
     ["BM_FloorMutex", "BM_FloorMap/1024", "BM_FloorVirtual", "BM_FloorSteadyClock"], "<=", 0.5),
    ("kiv_log, histogram of 10", "BM_LogHistogram", ["BM_LogCounter/100"], "<=", 1.25),
    ("kiv_log, gauge", "BM_LogGauge", ["BM_LogCounter/100", "BM_FloorTime"], "<=", 1.25),
    ("window closes, caller's side", "BM_CloseWindow/iterations:8192", ["BM_FloorCloseWindow"],
     "<=", 1.1),
    ("the same while the disk writes", "BM_CloseWindowBesideDisk/iterations:20000",
     ["BM_FloorCloseWindow"], "<=", 1.1),
    ("the same, the writer asleep", "BM_CloseWindowAsleep/iterations:1000/manual_time",
     ["BM_FloorCloseWindowAsleep/iterations:1000/manual_time"], "<=", 1.1),
    ("slot write, 4 KiB", "BM_SlotWrite/iterations:16382",
     ["BM_FloorMemcpy/iterations:16383"], "<=", 1.2),
    ("queue, 64 KiB", "BM_Queue/65536", ["BM_FloorQueue/65536"], "<=", 1.1),
    ("queue, 1 MiB", "BM_Queue/1048576", ["BM_FloorQueue/1048576"], "<=", 1.1),
    ("queue, 4 MiB", "BM_Queue/4194304", ["BM_FloorQueue/4194304"], "<=", 1.1),
    ("session start, 1024 KPIs", "BM_SessionStart", ["BM_FloorSessionStart"], "<=", 2.5),
]
# The same by throughput: (question, benchmark, floor, relation, target).
RATES = [
    ("two threads, one collector (time)", "BM_FloorContended/real_time/threads:2",
     "BM_LogContended/real_time/threads:2", "<=", 0.6),
    ("two threads, two collectors (rate)", "BM_LogOwnCollector/real_time/threads:2",
     "BM_LogOwnCollector/real_time/threads:1", ">=", 1.8),
    ("200-byte records to disk (rate)", "BM_RecordsToDisk/real_time", "BM_FloorDisk/real_time",
     ">=", 0.95),
    ("the same beside SQLite (rate)", "BM_RecordsToDisk/real_time", "BM_FloorSqlite/real_time",
     ">=", 1.0),
]
# Counted, not compared: (question, benchmark, counter, most).
COUNTS = [
    ("allocations per kiv_log", "BM_HotPathCounts/iterations:3", "allocations", 0),
    ("system calls per kiv_log", "BM_HotPathCounts/iterations:3", "system_calls", 0),
    ("idle session, 1024 counters: KiB of heap", "BM_IdleSession/60/iterations:1/repeats:1",
     "heap_kib", 512),
    ("idle session: threads", "BM_IdleSession/60/iterations:1/repeats:1", "own_threads", 1),
    ("idle session: wake-ups a minute", "BM_IdleSession/60/iterations:1/repeats:1", "wakeups", 0),
]


def upload_rows(runs):
    for size, label, sealed in ((64 << 10, "64 KiB", 16 << 10), (1 << 20, "1 MiB", 256 << 10),
                                (4 << 20, "4 MiB", 1 << 20)):
        for mode, mode_name in ((0, "plain"), (1, "CBC"), (2, "GCM")):
            floor = [f"BM_FloorDeflate/{size}", f"BM_FloorCopy/{size}",
                     "BM_FloorSequenceFile/real_time"]
            if mode:
                floor += [f"BM_FloorCipher/{sealed}/{mode}", "BM_FloorKeyWork"]
            name = f"BM_SendData/{size}/{mode}/real_time"
            if name in runs.rows:
                yield (f"SendData, {label}, {mode_name}", name, floor, "<=", 1.05)


def bus_rows(build, smoke):
    """What one hop costs beside a bare echo; the program prints medians."""
    calls, rounds = ("100", "1") if smoke else ("3000", "7")
    done = subprocess.run([build + "/bench/orb_bus_bench", calls, rounds],
                          stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, check=True)
    figures = json.loads(done.stdout)
    for name in ("echo", "nested", "descriptor"):
        yield (f"bus call, {name}, per hop", figures[name] * 1e3, 0.0, figures["bare"] * 1e3,
               figures[name] / figures["bare"], "<=", 1.5)


def table(runs):
    out = []
    for question, name, floor, relation, target in TIMES + list(upload_rows(runs)):
        figure, base = runs.median(name), sum(runs.median(part) for part in floor)
        out.append((question, figure, runs.spread(name), base, figure / base, relation, target))
    for question, name, floor, relation, target in RATES:
        figure = runs.median(name, "items_per_second")
        base = runs.median(floor, "items_per_second")
        out.append((question, figure, runs.spread(name, "items_per_second"), base, figure / base,
                    relation, target))
    for question, name, count, most in COUNTS:
        if name in runs.rows:
            figure = runs.median(name, count)
            out.append((question, figure, 0.0, 0, figure, "<=", most))
    return out


def met(ratio, relation, target):
    return ratio <= target if relation == "<=" else ratio >= target


def run_all(args):
    """The program's own output, of two runs in one."""
    command = [args.build + "/bench/orb_bench", "--benchmark_format=json",
               f"--benchmark_repetitions={1 if args.smoke else args.repetitions}"]
    if args.smoke:
        if os.access(MEMORY_FILES, os.W_OK):
            os.environ["TMPDIR"] = MEMORY_FILES
        parts = [["--benchmark_min_time=0.01", "--benchmark_filter=-IdleSession/60"]]
    else:
        parts = [[f"--benchmark_filter=-{DISK}"],
                 [f"--benchmark_filter={DISK}", "--benchmark_enable_random_interleaving=true"]]
    output = {"benchmarks": []}
    for part in parts:
        done = subprocess.run(command + part, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                              check=True)
        output["benchmarks"] += json.loads(done.stdout)["benchmarks"]
    return output


def main():
    parser = argparse.ArgumentParser(prog="script/bench")
    parser.add_argument("build")
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("--repetitions", type=int, default=5)
    args = parser.parse_args()
    runs = Runs(run_all(args))
    if runs.failed:
        print("bench: failed: " + ", ".join(runs.failed), file=sys.stderr)
        return 1
    rows = table(runs) + list(bus_rows(args.build, args.smoke))
    if args.json:
        keys = ("what", "figure", "spread_percent", "floor", "ratio", "relation", "target")
        print(json.dumps([dict(zip(keys, row)) for row in rows], indent=1))
    else:
        print(f"{'what':40} {'figure':>12} {'spread':>7} {'floor':>12} {'ratio':>6}  target")
        for what, figure, spread, floor, ratio, relation, target in rows:
            mark = "" if met(ratio, relation, target) else "  BEYOND"
            print(f"{what:40} {figure:12.1f} {spread:6.0f}% {floor:12.1f} {ratio:6.2f}  "
                  f"{relation} {target}{mark}")
        for name, found in runs.rows.items():
            if "p50_ns" in found[0]:
                print(f"{name}: p50 {runs.median(name, 'p50_ns'):.0f} ns, p99 "
                      f"{runs.median(name, 'p99_ns'):.0f} ns, p99.9 "
                      f"{runs.median(name, 'p999_ns'):.0f} ns")
        print(library_size.report(args.build))
    if args.smoke:
        return 0
    return 0 if all(met(row[4], row[5], row[6]) for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
