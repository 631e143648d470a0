# SPDX-License-Identifier: Apache-2.0
"""Checks that docs/promises.md names tests and steps that exist.

usage: promises.py BUILD-DIRECTORY SOURCE-DIRECTORY CTEST
"""
import fnmatch
import json
import pathlib
import re
import subprocess
import sys


def tests_of(build, ctest):
    shown = subprocess.run([ctest, "--test-dir", build, "--show-only=json-v1"], check=True,
                           stdout=subprocess.PIPE)
    return [test["name"] for test in json.loads(shown.stdout)["tests"]]


def promises_in(page):
    """(promise, held by) of each line of the page's tables of promises."""
    in_table = False
    for line in page.read_text(encoding="utf-8").splitlines():
        cells = [cell.strip() for cell in line.split("|")[1:-1]]
        if not cells or cells[0] == "promise":
            in_table = bool(cells)
        elif in_table and not set(cells[0]) <= set("-"):
            yield cells[0], cells[1]


def unknown_in(holders, tests, steps):
    for name in re.findall(r"step `([^`]+)`", holders):
        if name not in steps:
            yield f"there is no step {name}"
    for pattern in re.findall(r"`([^`]+)`", re.sub(r"step `[^`]+`( \(`[^`]+`\))?", "", holders)):
        if not fnmatch.filter(tests, pattern):
            yield f"there is no test {pattern}"


def main():
    build, source, ctest = sys.argv[1:]
    source = pathlib.Path(source)
    tests = tests_of(build, ctest)
    steps = [path.name.split("-", 1)[1] for path in (source / "tests/steps").iterdir()]
    promises = list(promises_in(source / "docs/promises.md"))
    wrong = [f"{promise}: {text}" for promise, holders in promises
             for text in unknown_in(holders, tests, steps)]
    wrong += [f"{promise}: held by nothing" for promise, holders in promises if not holders]
    if len(promises) < 10:
        wrong.append(f"only {len(promises)} promises were found")
    print("\n".join(wrong) or f"{len(promises)} promises, each held by what exists")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
