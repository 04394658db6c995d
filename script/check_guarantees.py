#!/usr/bin/env python3
"""Every test that the tables of guarantees name is there.

One line per name that is not; exit 1 when there is any.
"""
import pathlib
import re
import sys

PAGES = ("docs/host_guarantees.md", "docs/security.md")
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
    failed = False
    for page in PAGES:
        rows = [line for line in pathlib.Path(page).read_text().splitlines()
                if line.startswith("| ")]
        named = [name for row in rows for name in re.findall(r"`([A-Z]\w*\.[\w.-]+)`",
                                                         row.split(" | ")[-1])]
        for name in named:
            if name not in tests:
                print(f"{page}: there is no test {name}")
                failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
