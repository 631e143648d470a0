# SPDX-License-Identifier: Apache-2.0
"""Mutants that change nothing, and why: reading explained.txt.

An explanation is a line "FILE: reason", perhaps continued on lines with two blanks in front,
followed by the line as it is, behind "-", and the line as the mutant has it, behind "+". How
far they are indented does not matter. "#" begins a comment.
"""
import dataclasses


class Malformed(Exception):
    pass


@dataclasses.dataclass
class Explanation:
    at: str  # where it stands, for messages
    file: str
    reason: str
    before: str = ""
    after: str = ""

    def fits(self, mutant):
        return (mutant.file, mutant.before, mutant.after) == (self.file, self.before, self.after)


def read(path):
    explanations = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        text = " ".join(line[1:].split())
        last = explanations[-1] if explanations else None
        if not line.strip() or line.startswith("#"):
            continue
        if line[0] == "-" and last and not last.before:
            last.before = text
        elif line[0] == "+" and last and last.before and not last.after:
            last.after = text
        elif line.startswith("  ") and last and not last.before:
            last.reason += " " + line.strip()
        elif ": " in line and line[0] not in "-+ ":
            file, reason = line.split(": ", 1)
            explanations.append(Explanation(f"{path.name}:{number}", file, reason.strip()))
        else:
            raise Malformed(f"{path.name}:{number}: neither \"FILE: reason\" nor a line as it is (-) and becomes (+)")
    for explanation in explanations:
        if not (explanation.reason and explanation.before and explanation.after):
            raise Malformed(f"{explanation.at}: an explanation is a reason, a line with \"-\" and one with \"+\"")
    return explanations


def stale(explanations, mutants):
    """What no mutant is like any more, as texts."""
    made = {(mutant.file, mutant.before, mutant.after) for mutant in mutants}
    return [f"{each.at}: no mutant of {each.file} is like this any more" for each in explanations
            if (each.file, each.before, each.after) not in made]
