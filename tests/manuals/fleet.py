# SPDX-License-Identifier: Apache-2.0
"""The page about fleets has a row for every setting, state and permission that the program has, and no other.

usage: fleet.py SOURCES
"""
import pathlib
import re
import sys


def table_of(source, name):
    """The first text of each row, or each text, of a table of the sources."""
    table = re.search(name + r"\[?\]?[^=]*= ?\{(.*?)\};", source, re.DOTALL)[1]
    rows = re.findall(r'\{"([^"]+)"', table)
    return rows or re.findall(r'"([^"]+)"', table)


def rows_of(page, first):
    """What stands in the first column of the table with that head."""
    table = re.search(r"\| " + first + r" \|.*\n\|[-|]+\|\n((?:\|.*\n)+)", page)[1]
    return [name for row in table.splitlines() for name in re.findall(r"`([^`]+)`", row.split("|")[1])]


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / "docs/fleet.md").read_text(encoding="utf-8")
    fleet = root / "services/fw-fleet"
    configuration = (fleet / "configuration/configuration.cpp").read_text(encoding="utf-8")
    status = (fleet / "status/status.cpp").read_text(encoding="utf-8")
    bus = (fleet / "bus/fleet-bus.cpp").read_text(encoding="utf-8")
    states = page.split("## What each state means")[1]
    wrong = []
    for what, program, explained in (
            ("settings", table_of(configuration, "kSettings"), rows_of(page, "setting")),
            ("states of actions", table_of(status, "kEndings"), rows_of(states, "state")),
            ("states of components", table_of(status, "kStages"), rows_of(states.split("Of a component")[1], "state")),
            ("permissions", re.findall(r'"(org\.fwupdate\.fleet1\.[a-z]+)"', bus), rows_of(page, "action of polkit"))):
        if not program or sorted(program) != sorted(explained):
            wrong.append(f"{what}: the program has {sorted(program)}, the page {sorted(explained)}")
    print("\n".join(wrong))
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
