# SPDX-License-Identifier: Apache-2.0
"""Every command that a page names can be typed: the program is there, and so are its
commands and options. This holds for whole lines and for what stands in the middle of a
sentence, also on the pages whose commands are too long to be run by a test.

usage: commands.py PACKAGING-MANUALS SOURCE-DIRECTORY BUILD-DIRECTORY
"""
import os
import re
import shlex
import subprocess
import sys

sys.path.insert(0, sys.argv[1])
import command_tree  # noqa: E402

SOURCE, BUILD = sys.argv[2:4]
PROGRAMS = ("fw-device", "fw-download", "fw-fleet", "fw-module", "fw-pack", "fw-platform-check", "fw-privileged",
            "fw-trace", "fw-update", "fw-updated")
IN_TREE = re.compile(r"(\./(demo|check|setup|virtual-set)|(bench|tests|build/dev/tests)/[\w./-]+)( |$)")
END = re.compile(r"\s(?:[|;>&]|--\s|\|\||&&).*")
FENCED_TO_READ = ("", "sh", "console")
trees = {}


def pages():
    for directory, _, names in os.walk(os.path.join(SOURCE, "docs")):
        yield from (os.path.join(directory, name) for name in names if name.endswith(".md"))
    yield from (os.path.join(SOURCE, name) for name in os.listdir(SOURCE) if name.endswith(".md"))


def code(path):
    """Line number and text of all that looks like code: lines and spans."""
    fence = None
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip("\n")
            if line.strip().startswith("```"):
                fence = line.strip()[3:] if fence is None else None
            elif fence is not None:
                if fence in FENCED_TO_READ:
                    yield number, line.strip().removeprefix("$ ")
            elif line.startswith("    "):
                yield number, line.strip()
            else:
                yield from ((number, span) for span in re.findall(r"`([^`]+)`", line))


def is_command(text):
    first = text.split(" ")[0]
    return first in PROGRAMS or IN_TREE.match(text) is not None


def commands(text):
    """The commands of a line: one may stand in another, as in fw-device run DIR -- COMMAND."""
    for part in re.split(r" -- |\$\(|&& |\|\| |\| |; |\w+=\S+ (?=fw-)|(?<=device-root run) ", text):
        part = part.strip("\"') ").split(")")[0]
        if is_command(part):
            yield END.sub("", part)


def words_of(command):
    try:
        return shlex.split(command.replace("[", " ").replace("]", " "), comments=True)
    except ValueError:
        return command.split()


def tree_of(program):
    if program not in trees:
        trees[program] = command_tree.find(program, os.path.join(BUILD, "bin"), sys.argv[1])
    return trees[program]


def complaint_of_program(words):
    """Follows the names of commands; every option must be one of those passed."""
    place = tree_of(words[0])
    known = {name for option in place.options for name in option.names} | {"--version"}
    skip = False
    for word in words[1:]:
        if skip:
            skip = False
        elif word.startswith("-"):
            if word not in known:
                return f"there is no option {word}"
            skip = any(word in option.names and option.value for option in place.options)
        elif re.fullmatch(r"[a-z-]+", word) and place.commands:
            below = [command for command in place.commands if command.path[-1] == word]
            if not below:
                return f"there is no command {word}"
            place = below[0]
            known |= {name for option in place.options for name in option.names}
    return None


def complaint_of_tree(words):
    """A script or a test program of this source tree or its build."""
    path = re.sub(r"^build/dev/", BUILD + "/", words[0])
    path = os.path.join(SOURCE, path)
    if not os.path.exists(path):
        return f"there is no {words[0]}"
    options = [word.split("=")[0] for word in words[1:] if word.startswith("--")]
    if not options or not os.access(path, os.X_OK):
        return None
    done = subprocess.run([path, "--help"], capture_output=True, text=True, check=False)
    missing = [option for option in options if option not in done.stdout + done.stderr]
    return f"there is no option {missing[0]}" if missing else None


def complaint_of(command):
    words = words_of(command)
    if words[0] == "fw-download":  # no command of the PATH
        return None
    return complaint_of_program(words) if words[0] in PROGRAMS else complaint_of_tree(words)


found, wrong = 0, []
for page in pages():
    for number, text in code(page):
        for command in commands(text):
            found += 1
            complaint = complaint_of(command)
            if complaint:
                wrong.append(f"{os.path.relpath(page, SOURCE)}:{number}: {command}\n    {complaint}")
print(f"{found} commands")
if wrong or found == 0:
    sys.exit("\n".join(wrong) or "no page names a command")
