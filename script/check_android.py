#!/usr/bin/env python3
"""Fails when packaging/android does not fit the tree: a build file that does not
parse, or that names modules or files that are not there; AIDL whose methods and
fields do not stand in the order that ipc/ gives them on the wire.
"""
import glob
import os
import re
import sys

HERE = "packaging/android"
# What Android 14, or the integrator (libnanopb), has.
PLATFORM = set("""libbase libbinder libbinder_ndk libbinder_headers libcrypto libcutils libfmq
    liblog libnanopb libprotobuf-cpp-lite libutils libz android.hardware.common-V2-ndk
    android.hardware.common.fmq-V1-ndk""".split())
FILES = ("srcs", "local_include_dirs", "export_include_dirs", "version_script", "init_rc", "path")
MODULES = ("defaults", "shared_libs", "static_libs", "header_libs")
TYPES = {"String": "string", "byte[]": "vector<uint8_t>", "long": "int64_t", "int": "int32_t",
         "byte": "int8_t", "boolean": "bool"}
faults = []


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def parse_bp(text):
    """[(module type, {property: value})]; nested properties are dictionaries."""
    tokens = re.findall(r'"(?:[^"\\]|\\.)*"|//.*|[\w.]+|\S', text)
    tokens = [token for token in tokens if not token.startswith("//")] + [None]
    at = 0

    def take(expected=None):
        nonlocal at
        token = tokens[at]
        at += 1
        if token is None or (expected and token != expected):
            raise ValueError(f"Android.bp: {expected or 'a value'} expected, not {token}")
        return token

    def items(end, item):
        found = []
        while tokens[at] != end:
            found.append(item())
            if tokens[at] != end:
                take(",")
        take(end)
        return found

    def pair():
        name = take()
        take(":")
        return name, value()

    def value():
        token = take()
        if token == "[":
            return items("]", value)
        if token == "{":
            return dict(items("}", pair))
        if token in ("true", "false"):
            return token == "true"
        if not token.startswith('"'):
            raise ValueError(f"Android.bp: no value: {token}")
        return token[1:-1]

    modules = []
    while tokens[at] is not None:
        kind = take()
        take("{")
        modules.append((kind, dict(items("}", pair))))
    return modules


def listed(value):
    return value if isinstance(value, list) else [value]


def check_bp():
    modules = parse_bp(read(f"{HERE}/Android.bp"))
    names = [module.get("name") for kind, module in modules if kind != "package"]
    for name in set(names):
        if names.count(name) != 1:
            faults.append(f"Android.bp: {names.count(name)} modules are called {name}")
    for _, module in modules:
        for key in MODULES:
            for name in module.get(key, []):
                if name not in PLATFORM and name not in names:
                    faults.append(f"Android.bp: {module['name']}: no module {name}")
        for key in FILES:
            for pattern in listed(module.get(key, [])):
                if not glob.glob(pattern, recursive=True):
                    faults.append(f"Android.bp: {module['name']}: no file {pattern}")
    used = set(re.findall(r'#include "(proto/\w+)\.pb\.h"', "".join(
        read(path) for folder in ("collector", "ipc", "kpi", "serializer", "utility")
        for path in glob.glob(f"{folder}/**/*.[ch]*", recursive=True))))
    built = {os.path.splitext(path)[0] for _, module in modules for path in
             listed(module.get("srcs", [])) if path.endswith(".proto")}
    if used != built:
        faults.append(f"Android.bp: builds {sorted(built)}, the product uses {sorted(used)}")


def cpp_type(aidl):
    aidl = re.sub(r"@\w+\s+", "", aidl).strip()
    if aidl in TYPES:
        return TYPES[aidl]
    return f"vector<{aidl[:-2]}>" if aidl.endswith("[]") else aidl


def check_interface(name, text, header):
    codes = dict(re.findall(r"TRANSACTION_(\w+)\s*=\s*(?:::android::IBinder::)?"
                            r"FIRST_CALL_TRANSACTION \+ (\d+)", header))
    methods = re.findall(r"(oneway )?(?:\w+) (\w+)\(", text)
    if {method: str(i) for i, (_, method) in enumerate(methods)} != codes:
        faults.append(f"{name}.aidl: methods {[m for _, m in methods]}, transactions {codes}")
    return methods


def check_aidl(path):
    text = re.sub(r"/\*.*?\*/|//[^\n]*", "", read(path), flags=re.S)
    folder, name = os.path.split(os.path.relpath(path, f"{HERE}/aidl"))
    source = f"ipc/aidl/{folder}" if folder else "ipc"
    package = re.search(r"package ([\w.]+);", text)
    if (package[1] if package else "") != folder.replace("/", "."):
        faults.append(f"{path}: its package is not its folder")
    name = name[:-len(".aidl")]
    kind, body = re.search(r"(interface|parcelable) " + name + r" \{(.*)\}", text, re.S).groups()
    if kind == "interface":
        # The codes stand with the stub, or with the interface in the other backend.
        headers = [f"{source}/Bn{name[1:]}.h", f"{source}/{name}.h"]
        methods = check_interface(name, body, "".join(map(read, headers)))
        proxy = read(f"{source}/Bp{name[1:]}.cpp")
        for oneway, method in methods:
            call = re.search(rf"TRANSACTION_{method}\b.*?(?:;|TRANSACTION_)", proxy, re.S)[0]
            if bool(oneway) != ("FLAG_ONEWAY" in call):
                faults.append(f"{name}.aidl: {method}: one-way here or there only")
        return
    fields = [(cpp_type(kind), field) for kind, field in
              re.findall(r"((?:@\w+ )?[\w\[\]]+) (\w+);", body)]
    declared = re.findall(r"^  ((?:::)?[\w:<>]+) (\w+)(?: = \w+)?;", read(f"{source}/{name}.h"), re.M)
    declared = [(re.sub(r"::std::|std::|::", "", kind), field) for kind, field in declared]
    written = re.search(r"writeToParcel\(.*?\n\}", read(f"{source}/{name}.cpp"), re.S)[0]
    order = sorted(fields, key=lambda field: written.find(field[1]))
    if not fields or fields != declared or fields != order:
        faults.append(f"{name}.aidl: {fields}; declared {declared}, written {order}")


def main():
    try:
        check_bp()
    except ValueError as problem:
        faults.append(str(problem))
    paths = glob.glob(f"{HERE}/aidl/**/*.aidl", recursive=True)
    for path in sorted(paths):
        check_aidl(path)
    print(*faults, sep="\n", end="\n" if faults else "")
    return 1 if faults or not paths else 0


if __name__ == "__main__":
    sys.exit(main())
