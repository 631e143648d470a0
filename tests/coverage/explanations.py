# SPDX-License-Identifier: Apache-2.0
"""Lines that no test runs, and why: reading explained.txt and holding it against the counts.

An explanation is a line "FILE: reason", perhaps continued on lines with two blanks in
front, followed by an excerpt of the file. In an excerpt a line begins with "-" when it is
never run, with "|" when it only shows the place. How far lines are indented does not
matter. The excerpt stands at exactly one place of the file. "#" begins a comment.

"FILE without FLAG or FLAG: reason" has no excerpt. It explains any line of the file where
the processor, in /proc/cpuinfo, lacks one of the flags; elsewhere it says nothing.
"""
import dataclasses


class Malformed(Exception):
    pass


@dataclasses.dataclass
class Explanation:
    at: str  # where it stands, for messages
    file: str
    reason: str
    excerpt: list  # of (is it never run, text)
    needed: list  # flags of the processor


def read_explanations(path):
    explanations = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line[0] in "-|" and explanations:
            explanations[-1].excerpt.append((line[0] == "-", line[1:].strip()))
        elif line.startswith("  ") and explanations and not explanations[-1].excerpt:
            explanations[-1].reason += " " + line.strip()
        else:
            file, colon, reason = line.partition(": ")
            if not colon:
                raise Malformed(f"{path.name}:{number}: neither \"FILE: reason\" nor part of an excerpt")
            file, _, flags = file.partition(" without ")
            explanations.append(Explanation(f"{path.name}:{number}", file, reason.strip(), [],
                                            flags.split(" or ") if flags else []))
    return explanations


def places(excerpt, source):
    """The numbers of the lines where the excerpt begins in the source."""
    wanted = [text for _, text in excerpt]
    stripped = [line.strip() for line in source]
    return [start + 1 for start in range(len(stripped) - len(wanted) + 1)
            if stripped[start:start + len(wanted)] == wanted]


def explained_lines(explanation, source):
    """The lines that it explains, and what is wrong with it."""
    if not explanation.reason or not any(never_run for never_run, _ in explanation.excerpt):
        return set(), [f"{explanation.at}: an explanation is a reason and a line that is never run"]
    starts = places(explanation.excerpt, source)
    if len(starts) != 1:
        found = "is gone from" if not starts else "stands at several places of"
        return set(), [f"{explanation.at}: its excerpt {found} {explanation.file}"]
    return {starts[0] + offset for offset, (never_run, _) in enumerate(explanation.excerpt) if never_run}, []


def judge(explanations, uncovered, sources, processor):
    """What is wrong, as texts. uncovered: by file, the numbers of the lines that no test
    runs; sources: by file, its lines; processor: its flags."""
    wrong = []
    explained = {file: set() for file in sources}
    for explanation in explanations:
        if explanation.file not in sources:
            wrong.append(f"{explanation.at}: no counted file {explanation.file}")
            continue
        if explanation.needed:
            if not processor.issuperset(explanation.needed):
                explained[explanation.file] |= uncovered.get(explanation.file, set())
            continue
        lines, mistakes = explained_lines(explanation, sources[explanation.file])
        wrong += mistakes
        for line in sorted(lines - uncovered.get(explanation.file, set())):
            wrong.append(f"{explanation.at}: line {line} of {explanation.file} is run by now, or is no code")
        explained[explanation.file] |= lines
    for file, lines in sorted(uncovered.items()):
        for line in sorted(lines - explained[file]):
            wrong.append(f"{file}:{line}: no test runs it, and nothing explains why: "
                         f"{sources[file][line - 1].strip()}")
    return wrong
