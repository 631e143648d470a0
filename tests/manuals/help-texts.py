"""Every help text of every command fits a screen of 80 columns and 24 lines, and has
an example.

usage: help-texts.py PACKAGING-MANUALS PROGRAMS
"""
import os
import sys

sys.path.insert(0, sys.argv[1])
import help_tree  # noqa: E402

LINES, COLUMNS = 24, 80


def commands(program, path):
    text = help_tree.help_text(program, path[1:])
    yield path, text
    _, names = help_tree.parse(text, path)
    for name in names:
        yield from commands(program, path + [name])


def complaints(program):
    for path, text in commands(program, [os.path.basename(program)]):
        name = " ".join(path)
        lines = text.splitlines()
        if len(lines) > LINES:
            yield f"{name}: {len(lines)} lines"
        for line in lines:
            if len(line) > COLUMNS:
                yield f"{name}: {len(line)} columns: {line}"
        if "Example: " not in text and "Each command explains itself: " not in text:
            yield f"{name}: no example"


programs = [os.path.join(sys.argv[2], name) for name in sorted(os.listdir(sys.argv[2]))
            if name.startswith("fw-")]
wrong = [line for program in programs for line in complaints(program)]
sys.exit("\n".join(wrong) or None)
