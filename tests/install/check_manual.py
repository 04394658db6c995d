#!/usr/bin/env python3
"""usage: check_manual.py SOURCE_DIR PROGRAM...

Asks each program, and each of its commands, for --help: every command and every
long option must be in its manual page, and for orbctl in the completion, too.
"""
import os
import re
import subprocess
import sys


def words_of(program, path=()):
    """Commands and long options, with where they were found."""
    text = subprocess.run([program, *path, "--help"], capture_output=True, text=True,
                          check=True).stdout
    options, _, commands = text.partition("Subcommands:")
    for option in re.findall(r"^ +(?:-\w,)?(--[\w-]+)", options, re.M):
        yield option, path
    for command in re.findall(r"^ {2}([\w-]+)", commands, re.M):
        yield command, path
        yield from words_of(program, (*path, command))


def holds(text, word):
    return re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", text) is not None


def main():
    source, *programs = sys.argv[1:]
    missing, known = [], 0
    for program in programs:
        name = os.path.basename(program)
        section = 8 if name.endswith("d") else 1
        pages = [f"docs/man/{name}.{section}"]
        if name == "orbctl":
            pages.append("packaging/linux/orbctl.bash-completion")
        for page in pages:
            with open(os.path.join(source, page), encoding="utf-8") as file:
                text = re.sub(r"\\f\w|\\", "", file.read())
            for word, path in words_of(program):
                known += 1
                if not holds(text, word):
                    missing.append(f"{page}: no {word} of {' '.join((name, *path))}")
    print(*missing, f"{known} words looked up", sep="\n")
    return 1 if missing or known == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
