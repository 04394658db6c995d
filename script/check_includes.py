#!/usr/bin/env python3
"""Fails on an include that the layout of the house does not allow: one of a folder on a
higher floor, of a folder that this one must not know, or in a circle of headers. Product
folders build unchanged on Android, so nothing that only a Linux workstation has may
appear in them.

--dot prints the arrows between the folders, without those that others imply; the page
docs/architecture.md shows them.
"""
import collections
import os
import re
import subprocess
import sys

BINDER = ["binder/", "android/", "fmq/", "aidl/", "utils/", "cutils/"]
LEAVES = [f"utility/{name}.h" for name in (
    "byte_order", "checked", "child_log", "contained", "error_text", "event_sink", "log",
    "program_log_limit", "quiet_write", "thread", "thread_annotations", "unique_fd")]
CONTRACT = ["ipc/I", "ipc/Bp", "ipc/Bn", "ipc/KIV", "ipc/LicInfo", "ipc/aidl/", "ipc/transaction.h",
            "ipc/parcel_body.h"]
ANY = [""]

# The floors from the ground up: a folder, what it may include of those below it, by
# prefix, and which headers of the platform. Nothing may include what stands after it.
FLOORS = [
    ("include/", [], []),
    ("proto/", ["include/"], []),
    ("utility/", ["include/", "proto/"], ["android/log.h", "android-base/", "log/"]),
    ("platform/linux/", LEAVES, BINDER + ["systemd/", "android-base/", "orb_platform/", "log/"]),
    ("crypto/", ["include/", "utility/"], ["android/log.h"]),
    ("ledger/", ["utility/"], ["android/log.h"]),
    ("serializer/", ["include/", "utility/", "proto/", "ledger/"], ["android/log.h", "cutils/"]),
    ("kpi/", ["include/", "utility/", "proto/", "ledger/", "serializer/kpi_serializer.h"],
     ["android/log.h"]),
    ("ipc/", ["include/", "utility/"], BINDER),
    ("collector/", ["include/", "utility/", "proto/", "crypto/", "ledger/", "kpi/", "serializer/",
                    "ipc/"],
     BINDER),
    ("services/common/", ["include/", "utility/"], BINDER + ["orb_platform/", "systemd/"]),
    ("services/hal/", CONTRACT + ["include/", "utility/", "services/common/",
                                  "serializer/header_layout.h"],
     BINDER + ["orb_platform/", "systemd/"]),
    ("services/manager/control/", CONTRACT + ["include/", "utility/", "proto/"], BINDER + ["orb_platform/"]),
    ("services/manager/", CONTRACT + ["include/", "utility/", "proto/", "services/common/",
                                      "services/manager/control/"],
     BINDER + ["orb_platform/", "systemd/"]),
    # The format of uploads, and nothing of the bus or of the library that wrote them.
    ("reader/", ["include/", "utility/", "proto/", "crypto/", "serializer/header_layout.h"], []),
    ("tools/orbctl/", ["include/", "utility/", "proto/", "reader/",
                       "services/manager/control/"] + CONTRACT,
     BINDER + ["orb_platform/"]),
    # The library and the services themselves, in one process.
    ("tools/orbctl/sim/", ["include/", "utility/", "proto/", "ledger/", "serializer/",
                           "collector/", "services/", "reader/", "tools/orbctl/"] + CONTRACT,
     BINDER + ["orb_platform/"]),
    ("tools/orbctl/main.cpp", ["tools/orbctl/", "utility/"], []),
    ("examples/", ["include/"], []),
    ("packaging/", ["include/"], []),
    ("tests/support/", ANY, ANY),
    ("tests/crypto/", ANY, ANY),
    ("tests/kpi/", ANY, ANY),
    ("tests/collector/", ANY, ANY),
    ("tests/platform/", ANY, ANY),
    ("tests/integration/", ANY, ANY),
    ("tests/", ANY, ANY),
    ("bench/", ANY, ANY),
    ("fuzz/", ANY, ANY),
]
PRODUCT = ("utility/", "crypto/", "ledger/", "kpi/", "serializer/", "ipc/", "collector/")
PLATFORM_PREFIXES = BINDER + ["systemd/", "orb_platform/", "log/", "android-base/", "dbus/"]
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
LINUX_ONLY = re.compile(r"sd_bus|dbus|DBus|#\s*if.*__ANDROID__|#\s*if.*__linux__")
PAGE = "docs/architecture.md"


def resolve(name, including):
    """Path of a project file that the include names, or None."""
    for base in ("", "include/", "ipc/", os.path.dirname(including) + "/"):
        if os.path.isfile(base + name):  # <utility> is not the folder.
            return os.path.normpath(base + name)
    if name.startswith("proto/"):
        return name  # Generated.
    return None


def floor_of(path):
    """Number of the innermost folder in FLOORS that has the path, or None."""
    floors = [n for n, (folder, _, _) in enumerate(FLOORS) if path.startswith(folder)]
    return max(floors, key=lambda n: len(FLOORS[n][0]), default=None)


def check(path, includes, arrows):
    """Findings in one file; adds its includes to `includes`, its folder's to `arrows`."""
    floor = floor_of(path)
    if floor is None:
        yield f"{path}: stands on no floor"
        return
    _, ours, platform = FLOORS[floor]
    for number, line in enumerate(open(path, errors="replace"), 1):
        if path.startswith(PRODUCT) and LINUX_ONLY.search(line.split("//")[0]):
            yield f"{path}:{number}: product sources know no platform: {line.strip()}"
        match = INCLUDE.match(line)
        if not match:
            continue
        name = match.group(2)
        target = resolve(name, path)
        if target is None:
            if any(name.startswith(p) for p in PLATFORM_PREFIXES) and \
                    not any(name.startswith(p) for p in platform):
                yield f"{path}:{number}: may not include <{name}>"
            continue
        includes[path].add(target)
        target_floor = floor_of(target)
        if target_floor == floor:
            continue
        if target_floor is None or target_floor > floor:
            yield f"{path}:{number}: arrow up: {target}"
        elif not any(target.startswith(p) for p in ours):
            yield f"{path}:{number}: may not include {target}"
        arrows[floor].add(target_floor)


def circles(includes):
    """A line for each circle of files that include each other."""
    done, under_way = set(), []

    def visit(path):
        if path in under_way:
            yield "circle: " + " -> ".join(under_way[under_way.index(path):] + [path])
        elif path not in done:
            under_way.append(path)
            for target in sorted(includes.get(path, ())):
                yield from visit(target)
            done.add(under_way.pop())

    for path in sorted(includes):
        yield from visit(path)


def picture(arrows):
    """The arrows between the folders of product, services and tools, as dot reads them."""
    def reached(floor):
        return set().union(*({t} | reached(t) for t in arrows[floor]))

    lines = []
    for floor, (folder, _, _) in enumerate(FLOORS):
        if folder.startswith(("packaging/", "tests/", "bench/", "fuzz/")):
            continue
        implied = set().union(*(reached(target) for target in arrows[floor]))
        lines += [f'  "{folder.rstrip("/")}" -> "{FLOORS[target][0].rstrip("/")}";'
                  for target in sorted(arrows[floor] - implied)]
    return "\n".join(["digraph orb_sdk {", *lines, "}"]) + "\n"


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    files = subprocess.run(["git", "ls-files", "*.c", "*.cpp", "*.h"], capture_output=True,
                           text=True, check=True).stdout.split()
    includes, arrows = collections.defaultdict(set), collections.defaultdict(set)
    findings = [finding for path in files for finding in check(path, includes, arrows)]
    findings += circles(includes)
    if sys.argv[1:] == ["--dot"]:
        print(picture(arrows), end="")
    elif not findings and f"```dot\n{picture(arrows)}```" not in open(PAGE).read():
        findings.append(f"{PAGE}: does not show what --dot prints")
    print("\n".join(findings), end="\n" if findings else "", file=sys.stderr)
    return 1 if findings else 0


sys.exit(main())
