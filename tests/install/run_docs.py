#!/usr/bin/env python3
"""usage: run_docs.py SOURCE_DIR BUILD_DIR

Runs the commands of the documents as a reader would: the ```sh blocks of one
page, in order, in one shell that stops at the first failure, in a directory of
their own. A block behind a line "<!-- not run: WHY -->" is left out.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

SECONDS_MAX = 50
# Page, heading to begin and end at (None: the whole page), and what the output
# must match.
PAGES = [
    ("docs/quickstart.md", None, r"(?s)1001.*counter"),
    ("README.md", "By hand", r"(?s)1004.*counter.*\b6 stored"),
]


def blocks(text):
    """(commands, why they are not run or None) of each ```sh block."""
    pattern = r"(?:^<!-- not run: (.*?) -->\n+)?^```sh\n(.*?)^```$"
    return [(m[2], m[1]) for m in re.finditer(pattern, text, re.M | re.S)]


def section(text, heading):
    if heading is None:
        return text
    return re.search(rf"^## {re.escape(heading)}$(.*?)(?=^## |\Z)", text, re.M | re.S)[1]


def install(build, prefix):
    for component in ("sdk", "sdk_dev", "services", "tools"):
        subprocess.run(["cmake", "--install", build, "--prefix", prefix, "--component", component],
                       check=True, stdout=subprocess.DEVNULL)


def run(page, script, directory, home):
    """The output; raises when a command fails. Nothing it started stays behind."""
    env = {k: v for k, v in os.environ.items() if not k.startswith(("ORB_", "XDG_", "DBUS_"))}
    env["HOME"] = home
    with tempfile.TemporaryFile("w+") as log:  # No pipe: what it started would hold it open.
        shell = subprocess.Popen(["bash", "-euo", "pipefail", "-c", script], cwd=directory,
                                 env=env, stdin=subprocess.DEVNULL, stdout=log,
                                 stderr=subprocess.STDOUT, start_new_session=True)
        try:
            result = shell.wait(SECONDS_MAX)
        except subprocess.TimeoutExpired:
            result = f"no end within {SECONDS_MAX} s"
        finally:
            try:
                os.killpg(shell.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            shell.wait()
        log.seek(0)
        output = log.read()
    if result != 0:
        raise RuntimeError(f"{page}: ended with {result}\n{output}")
    return output


def check(source, build, page, heading, want):
    # Short, because a bus's path may have some hundred characters only.
    directory = tempfile.mkdtemp(prefix="orb-docs-")
    try:
        with open(os.path.join(source, page), encoding="utf-8") as file:
            found = blocks(section(file.read(), heading))
        commands = [text for text, why in found if why is None]
        if not commands:
            raise RuntimeError(f"{page}: no commands found")
        work = os.path.join(directory, "w")
        os.mkdir(work)
        if heading is None:
            install(build, os.path.join(directory, "orb"))
        else:  # A page about the tree: what it names of it is there.
            os.symlink(os.path.join(source, "examples"), os.path.join(work, "examples"))
            os.mkdir(os.path.join(work, "build"))
            os.symlink(build, os.path.join(work, "build", "release"))
        trace = "trap 'tail -n 20 *.log run/*.log 2>/dev/null' ERR\n"
        output = run(page, trace + "\n".join(commands), work, directory)
        if not re.search(want, output):
            raise RuntimeError(f"{page}: no {want} in the output\n{output}")
        print(f"{page}: {len(commands)} blocks ran, {len(found) - len(commands)} not")
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def main():
    source, build = map(os.path.abspath, sys.argv[1:3])
    for page, heading, want in PAGES:
        check(source, build, page, heading, want)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (RuntimeError, subprocess.CalledProcessError) as problem:
        print(problem, file=sys.stderr)
        sys.exit(1)
