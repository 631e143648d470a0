# SPDX-License-Identifier: Apache-2.0
"""Two results side by side: what got worse. Only figures are judged, because they are
ratios of one run; single times depend on the machine and on what else it did."""
from dataclasses import dataclass

from report import quantity
from results import Figure

TOLERANCE = 1.15

# Of machines: what ratios depend on.
DECISIVE = ("Processor", "Cores", "Features used", "File system of the updates", "Build")

WORSE, UNSURE, GONE = "worse", "perhaps worse", "gone"


@dataclass
class Row:
    before: Figure | None
    after: Figure | None
    verdict: str  # empty when there is nothing to say

    @property
    def counts(self):
        return self.verdict in (WORSE, GONE)

    @property
    def what(self):
        return (self.after or self.before).what

    @property
    def change(self):
        """The new median to the old one."""
        if not (measured(self.before) and measured(self.after)):
            return None
        return self.after.median / self.before.median


def measured(figure):
    return figure is not None and bool(figure.values)


def verdict_of(before, after):
    if after is None:
        return GONE
    if not (measured(before) and measured(after)) or after.median <= TOLERANCE * before.median:
        return ""
    # Where even the best repetition is above the old median it was no slow moment.
    return WORSE if min(after.values) > before.median else UNSURE


def compare(before, after):
    """One row for each figure, of the topics that the new results have."""
    topics = {figure.topic for figure in after.figures} | set(after.failures)
    old = {figure.what: figure for figure in before.figures if figure.topic in topics}
    new = {figure.what: figure for figure in after.figures}
    return [Row(old.get(what), new.get(what), verdict_of(old.get(what), new.get(what)))
            for what in dict.fromkeys([*old, *new])]


def compared(rows):
    return sum(row.change is not None for row in rows)


def cell(item):
    return quantity(item.median, item.unit) if item is not None and item.values else "-"


def table(lines):
    """Aligned columns; the last one is as long as it likes."""
    widths = [max(len(line[column]) for line in lines) for column in range(len(lines[0]) - 1)]
    return ["  ".join([*(text.rjust(width) for text, width in zip(line, widths)), line[-1]]).rstrip() for line in lines]


def machine_notes(before, after):
    return [f"another machine: {name} was {before.machine.get(name, 'not noted')}, is {after.machine.get(name, 'not noted')}"
            for name in DECISIVE if before.machine.get(name) != after.machine.get(name)]


def figure_lines(rows):
    return [("before", "after", "change", "what"),
            *((cell(row.before), cell(row.after), "-" if row.change is None else f"{row.change:.2f}", row.what)
              for row in rows)]


def time_lines(before, after):
    new = {(found.topic, found.what): found for found in after.measurements}
    common = [found for found in before.measurements if (found.topic, found.what) in new]
    return [("before", "after", "what"),
            *((cell(found), cell(new[found.topic, found.what]), f"{found.topic}: {found.what}") for found in common)]


def closing(rows):
    named = [f"{row.verdict}: {row.what}" for row in rows if row.verdict]
    worse = sum(row.verdict == WORSE for row in rows)
    return [*named, f"{compared(rows)} figures compared, {worse} worse by more than {100 * (TOLERANCE - 1):.0f} %"]


def text(before, after, rows, with_times):
    lines = [*machine_notes(before, after), *table(figure_lines(rows))]
    if with_times:
        lines += ["", *table(time_lines(before, after))]
    return [*lines, "", *closing(rows)]
