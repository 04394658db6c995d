"""What script/bench asks: each row a figure, its floor, and how they must compare."""
import dataclasses
import re


@dataclasses.dataclass
class Row:
    question: str
    figure: list    # Benchmarks; the best of them counts.
    floor: list     # Benchmarks to add up; or a counter of the figure's; empty: no floor.
    relation: str   # "<=" or ">=".
    target: float
    field: str = "real_time"  # Nanoseconds; else a counter, or items_per_second.
    one_core: bool = False    # Disks interrupt one core: threads on another pay for that.
    long: bool = False        # Few calls fit into a repetition, so there are twice as many.

    def benchmarks(self):
        """The filter for this row's benchmarks and no others."""
        names = self.figure + [name for name in self.floor if name.startswith("BM_")]
        return "^(" + "|".join(re.escape(name) for name in names) + ")$"


def at_most(question, figure, floor, target):
    return Row(question, figure if isinstance(figure, list) else [figure], floor, "<=", target)


def rate(question, figure, floor, relation, target, one_core=False):
    return Row(question, [figure], [floor], relation, target, "items_per_second", one_core)


def count(question, figure, counter, most):
    return Row(question, [figure], [], "<=", most, counter)


def log_floor(kpis):
    return ["BM_FloorMutex", f"BM_FloorMap/{kpis}", "BM_FloorVirtual", "BM_FloorSteadyClock"]


def upload_rows():
    for size, label, sealed in ((64 << 10, "64 KiB", 16 << 10), (1 << 20, "1 MiB", 256 << 10),
                                (4 << 20, "4 MiB", 1 << 20)):
        for mode, mode_name in ((0, "plain"), (1, "CBC"), (2, "GCM")):
            floor = [f"BM_FloorDeflate/{size}", f"BM_FloorCopy/{size}",
                     "BM_FloorSequenceFile/real_time"]
            if mode:
                floor += [f"BM_FloorCipher/{sealed}/{mode}", "BM_FloorKeyWork"]
            yield Row(f"SendData, {label}, {mode_name}", [f"BM_SendData/{size}/{mode}/real_time"],
                      floor, "<=", 1.05, long=True)


IDLE = "BM_IdleSession/60/iterations:1/repeats:1"
COUNTS = "BM_HotPathCounts/iterations:3"
ROWS = [
    at_most("kiv_log, counter, 100 KPIs", "BM_LogCounter/100", log_floor(100), 0.6),
    at_most("kiv_log, counter, 1024 KPIs", "BM_LogCounter/1024", log_floor(1024), 0.5),
    at_most("kiv_log, histogram of 10", "BM_LogHistogram", ["BM_LogCounter/100"], 1.25),
    at_most("kiv_log, gauge", "BM_LogGauge", ["BM_LogCounter/100", "BM_FloorTime"], 1.25),
    at_most("window closes, caller's side", "BM_CloseWindow/iterations:8192",
            ["BM_FloorCloseWindow"], 1.1),
    at_most("the same while the disk writes",
            [f"BM_CloseWindowBesideDisk/{core}/iterations:4096" for core in (0, 1)],
            ["BM_FloorCloseWindow"], 1.1),
    at_most("the same, the writer asleep", "BM_CloseWindowAsleep/iterations:1000/manual_time",
            ["BM_FloorCloseWindowAsleep/iterations:1000/manual_time"], 1.1),
    at_most("slot write, 4 KiB", "BM_SlotWrite/iterations:1023/manual_time", ["floor_ns"], 1.2),
    at_most("queue, 64 KiB", "BM_Queue/65536", ["BM_FloorQueue/65536"], 1.1),
    at_most("queue, 1 MiB", "BM_Queue/1048576", ["BM_FloorQueue/1048576"], 1.1),
    at_most("queue, 4 MiB", "BM_Queue/4194304", ["BM_FloorQueue/4194304"], 1.1),
    at_most("session start, 1024 KPIs", "BM_SessionStart", ["BM_FloorSessionStart"], 2.5),
    *upload_rows(),
    # The times of as many samples: that is why the floor stands before the figure.
    rate("two threads, one collector (time)", "BM_FloorContended/real_time/threads:2",
         "BM_LogContended/real_time/threads:2", "<=", 0.6),
    rate("two threads, two collectors (rate)", "BM_LogOwnCollector/real_time/threads:2",
         "BM_LogOwnCollector/real_time/threads:1", ">=", 1.8),
    rate("200-byte records to disk (rate)", "BM_RecordsToDisk/real_time", "BM_FloorDisk/real_time",
         ">=", 0.95, one_core=True),
    rate("the same beside SQLite (rate)", "BM_RecordsToDisk/real_time", "BM_FloorSqlite/real_time",
         ">=", 1.0, one_core=True),
    count("allocations per kiv_log", COUNTS, "allocations", 0),
    count("system calls per kiv_log", COUNTS, "system_calls", 0),
    count("idle session, 1024 counters: KiB of heap", IDLE, "heap_kib", 512),
    count("idle session: threads", IDLE, "own_threads", 1),
    count("idle session: wake-ups a minute", IDLE, "wakeups", 0),
]
DISTRIBUTION = "^BM_LogDistribution"
