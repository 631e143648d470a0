# SPDX-License-Identifier: Apache-2.0
"""Mutants that change nothing, and why: reading explained.txt.

An explanation is a line "FILE, FUNCTION: reason", perhaps continued on lines with two blanks
in front, followed by the line as it is, behind "-", and the line as the mutant has it, behind
"+". FUNCTION is written as the list of mutants has it, "Type::function"; what stands in no
function and no type has none. The reason holds for each line of these words in the function.
How far they are indented does not matter. "#" begins a comment.
"""
import dataclasses


class Malformed(Exception):
    pass


@dataclasses.dataclass
class Explanation:
    at: str  # where it stands, for messages
    file: str
    scope: str
    reason: str
    before: str = ""
    after: str = ""

    def fits(self, mutant):
        return ((mutant.file, mutant.scope, mutant.before, mutant.after)
                == (self.file, self.scope, self.before, self.after))

    def place(self):
        return f"{self.file}, {self.scope}" if self.scope else self.file


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
            place, reason = line.split(": ", 1)
            file, _, scope = place.partition(", ")
            explanations.append(Explanation(f"{path.name}:{number}", file, scope, reason.strip()))
        else:
            raise Malformed(f"{path.name}:{number}: neither \"FILE, FUNCTION: reason\" nor a line as it is (-) and becomes (+)")
    for explanation in explanations:
        if not (explanation.reason and explanation.before and explanation.after):
            raise Malformed(f"{explanation.at}: an explanation is a reason, a line with \"-\" and one with \"+\"")
    return explanations


def stale(explanations, mutants):
    """What no mutant is like any more, as texts."""
    made = {(mutant.file, mutant.scope, mutant.before, mutant.after) for mutant in mutants}
    return [f"{each.at}: no mutant of {each.place()} is like this any more" for each in explanations
            if (each.file, each.scope, each.before, each.after) not in made]
