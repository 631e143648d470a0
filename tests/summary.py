# SPDX-License-Identifier: Apache-2.0
"""Test results: reading JUnit files, judging skips, and the closing line.

A skipped test that matches no line of tests/declared-skips.txt (shell patterns over
the test's name or "STEP: NAME"; "#" starts a comment) fails the run.
"""
import dataclasses
import fnmatch
import re
import xml.etree.ElementTree as ElementTree

# How ctest shows a test that failed, and what it printed: up to the line of another test.
FAILED_ONCE = re.compile(r"Test +#\d+: (.+?) \.+.*\*\*\*(?:Failed|Exception|Timeout).*\n"
                         r"((?:(?! *(?:Start +\d+: |(?:\d+/\d+ +)?Test +#\d+: )).*\n)*)")


@dataclasses.dataclass
class Case:
    name: str
    outcome: str  # passed, failed or skipped
    output: str


def outcome(element):
    """ctest says it in "status"; plain JUnit by the elements inside."""
    if element.find("failure") is not None or element.find("error") is not None:
        return "failed"
    if element.find("skipped") is not None:
        return "skipped"
    return "passed" if element.get("status", "run") == "run" else "failed"


def read_cases(path):
    try:
        elements = ElementTree.parse(path).getroot().iter("testcase")
    except (OSError, ElementTree.ParseError) as error:
        return [Case(path.stem, "failed", f"no test results: {error}")]
    return [Case(element.get("name"), outcome(element), element.findtext("system-out") or "")
            for element in elements]


def reason(output):
    """Why a test was skipped: the words behind GTEST_SKIP, or the last line."""
    match = re.search(r": Skipped\n(.*?)\n*\[  SKIPPED \]", output, re.DOTALL)
    text = match.group(1) if match else (output.strip().splitlines() or ["no reason given"])[-1]
    return " ".join(text.split())


def declared_patterns(path):
    lines = (line.split("#")[0].strip() for line in path.read_text(encoding="utf-8").splitlines())
    return [line for line in lines if line]


def judge_skip(step, case, patterns):
    """A skip that nobody declared is a failure."""
    names = (case.name, f"{step}: {case.name}")
    if any(fnmatch.fnmatchcase(name, pattern) for name in names for pattern in patterns):
        return case
    return Case(case.name, "failed", f"skipped without being declared: {reason(case.output)}")


def judge(step, cases, patterns):
    return [judge_skip(step, case, patterns) if case.outcome == "skipped" else case
            for case in cases]


def judge_unsteady(cases, output):
    """A test that failed in ctest's output and passed when it was run once more is a failure."""
    printed = {}
    for name, text in FAILED_ONCE.findall(output):
        printed.setdefault(name, text.strip("\n"))
    return [Case(case.name, "failed", "passed only when it was run once more; the first time:\n" + printed[case.name])
            if case.outcome == "passed" and case.name in printed else case for case in cases]


def counts(cases):
    number = {kind: sum(case.outcome == kind for case in cases)
              for kind in ("passed", "failed", "skipped")}
    return "{passed} passed, {failed} failed, {skipped} skipped".format(**number)


def report(step, cases):
    """Prints what was skipped and why, and what failed with its output."""
    for case in cases:
        if case.outcome == "skipped":
            print(f"skipped: {step}: {case.name}: {reason(case.output)}")
        if case.outcome == "failed":
            print(f"failed: {step}: {case.name}\n{case.output}")
