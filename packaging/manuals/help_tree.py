"""Reads a program's help texts, its own and those of its commands, into one tree.

The help texts are made from the tables that the programs parse their arguments
with; what is made from this tree therefore cannot name an option that is not there.
"""
import re
import subprocess
from dataclasses import dataclass, field

# "  -o,--output FILE REQUIRED   What it is", or the same without a description yet.
ENTRY = re.compile(r"^  (\S.*?)(?:\s{2,}(\S.*)|(?<=REQUIRED) (\S.*))?$")
WORD = r"[\w.+-]+"
WORD_LIST = re.compile(rf"^(?:[^:]*: )?((?:{WORD}, )+{WORD}(?: or {WORD})?|{WORD} or {WORD})(?:; default: .*)?$")


@dataclass
class Option:
    """An option, or an argument when it has no names."""
    names: list
    value: str          # what stands for its value; empty for a flag
    summary: str
    required: bool = False
    choices: list = field(default_factory=list)


@dataclass
class Command:
    path: list
    summary: str
    usage: str
    options: list = field(default_factory=list)
    arguments: list = field(default_factory=list)
    commands: list = field(default_factory=list)
    footer: list = field(default_factory=list)


def read(program, path):
    """The tree of the program at that file, called by the first name of path."""
    command, names = parse(help_text(program, path[1:]), path)
    command.commands = [read(program, path + [name]) for name in names]
    return command


def help_text(program, words):
    done = subprocess.run([program, *words, "--help"], capture_output=True, text=True, check=True)
    return done.stdout


def parse(text, path):
    """One help text as a command, and the names of the commands below it."""
    lines = text.splitlines()
    at = next(i for i, line in enumerate(lines) if line.startswith("Usage: "))
    command = Command(path, " ".join(lines[:at]), lines[at][len("Usage: "):])
    names, section, entry = [], "options", None
    for line in lines[at + 1:]:
        if line in ("Positionals:", "Options:", "Subcommands:"):
            section = "commands" if line == "Subcommands:" else "options"
        elif section == "footer" or (line and not line.startswith(" ")):
            section = "footer"
            command.footer.append(line)
        elif line.startswith("      ") and entry is not None:
            entry.summary = (entry.summary + " " + line.strip()).strip()
        elif line.startswith("  "):
            first, summary, after_required = ENTRY.match(line).groups()
            if section == "commands":
                names.append(first)
            else:
                entry = option(first, summary or after_required or "")
                (command.options if entry.names else command.arguments).append(entry)
    for each in command.options + command.arguments:
        each.choices = choices(each, command.footer)
    return command, names


def option(declaration, summary):
    words = [w for w in declaration.split() if not w.startswith("--") or w == declaration.split()[0]]
    required = "REQUIRED" in words
    words = [w.split("=")[0] for w in words if w not in ("REQUIRED", "Excludes:", "Needs:")]
    if words[0].startswith("-"):
        return Option(words[0].split(","), words[1] if len(words) > 1 else "", summary, required)
    return Option([], words[0].rstrip("."), summary, required)


def choices(entry, footer):
    """The words that the value can be, where the help text names them."""
    if entry.value and entry.value.islower():
        return [entry.value]
    if entry.names == ["--caller"]:
        start = next(i for i, line in enumerate(footer) if line.startswith("Callers"))
        ends = next(i for i, line in enumerate(footer) if i > start and not line.startswith("  "))
        return [line.split()[0] for line in footer[start + 1:ends]]
    listed = WORD_LIST.match(entry.summary) if entry.value else None
    return re.split(r", | or ", listed.group(1)) if listed else []
