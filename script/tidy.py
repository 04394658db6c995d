"""Runs clang-tidy over the product's sources, several at a time.

usage: tidy.py BUILD_DIR [FILE...]

BUILD_DIR has compile_commands.json and the generated headers. A file that was
clean is skipped until it, a header of the project that it includes, its command
or .clang-tidy changes: BUILD_DIR/tidy remembers that. Exit 1 on a finding.
"""

import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys

FOLDERS = tuple(
    name + os.sep
    for name in "utility crypto ledger kpi serializer ipc collector platform reader services tools".split())
INCLUDE = re.compile(rb'^\s*#\s*include\s*["<]([^">]+)[">]', re.M)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def commands(build):
    """{source below the root: its command}; of several targets the first counts, but no
    test, which has headers that g++ has precompiled.
    """
    out = {}
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        for entry in json.load(file):
            path = os.path.relpath(entry["file"])
            if (path.startswith(FOLDERS) and path.endswith(".cpp") and
                    "cmake_pch" not in entry["command"]):
                out.setdefault(path, entry)
    return out


def include_folders(entry):
    words = shlex.split(entry["command"])
    folders = [word[2:] for word in words if word.startswith("-I")]
    folders += [words[i + 1] for i, word in enumerate(words) if word == "-isystem"]
    root = os.getcwd() + os.sep
    return [folder for folder in folders if (folder + os.sep).startswith(root)]


def fingerprint(path, entry, base):
    """A digest of all that the result depends on, but for the system's headers."""
    folders = include_folders(entry)
    digest = base.copy()
    digest.update(entry["command"].encode())
    seen = set()
    waiting = [path]
    while waiting:
        file = os.path.normpath(waiting.pop())
        if file in seen:
            continue
        seen.add(file)
        content = read(file)
        digest.update(content)
        for name in INCLUDE.findall(content):
            name = name.decode()
            candidates = [os.path.join(os.path.dirname(file), name)]
            candidates += [os.path.join(folder, name) for folder in folders]
            waiting += [c for c in candidates if os.path.isfile(c)][:1]
    return digest.hexdigest()


def tidy(folder, path):
    """clang-tidy's findings by the commands in `folder`; empty when there are none."""
    run = subprocess.run(["clang-tidy", "--quiet", "-p", folder, path],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if run.returncode == 0:
        return ""
    return run.stdout.strip() or run.stderr.strip() or f"{path}: clang-tidy failed"


def main():
    build = sys.argv[1]
    memory = os.path.join(build, "tidy")
    os.makedirs(memory, exist_ok=True)
    known = commands(build)
    # clang-tidy would look at a file once for each of its commands.
    with open(os.path.join(memory, "compile_commands.json"), "w", encoding="utf-8") as file:
        json.dump(list(known.values()), file)
    base = hashlib.sha256(read(".clang-tidy"))
    base.update(subprocess.check_output(["clang-tidy", "--version"]))
    wanted = {os.path.relpath(file) for file in sys.argv[2:]} or known
    waiting = {}
    for path, entry in known.items():
        clean = os.path.join(memory, fingerprint(path, entry, base))
        if path in wanted and not os.path.exists(clean):
            waiting[path] = clean
    bad = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for path, findings in zip(waiting, pool.map(lambda p: tidy(memory, p), waiting)):
            if findings:
                print(findings, flush=True)
                bad += 1
            else:
                open(waiting[path], "w", encoding="utf-8").close()
    print(f"clang-tidy: {len(waiting)} of {len(known)} files checked, {bad} with findings")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
