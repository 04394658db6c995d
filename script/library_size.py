#!/usr/bin/env python3
"""usage: script/library_size.py BUILD_DIR

What liborb_sdk.so weighs, stripped, and what each folder's objects bring."""
import collections
import os
import shutil
import subprocess
import sys
import tempfile

LIBRARY = "liborb_sdk.so.3.0.0"


def run(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout


def objects(build):
    """The object files that are linked into the library, not into what it links."""
    target = os.path.join("collector", LIBRARY)
    for name in run("ninja", "-C", build, "-t", "inputs", target).split("\n"):
        if name.strip().endswith(".o") and not name.startswith("platform/"):
            yield name.strip()


def by_folder(build):
    """Bytes of code and data by folder of the sources."""
    sizes = collections.Counter()
    for name in objects(build):
        row = run("size", os.path.join(build, name)).splitlines()[1].split()
        sizes[name.split("/")[0]] += int(row[3])
    return sizes


def stripped(build):
    with tempfile.TemporaryDirectory() as scratch:
        copy = os.path.join(scratch, LIBRARY)
        shutil.copy(os.path.join(build, "collector", LIBRARY), copy)
        run("strip", copy)
        return os.path.getsize(copy)


def report(build):
    lines = [f"liborb_sdk.so, stripped: {stripped(build) / 1024:.0f} KiB; code and data by folder:"]
    for folder, size in by_folder(build).most_common():
        lines.append(f"  {folder:12} {size / 1024:6.0f} KiB")
    return "\n".join(lines)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    print(report(sys.argv[1]))
