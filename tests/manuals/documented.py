# SPDX-License-Identifier: Apache-2.0
"""Runs what a page of the documents says to type, and compares what it says is printed.

usage: documented.py BUILD-DIRECTORY PAGE (host|device)

A block marked sh is run as it stands, and each of its commands must succeed. In a block
marked console the lines after "$ " are run, and the lines after each must be what it
prints: numbers may differ, the order of lines too, and "..." stands for lines that are
left out. A line "<!-- first: COMMAND -->" prepares what a page does not show. All blocks
of a page run one after the other, in a directory of their own; with "device", on a device
of their own. /tmp/tv is replaced by a directory of the test.
"""
import os
import re
import subprocess
import sys
import tempfile

MARK = "--documented--"


class Step:
    def __init__(self, line, command, expected):
        self.line, self.command, self.expected = line, command, expected


def steps(page):
    """What the page says to run; expected is None where only success is promised."""
    found, kind, begin, block = [], None, 0, []
    with open(page, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip("\n")
            line = line.strip() if line.strip().startswith("```") else line
            hidden = re.match(r"<!-- first: (.*) -->$", line)
            if hidden:
                found.append(Step(number, hidden[1], None))
            elif line.startswith("```"):
                if kind == "sh":
                    found.append(Step(begin, "\n".join(block), None))
                elif kind == "console":
                    found += console_steps(begin, block)
                kind, begin, block = (line[3:] or "text", number + 1, []) if kind is None else (None, 0, [])
            elif kind is not None:
                block.append(line)
    return found


def console_steps(begin, block):
    found = []
    for number, line in enumerate(block, begin):
        if line.startswith("$ "):
            found.append(Step(number, line[2:], []))
        elif found and found[-1].command.endswith("\\") and not found[-1].expected:
            found[-1].command += "\n" + line
        elif found:
            found[-1].expected.append(line)
    return found


def script(todo):
    lines = ["exec 2>&1", "export NO_COLOR=1"]
    for number, step in enumerate(todo):
        # Every command of a block counts, not the last alone.
        lines += [f"echo {MARK} {number}", "documented=0", "trap 'documented=$?' ERR", step.command, "trap - ERR",
                  f"echo; echo {MARK} exit $documented"]
    return "\n".join(lines) + "\n"


def comparable(line):
    line = re.sub(r"0x[0-9A-F]+|\b[0-9a-f]{16,}\b", "N", line)
    line = re.sub(r"\d+([.:]\d+)*( (ms|s|us)\b)?", "N", line)
    return re.sub(r"\s+", " ", line).strip()


def as_lines(lines):
    return {comparable(line) for line in lines if line.strip()}


def complaint(step, printed, code):
    if step.expected is None:
        return "" if code == 0 else f"exit code {code}"
    expected, actual = as_lines(step.expected), as_lines(printed)
    partly = "..." in expected
    expected.discard("...")
    missing, unexpected = expected - actual, set() if partly else actual - expected
    return "".join([f"\n    not printed: {line}" for line in sorted(missing)]
                   + [f"\n    not promised: {line}" for line in sorted(unexpected)])


def answers(output):
    """Number of the step -> its lines and exit code."""
    found, number, lines = {}, None, []
    for line in output.splitlines():
        if line.startswith(f"{MARK} exit "):
            found[number] = (lines, int(line.split()[-1]))
        elif line.startswith(MARK):
            number, lines = int(line.split()[-1]), []
        else:
            lines.append(line)
    return found


def start(programs, work, place, text):
    with open(os.path.join(work, "commands"), "w", encoding="utf-8") as file:
        file.write(text.replace("/tmp/tv", os.path.join(work, "tv")))
    command = ["bash", os.path.join(work, "commands")]
    if place == "device":
        device = os.path.join(work, "device")
        fw_device = os.path.join(programs, "fw-device")
        subprocess.run([fw_device, "init", device], check=True, stdout=subprocess.DEVNULL)
        command = [fw_device, "run", "--writable", work, device, "--"] + command
    environment = dict(os.environ, PATH=programs + ":" + os.environ["PATH"])
    directory = os.path.join(work, "here")
    os.mkdir(directory)
    return subprocess.run(command, cwd=directory, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, text=True, errors="replace", check=False).stdout


def main():
    build, page, place = sys.argv[1:4]
    todo = steps(page)
    if not todo:
        sys.exit(f"{page} says nothing to run")
    with tempfile.TemporaryDirectory() as work:
        output = start(os.path.realpath(os.path.join(build, "bin")), work, place, script(todo))
        output = output.replace(os.path.join(work, "tv"), "/tmp/tv")
    done = answers(output)
    wrong = 0
    for number, step in enumerate(todo):
        printed, code = done.get(number, ([], "none: not reached"))
        why = complaint(step, printed, code) if number in done else "it was not reached"
        if why:
            wrong += 1
            print(f"{os.path.basename(page)}:{step.line}: {step.command}\n    {why.strip()}")
            print("    printed:", *printed, sep="\n      ")
    print(f"{len(todo) - wrong} of {len(todo)} commands did what the page says")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
