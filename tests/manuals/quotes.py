# SPDX-License-Identifier: Apache-2.0
"""What a page says that a program prints, a program does print.

usage: quotes.py PAGE SOURCE-DIRECTORY

In the tables of the page the first column quotes sentences; "…" stands for names and
numbers. Each piece between them has to stand in the sources.
"""
import os
import re
import sys

PAGE, SOURCE = sys.argv[1:3]
FOREIGN = ("Read-only file system",)  # what the system says
IGNORED = ("build", "tests", "docs", ".git")


def sources():
    for directory, names, files in os.walk(SOURCE):
        if directory == SOURCE:
            names[:] = [name for name in names if name not in IGNORED]
        yield from (os.path.join(directory, name) for name in files if name.endswith((".cpp", ".h")))


def text_of_sources():
    """All that the sources hold, with literals of several lines put together."""
    parts = []
    for path in sources():
        with open(path, encoding="utf-8") as file:
            parts.append(re.sub(r'"\s*\n\s*"', "", file.read()).replace('\\"', '"'))
    return "\n".join(parts)


def quotes():
    with open(PAGE, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            cell = line.split(" | ")[0].removeprefix("| ")
            quoted = re.match(r'"(.*)"', cell)
            if line.startswith("| ") and quoted and quoted[1] not in FOREIGN:
                yield number, quoted[1]


said, count, wrong = text_of_sources(), 0, []
for number, quote in quotes():
    count += 1
    wrong += [f"{os.path.basename(PAGE)}:{number}: nobody says: {piece}"
              for piece in re.split("…", quote) if piece.strip(' ".:') and piece not in said]
print(f"{count} quotes")
if wrong or count == 0:
    sys.exit("\n".join(wrong) or "the page quotes nothing")
