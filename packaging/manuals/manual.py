"""Fills a manual page's source with what the program's help texts say.

usage: manual.py NAME PROGRAM-FILE SOURCE.scd.in >PAGE.scd

The line @COMMANDS@ becomes a section for each command with its options,
@OPTIONS@ the options of the program itself, @EXIT-CODES@ the exit codes.
"""
import re
import sys
import textwrap

import help_tree


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
        summary = entry.summary if entry.summary else "See the description."
        yield f"{declared(entry)}\n\t{escaped(summary)}.\n".replace("..\n", ".\n")


def own_options(command):
    return [option for option in command.options if "--help" not in option.names]


def leaves(command):
    if not command.commands:
        yield command
    for sub in command.commands:
        yield from leaves(sub)


def own_footer(command):
    """What a command says beyond the example and the exit codes, as it stands."""
    lines, continued = [], False
    for line in command.footer:
        if line.startswith("Exit codes"):
            break
        if not continued and not line.startswith(("Example:", "Each command")):
            lines.append(line)
        continued = line.endswith("\\")
    return textwrap.dedent("\n".join(lines).strip("\n"))


def verbatim(text):
    text = text.replace("\\", "\\\\")
    return f"```\n{text}\n```\n" if text else ""


def example(command):
    """The example and the lines that continue it."""
    lines = []
    for line in command.footer:
        if line.startswith("Example: "):
            lines = [line[len("Example: "):]]
        elif lines and lines[-1].endswith("\\"):
            lines.append("  " + line.strip())
    return "Example:\n\n" + verbatim("\n".join(lines)) + "\n" if lines else ""


def command_sections(tree):
    for command in leaves(tree):
        yield f"## {escaped(command.usage)}\n\n{escaped(command.summary)}.\n\n"
        yield from (entry + "\n" for entry in entries(command.arguments + own_options(command)))
        yield verbatim(own_footer(command)) + "\n" + example(command)


def exit_codes(tree):
    """One code a line; what the help text says beside the codes follows as text."""
    start = next(i for i, line in enumerate(tree.footer) if line.startswith("Exit codes"))
    codes, remarks = [], []
    for line in [tree.footer[start][len("Exit codes:"):], *tree.footer[start + 1:]]:
        parts = re.split(r"[,;]?\s+(?=\d)|;$", " " + line)[1 if line.strip()[:1].isdigit() else 0:]
        if all(re.match(r"\d+ ", part) for part in parts if part.strip()):
            codes += [part for part in parts if part.strip()]
        else:
            remarks.append(line.strip())
    return verbatim("\n".join(codes)) + "".join(f"\n{escaped(remark)}\n" for remark in remarks)


def main():
    name, program, source = sys.argv[1:4]
    tree = help_tree.read(program, [name])
    parts = {
        "@COMMANDS@\n": lambda: "".join(command_sections(tree)),
        "@OPTIONS@\n": lambda: "\n".join(entries(tree.options)),
        "@EXIT-CODES@\n": lambda: exit_codes(tree),
    }
    with open(source, encoding="utf-8") as file:
        for line in file:
            sys.stdout.write(parts[line]() if line in parts else line)


if __name__ == "__main__":
    main()
