#!/usr/bin/env python3
"""Fails on an include that the layout of the house does not allow.

Every folder lists what of ours it may include (by prefix) and which platform
headers. Product folders build unchanged on Android, so nothing that only a
Linux workstation has may appear in them.
"""
import os
import re
import subprocess
import sys

BINDER = ["binder/", "android/", "fmq/", "aidl/", "utils/", "cutils/"]
LEAVES = [
    "utility/checked.h",
    "utility/byte_order.h",
    "utility/contained.h",
    "utility/error_text.h",
    "utility/log.h",
    "utility/thread.h",
    "utility/thread_annotations.h",
    "utility/unique_fd.h",
]
CONTRACT = ["ipc/I", "ipc/Bp", "ipc/Bn", "ipc/KIV", "ipc/LicInfo", "ipc/aidl/", "aidl/",
            "ipc/transaction.h", "ipc/parcel_body.h"]

# folder: (project includes allowed, by prefix; platform includes allowed)
RULES = {
    "include/": ([], []),
    "utility/": (["include/", "utility/", "proto/"], ["android/log.h", "android-base/", "log/"]),
    "proto/": (["proto/", "include/"], []),
    "crypto/": (["include/", "utility/", "crypto/"], ["android/log.h"]),
    "kpi/": (
        ["include/", "utility/", "proto/", "kpi/", "serializer/kpi_serializer.h",
         "collector/conf.h"],
        ["android/log.h"],
    ),
    "serializer/": (
        ["include/", "utility/", "proto/", "serializer/", "collector/kiv_collector.h",
         "collector/clock.h"],
        ["android/log.h", "cutils/"],
    ),
    "ipc/": (["include/", "utility/", "ipc/", "collector/kiv_collector.h"], BINDER),
    "collector/": (
        ["include/", "utility/", "proto/", "crypto/", "kpi/", "serializer/", "ipc/",
         "collector/"],
        BINDER,
    ),
    "platform/linux/": (LEAVES + ["utility/child_log.h", "utility/event_sink.h",
                                "utility/program_log_limit.h", "utility/quiet_write.h",
                                "platform/linux/"],
                       BINDER + ["systemd/", "android-base/", "orb_platform/", "log/"]),
    "services/": (
        CONTRACT + ["include/", "utility/", "proto/", "services/", "serializer/telemetry_header.h"],
        BINDER + ["orb_platform/", "systemd/"],
    ),
    # The library and the services themselves, in one process.
    "tools/orbctl/sim/": (
        ["include/", "utility/", "proto/", "serializer/", "collector/", "kpi/kpi_clock.h",
         "services/", "tools/orbctl/"] + CONTRACT,
        BINDER + ["orb_platform/"],
    ),
    "tools/orbctl/": (
        ["include/", "utility/", "proto/", "crypto/", "serializer/telemetry_header.h",
         "collector/conf.h", "services/manager/control/", "tools/orbctl/"] + CONTRACT,
        BINDER + ["orb_platform/"],
    ),
    "examples/": (["include/", "examples/"], []),
}
PRODUCT = ("utility/", "crypto/", "kpi/", "serializer/", "ipc/", "collector/")
PLATFORM_PREFIXES = BINDER + ["systemd/", "orb_platform/", "log/", "android-base/", "dbus/"]
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
LINUX_ONLY = re.compile(r"sd_bus|dbus|DBus|#\s*if.*__ANDROID__|#\s*if.*__linux__")


def resolve(name, including):
    """Path of a project file that the include names, or None."""
    for base in ("", "include/", os.path.dirname(including) + "/"):
        if os.path.isfile(base + name):  # <utility> is not the folder.
            return os.path.normpath(base + name)
    if name.startswith("proto/"):
        return name  # Generated.
    return None


def check(path):
    rule = next((RULES[folder] for folder in RULES if path.startswith(folder)), None)
    if rule is None:
        return
    ours, platform = rule
    for number, line in enumerate(open(path, errors="replace"), 1):
        if path.startswith(PRODUCT) and LINUX_ONLY.search(line.split("//")[0]):
            yield f"{path}:{number}: product sources know no platform: {line.strip()}"
        match = INCLUDE.match(line)
        if not match:
            continue
        name = match.group(2)
        if any(name.startswith(p) for p in PLATFORM_PREFIXES) and not resolve(name, path):
            if not any(name.startswith(p) for p in platform):
                yield f"{path}:{number}: may not include <{name}>"
            continue
        target = resolve(name, path)
        if target is None:
            continue
        if not any(target.startswith(p) for p in ours):
            yield f"{path}:{number}: may not include {target}"


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    files = subprocess.run(["git", "ls-files", "*.c", "*.cpp", "*.h"], capture_output=True,
                           text=True, check=True).stdout.split()
    findings = [finding for path in files for finding in check(path)]
    print("\n".join(findings), end="\n" if findings else "")
    return 1 if findings else 0


sys.exit(main())
