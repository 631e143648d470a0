# SPDX-License-Identifier: Apache-2.0
"""Every help text of every command fits a screen of 80 columns and 24 lines, has an
example, and names what the program's table has: usage, options and exit codes. Pages that
are written by hand name every option, and none that is not there.

usage: help-texts.py PACKAGING-MANUALS PROGRAMS PAGES
"""
import os
import re
import subprocess
import sys

sys.path.insert(0, sys.argv[1])
import command_tree  # noqa: E402

MANUALS, PROGRAMS, PAGES = sys.argv[1:4]
LINES, COLUMNS = 24, 80
DESCRIBES_NOTHING = ("fw-privileged",)


def help_of(program, words):
    done = subprocess.run([os.path.join(PROGRAMS, program), *words, "--help"],
                          capture_output=True, text=True, check=True)
    return done.stdout


def layout(name, text):
    lines = text.splitlines()
    if len(lines) > LINES:
        yield f"{name}: {len(lines)} lines"
    for line in lines:
        if len(line) > COLUMNS:
            yield f"{name}: {len(line)} columns: {line}"
    if "Example: " not in text and "Each command explains itself: " not in text:
        yield f"{name}: no example"


def content(name, command, outcomes, text):
    if f"Usage: {command.usage}\n" not in text and not command.commands:
        yield f"{name}: its usage is not {command.usage}"
    for option in command.options:
        declared = ",".join(option.names) + (f" {option.value}" if option.value else "")
        if declared not in text:
            yield f"{name}: no {declared}"
    for outcome in outcomes:
        if f"{outcome['exitCode']} {outcome['meaning']}" not in text:
            yield f"{name}: no exit code {outcome['exitCode']}"


def complaints(program):
    tree = command_tree.find(program, PROGRAMS, MANUALS)
    for command in command_tree.all_commands(tree):
        name = " ".join(command.path)
        text = help_of(program, command.path[1:])
        yield from layout(name, text)
        if program not in DESCRIBES_NOTHING:
            yield from content(name, command, tree.outcomes, text)
    if program in DESCRIBES_NOTHING:
        named = set(re.findall(r"--[\w-]+", help_of(program, [])))
        described = {name for option in tree.options for name in option.names}
        yield from (f"{program}: {name}" for name in named ^ described)


def page_complaints(program, page):
    """Of a page that is written by hand."""
    tree = command_tree.find(program, PROGRAMS, MANUALS)
    with open(os.path.join(PAGES, page), encoding="utf-8") as file:
        named = set(re.findall(r"--[a-z][\w-]+", file.read()))
    options = {name for option in tree.options for name in option.names if name.startswith("--")}
    yield from (f"{page}: {name}" for name in named ^ options)


programs = [name for name in sorted(os.listdir(PROGRAMS)) if name.startswith("fw-")]
wrong = [line for program in programs for line in complaints(program)]
wrong += page_complaints("fw-platform-check", "fw-platform-check.1.scd")
sys.exit("\n".join(wrong) or None)
