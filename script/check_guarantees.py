#!/usr/bin/env python3
"""Every test that docs/host_guarantees.md names is there.

One line per name that is not; exit 1 when there is any.
"""
import pathlib
import re
import sys

PAGE = pathlib.Path("docs/host_guarantees.md")
TEST = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)")
ADDED = re.compile(r"add_test\(NAME ([\w.]+)")
SCENARIOS = re.compile(r"set\(ORB_SCENARIOS([^)]*)\)")


def known():
    for path in pathlib.Path("tests").rglob("*.cpp"):
        yield from (".".join(found) for found in TEST.findall(path.read_text()))
    for folder in ("tests", "bench"):
        for path in pathlib.Path(folder).rglob("CMakeLists.txt"):
            text = path.read_text()
            yield from ADDED.findall(text)
            for scenarios in SCENARIOS.findall(text):
                yield from (f"Soak.{name}" for name in scenarios.split())


def main():
    tests = set(known())
    rows = [line for line in PAGE.read_text().splitlines() if line.startswith("| ")]
    named = [name for row in rows for name in re.findall(r"`([\w.-]+)`", row.split(" | ")[-1])]
    missing = [name for name in named if name not in tests and not name.startswith("BM_")]
    for name in missing:
        print(f"{PAGE}: there is no test {name}")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
