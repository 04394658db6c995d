#!/usr/bin/env python3
"""Every text that the library logs has a row in docs/operations.md.

A row's first cell holds the texts between backquotes, an ellipsis for what varies.
One line per text that no row has; exit 1 when there is any.
"""
import pathlib
import re
import sys

FOLDERS = ["collector", "kpi", "ledger", "serializer", "crypto", "ipc", "utility", "platform/linux"]
CALL = re.compile(r'\bLOG[VDIWE]\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)[,)]')
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
CONVERSION = re.compile(r"% ?[-+0#]*[0-9.]*(?:hh|h|ll|l|z)?[a-zA-Z]")
LETTERS_MIN = 4  # A pattern of fewer would stand for any text.


def documented():
    text = pathlib.Path("docs/operations.md").read_text().split("## Log messages")[1]
    cells = [line.split(" | ")[0] for line in text.splitlines() if line.startswith("| ")]
    for pattern in (p for cell in cells for p in re.findall(r"`([^`]*)`", cell)):
        if len(re.findall("[A-Za-z]", pattern)) >= LETTERS_MIN:
            yield re.compile(".*".join(map(re.escape, pattern.split("…"))))


def logged():
    for folder in FOLDERS:
        for path in sorted(pathlib.Path(folder).rglob("*.cpp")):
            for call in CALL.finditer(path.read_text()):
                text = "".join(LITERAL.findall(call.group(1)))
                text = CONVERSION.sub("…", re.sub(r"\\[rn]", "", text)).strip()
                # A line made elsewhere is no text of its own.
                if text != "…":
                    yield path, text


def main():
    patterns = list(documented())
    missing = [(path, text) for path, text in logged()
               if not any(p.fullmatch(text) for p in patterns)]
    for path, text in missing:
        print(f"{path}: no row of docs/operations.md has `{text}`")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
