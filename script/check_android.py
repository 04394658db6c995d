#!/usr/bin/env python3
"""Fails when packaging/android does not fit the tree: a build file that does not
parse, or that names modules or files that are not there; AIDL whose methods and
fields do not stand in the order that ipc/ gives them on the wire; a frozen interface
that was edited; a manifest of another interface; lines of the first boot's log that
the library does not write. Or when the sources lack what only a device would miss:
marks and flags of a stable interface, names that do not clash with the platform's,
the one width they build for, no lock while a service manager is waited for.
"""
import glob
import hashlib
import os
import re
import subprocess
import sys
import xml.etree.ElementTree as xml

HERE = "packaging/android"
# What Android 14, or the integrator (libnanopb), has.
PLATFORM = set("""libbase libbinder libbinder_ndk libbinder_headers libcrypto libcutils libfmq
    liblog libnanopb libprotobuf-cpp-lite libutils libz android.hardware.common-V2-ndk
    android.hardware.common.fmq-V1-ndk""".split())
FILES = ("srcs", "local_include_dirs", "export_include_dirs", "version_script", "init_rc", "path")
PRODUCT = ("collector", "crypto", "ipc", "kpi", "proto", "ledger", "serializer", "utility")
STABLE = "BINDER_STABILITY_SUPPORT"
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


def check_bp(modules):
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
        read(path) for folder in ("collector", "ipc", "kpi", "ledger", "serializer", "utility")
        for path in glob.glob(f"{folder}/**/*.[ch]*", recursive=True))))
    built = {os.path.splitext(path)[0] for _, module in modules for path in
             listed(module.get("srcs", [])) if path.endswith(".proto")}
    if used != built:
        faults.append(f"Android.bp: builds {sorted(built)}, the product uses {sorted(used)}")


def sources(*folders):
    """{path: text without comments and literals} of the C and C++ files that git has."""
    paths = subprocess.run(["git", "ls-files", "--", *folders], check=True, capture_output=True,
                           text=True).stdout.split()
    noise = r'//[^\n]*|/\*.*?\*/|"(?:[^"\\\n]|\\.)*"'
    return {path: re.sub(noise, '""', read(path), flags=re.S) for path in paths
            if path.endswith((".c", ".h", ".cpp"))}


def guarded(text):
    """What is compiled only where the build defines STABLE."""
    return "".join(re.findall(rf"#ifdef {STABLE}\n(.*?)#(?:else|endif)", text, re.S))


def check_stability(modules):
    """The HAL's interface passes between vendor and system: only objects that are marked,
    and calls with the flag, get through, and no header of the platform sees to it."""
    for _, module in modules:
        built = listed(module.get("srcs", []))
        if any(path.startswith("ipc/") for path in built):
            flags = merged(modules, module, "cflags")
            if f"-D{STABLE}" not in flags:
                faults.append(f"Android.bp: {module['name']}: cflags lack -D{STABLE}")
    for path in glob.glob(f"{HERE}/aidl/vendor/**/I*.aidl", recursive=True):
        folder, name = os.path.split(os.path.relpath(path, f"{HERE}/aidl"))
        stub = f"ipc/aidl/{folder}/Bn{name[1:-len('.aidl')]}.cpp"
        text = read(stub)
        if not re.search(r"AIBinder_markVintfStability\(\w+\.get\(\)\);", guarded(text)) or \
                "#include <android/binder_stability.h>" not in text:
            faults.append(f"{stub}: its binders are not marked for vendor and system")
    every = sources()
    for path, text in every.items():
        if re.search(rf"#\s*define\s+{STABLE}\b", text):
            faults.append(f"{path}: defines {STABLE}, which is the build's to define")
    for path, text in every.items():
        if not path.startswith(PRODUCT):
            continue
        for flags in re.findall(r"\bAIBinder_transact\([^;]*?,\s*([^,;]+)\);", text):
            if not re.search(rf"\b{flags} = FLAG_PRIVATE_LOCAL;", guarded(text)):
                faults.append(f"{path}: a transaction without FLAG_PRIVATE_LOCAL: {flags}")


def check_names():
    """<utils/Mutex.h> defines the plain names on some releases."""
    names = re.findall(r"#define ORB_(\w+)", read("utility/thread_annotations.h"))
    for path, text in sources().items():
        found = set(re.findall(rf"\b(?:{'|'.join(names)})\b", text))
        if found:
            faults.append(f"{path}: without the prefix ORB_: {', '.join(sorted(found))}")


def check_width(modules):
    """Records that clients hold have layouts with pointers of 8 bytes."""
    for kind, module in modules:
        if kind.startswith("cc_") and kind not in ("cc_defaults", "cc_library_headers") and \
                merged(modules, module, "compile_multilib") != ["64"]:
            faults.append(f'Android.bp: {module["name"]}: not compile_multilib: "64"')
    page = "docs/integration_android.md"
    if 'compile_multilib: "64"' not in read(page):
        faults.append(f'{page}: does not say compile_multilib: "64"')


def check_lookups():
    """A look-up waits for a service manager, for ever if need be, so nobody may hold a
    lock then; but what comes after a function's look at the gate finds one at once, and
    what a thread is started for holds no lock of whoever starts it."""
    bodies = {}
    for path, text in sources("ipc").items():
        text = re.sub(r"^namespace.*", "", text, flags=re.M)
        for head, body in re.findall(r"^(\S[^;{}]*)\{\n(.*?)^\}", text, re.S | re.M):
            name = re.search(r"([\w~]+)\(", head)
            if name:
                body = re.sub(r"\bstd::thread\(\[.*?\n( *)\}\)", "", body, flags=re.S)
                body = re.split(r"\b(?:serviceManager_|halServiceManager_)\.open\(\)", body)[0]
                bodies.setdefault(name[1], []).append((path, body))
    waiting = {"defaultServiceManager", "AServiceManager_checkService",
               "AServiceManager_getService", "AServiceManager_waitForService", "Await"}
    while True:
        calls = rf"\b(?:{'|'.join(sorted(waiting))})\("
        found = {name for name, parts in bodies.items()
                 if any(re.search(calls, body) for _, body in parts)} - waiting
        if not found:
            break
        waiting |= found
    for name, parts in bodies.items():
        for path, body in parts:
            depth, locks = 0, []
            for token in re.findall(rf"[{{}}]|\bMutexLock\b|{calls}", body):
                depth += {"{": 1, "}": -1}.get(token, 0)
                locks = [at for at in locks if at <= depth]
                if token == "MutexLock":
                    locks.append(depth)
                elif token not in "{}" and locks:
                    faults.append(f"{path}: {name} looks services up under a lock: {token[:-1]}")


def merged(modules, module, key):
    """The values of a property, with those of the module's defaults."""
    values = listed(module.get(key, []))
    for _, other in modules:
        if other.get("name") in module.get("defaults", []):
            values = merged(modules, other, key) + values
    return values


def plain_aidl(text):
    """Without comments and imports, one space between words, types with their packages."""
    text = re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.S)
    imports = dict((name.rpartition(".")[2], name) for name in re.findall(r"import ([\w.]+);", text))
    text = re.sub(r"import [\w.]+;", "", text)
    text = re.sub(r"(?<![\w.@])\w+(?![\w.(])", lambda word: imports.get(word[0], word[0]), text)
    return re.sub(r"\s*([^\w@])\s*", r"\1", " ".join(text.split()))


def aidl_files(folder):
    return {os.path.relpath(path, folder): read(path)
            for path in glob.glob(f"{folder}/vendor/**/*.aidl", recursive=True)}


def api_hash(files, version):
    """What the platform's build computes over a version, which it calls by the one before."""
    lines = [f"{hashlib.sha1(files[path].encode()).hexdigest()}  ./{path}\n"
             for path in sorted(files)]
    before = str(version - 1) if version > 1 else "latest-version"
    return hashlib.sha1(("".join(lines) + before + "\n").encode()).hexdigest()


def check_frozen():
    [(_, module)] = parse_bp(read(f"{HERE}/aidl/Android.bp"))
    name, newest = module["name"], {}
    api = f"{HERE}/aidl/aidl_api/{name}"
    for version in [int(info["version"]) for info in module["versions_with_info"]]:
        newest = aidl_files(f"{api}/{version}")
        if not newest or read(f"{api}/{version}/.hash").strip() != api_hash(newest, version):
            faults.append(f"{api}/{version}: does not have its hash: frozen files are not edited")
    stated = [{path: plain_aidl(text) for path, text in files.items()} for files in
              (newest, aidl_files(f"{api}/current"), aidl_files(f"{HERE}/aidl"))]
    if stated[1] != stated[2] or (module["frozen"] and stated[0] != stated[1]):
        faults.append(f"{name}: the sources, `current` and version {version} do not say the same")
    for kind in ("manifest", "compatibility_matrix"):
        path = f"{HERE}/vintf/{kind}_orbsyshal.xml"
        hal = xml.parse(path).getroot().find("hal")
        instance = hal.findtext("fqname") or "/".join(
            hal.findtext(f"interface/{part}") for part in ("name", "instance"))
        service = f"{hal.findtext('name')}.{instance}"
        if hal.findtext("name") != name or hal.findtext("version") != str(version) or \
                f'"{service}"' not in "".join(map(read, glob.glob("ipc/*.cpp"))) or \
                service not in read(f"{HERE}/sepolicy/service_contexts"):
            faults.append(f"{path}: {service} {hal.findtext('version')} is not what the library looks for")


def check_first_boot():
    """Each line of the log on the page is one that the sources can write."""
    formats = re.findall(r'LOG[DIWE]\("((?:[^"\\]|\\.)*)"', "".join(
        read(path) for folder in PRODUCT for path in glob.glob(f"{folder}/*.cpp")))
    known = [re.sub(r"(?:\\)?%(?:\\ )?l*[sdu]", ".+", re.escape(text)) for text in formats]
    page = read("docs/first_boot_android.md")
    lines = re.findall(r"^\d+ +I (.+)$", page, re.M)
    if len(lines) != 10:
        faults.append(f"docs/first_boot_android.md: {len(lines)} lines of the log")
    for line in lines:
        if not any(re.fullmatch(text, line) for text in known):
            faults.append(f"docs/first_boot_android.md: nobody writes: {line}")


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
        modules = parse_bp(read(f"{HERE}/Android.bp"))
        check_bp(modules)
        check_stability(modules)
        check_names()
        check_width(modules)
        check_lookups()
    except ValueError as problem:
        faults.append(str(problem))
    check_frozen()
    check_first_boot()
    paths = [path for path in glob.glob(f"{HERE}/aidl/**/*.aidl", recursive=True)
             if "/aidl_api/" not in path]
    for path in sorted(paths):
        check_aidl(path)
    print(*faults, sep="\n", end="\n" if faults else "")
    return 1 if faults or not paths else 0


if __name__ == "__main__":
    sys.exit(main())
