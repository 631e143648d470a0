# SPDX-License-Identifier: Apache-2.0
"""Reads what a program says of its commands and options (PROGRAM --describe) into a tree.

It is the table that the program parses its arguments with; what is made from this tree
therefore cannot name an option that is not there.
"""
import json
import os
import subprocess
from dataclasses import dataclass, field


@dataclass
class Option:
    """An option, or an argument when it has no names."""
    names: list
    value: str          # what stands for its value; empty for a flag
    summary: str
    required: bool
    many: bool
    words: list         # all that the value can be; empty: anything
    completes: str      # files, directories, modules, groups or nothing


@dataclass
class Command:
    path: list
    summary: str
    usage: str
    remark: str
    example: str = ""
    takes_program: bool = False
    options: list = field(default_factory=list)
    arguments: list = field(default_factory=list)
    commands: list = field(default_factory=list)
    outcomes: list = field(default_factory=list)
    exit_code_remark: str = ""


def read(program):
    """The tree of the program at that path. A file *.json holds the description itself."""
    if program.endswith(".json"):
        with open(program, encoding="utf-8") as file:
            return command(json.load(file), [])
    done = subprocess.run([program, "--describe"], capture_output=True, text=True, check=True)
    return command(json.loads(done.stdout), [])


def find(name, programs, descriptions):
    """The tree of a program in that directory, or of one that does not describe itself."""
    described = os.path.join(descriptions, name + ".json")
    return read(described if os.path.exists(described) else os.path.join(programs, name))


def command(described, above):
    path = above + [described["name"]]
    return Command(
        path, described["summary"], described["usage"], described["remark"],
        described.get("example", ""), described.get("takesProgram", False),
        [option(each) for each in described["options"]], [option(each) for each in described["arguments"]],
        [command(each, path) for each in described["commands"]],
        described.get("outcomes", []), described.get("exitCodeRemark", ""))


def option(described):
    return Option(described["names"], described["value"], described["summary"], described["required"],
                  described["many"], described["words"], described["completes"])


def all_commands(tree):
    yield tree
    for below in tree.commands:
        yield from all_commands(below)
