"""Prints what llvm-cov measured, from its lcov export.

usage: coverage_report.py LINES.info           a table of the product folders
       coverage_report.py LINES.info FILE...   the uncovered lines of these files
Exit 1 when the total is below the wanted share.
"""

import collections
import os
import sys

FOLDERS = ("utility crypto ledger kpi serializer ipc collector proto platform reader services tools").split()
WANTED_PERCENT = 90.0


def read_counts(path):
    """{file below the root: {line: count}}; a line built into several programs adds up."""
    counts = collections.defaultdict(collections.Counter)
    file = None
    with open(path, encoding="utf-8") as info:
        for row in info:
            key, _, value = row.strip().partition(":")
            if key == "SF":
                file = counts[os.path.relpath(value)]
            elif key == "DA":
                line, count = value.split(",")[:2]
                file[int(line)] += int(count)
    return counts


def print_table(counts):
    total = collections.Counter()
    covered = collections.Counter()
    for file, lines in counts.items():
        folder = file.split(os.sep)[0]
        total[folder] += len(lines)
        covered[folder] += sum(count > 0 for count in lines.values())
    rows = [(folder, covered[folder], total[folder]) for folder in FOLDERS if total[folder]]
    rows.append(("total", sum(row[1] for row in rows), sum(row[2] for row in rows)))
    print(f"{'folder':<12}{'lines':>8}{'covered':>9}{'%':>8}")
    for folder, hit, lines in rows:
        print(f"{folder:<12}{lines:>8}{hit:>9}{100.0 * hit / lines:>8.1f}")
    percent = 100.0 * rows[-1][1] / rows[-1][2]
    if percent < WANTED_PERCENT:
        print(f"the total is below {WANTED_PERCENT:.0f} %")
    return 1 if percent < WANTED_PERCENT else 0


def print_uncovered(counts, files):
    for file in files:
        path = os.path.relpath(file)
        with open(path, encoding="utf-8") as source:
            text = source.read().splitlines()
        for line in sorted(line for line, count in counts[path].items() if count == 0):
            print(f"{path}:{line}: {text[line - 1]}")
    return 0


def main():
    counts = read_counts(sys.argv[1])
    files = sys.argv[2:]
    return print_uncovered(counts, files) if files else print_table(counts)


if __name__ == "__main__":
    sys.exit(main())
