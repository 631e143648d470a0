# SPDX-License-Identifier: Apache-2.0
"""Fills a manual page's source with what the program says of itself.

usage: manual.py PROGRAM SOURCE.scd.in >PAGE.scd

The line @COMMANDS@ becomes a section for each command with its options, @SYNOPSIS@ the
ways to call a program without commands, @OPTIONS@ the options of the program itself,
@EXIT-CODES@ the exit codes.
"""
import sys
import textwrap

import command_tree


def escaped(text):
    for mark in "\\_*<>#":
        text = text.replace(mark, "\\" + mark)
    return text


def declared(entry):
    names = ", ".join(f"*{escaped(name)}*" for name in entry.names)
    value = f"_{escaped(entry.value)}_" if entry.value else ""
    return " ".join(part for part in (names, value) if part)


def entries(options):
    for entry in options:
        yield f"{declared(entry)}\n\t{escaped(entry.summary)}.\n".replace("..\n", ".\n")


def own_options(command):
    return [option for option in command.options if "--help" not in option.names]


def leaves(command):
    if not command.commands:
        yield command
    for sub in command.commands:
        yield from leaves(sub)


def verbatim(text):
    text = text.replace("\\", "\\\\")
    return f"```\n{text}\n```\n" if text else ""


def example(command):
    """The example and the lines that continue it."""
    lines = command.example.splitlines()
    text = "\n".join(lines[:1] + ["  " + line.strip() for line in lines[1:]])
    return "Example:\n\n" + verbatim(text) + "\n" if text else ""


def command_sections(tree):
    for command in leaves(tree):
        yield f"## {escaped(command.usage)}\n\n{escaped(command.summary)}.\n\n"
        yield from (entry + "\n" for entry in entries(command.arguments + own_options(command)))
        yield verbatim(textwrap.dedent(command.remark.strip("\n"))) + "\n" + example(command)


def synopsis(tree):
    return f"*{escaped(tree.path[0])}*{escaped(tree.usage[len(tree.path[0]):])}\n"


def exit_codes(tree):
    """One code a line; the remark follows as text."""
    codes = [f"{each['exitCode']} {each['meaning']}" for each in tree.outcomes if each["meaning"]]
    remark = f"\n{escaped(tree.exit_code_remark)}.\n" if tree.exit_code_remark else ""
    return verbatim("\n".join(codes)) + remark[:1] + remark[1:2].upper() + remark[2:]


def main():
    program, source = sys.argv[1:3]
    tree = command_tree.read(program)
    parts = {
        "@COMMANDS@\n": lambda: "".join(command_sections(tree)),
        "@SYNOPSIS@\n": lambda: synopsis(tree),
        "@OPTIONS@\n": lambda: "\n".join(entries(tree.arguments + tree.options)),
        "@EXIT-CODES@\n": lambda: exit_codes(tree),
    }
    with open(source, encoding="utf-8") as file:
        for line in file:
            sys.stdout.write(parts[line]() if line in parts else line)


if __name__ == "__main__":
    main()
