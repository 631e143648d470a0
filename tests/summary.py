#!/usr/bin/env python3
"""Sums up a test run: what failed with its output, what was skipped with its reason.

usage: summary.py JUNIT-FILE DECLARED-SKIPS

The last line is "N passed, M failed, K skipped". A skipped test that matches no
line of DECLARED-SKIPS (shell patterns, "#" starts a comment) fails the run.
"""
import fnmatch
import re
import sys
import xml.etree.ElementTree as ElementTree


def reason(output):
    """Why a test was skipped: the words behind GTEST_SKIP, or the last line."""
    match = re.search(r": Skipped\n(.*?)\n*\[  SKIPPED \]", output, re.DOTALL)
    text = match.group(1) if match else (output.strip().splitlines() or ["no reason given"])[-1]
    return " ".join(text.split())


def declared_patterns(path):
    with open(path, encoding="utf-8") as file:
        lines = (line.split("#")[0].strip() for line in file)
        return [line for line in lines if line]


def main():
    junit, declarations = sys.argv[1:]
    try:
        cases = ElementTree.parse(junit).getroot().findall("testcase")
    except (OSError, ElementTree.ParseError) as error:
        sys.exit(f"no test results: {error}")
    patterns = declared_patterns(declarations)
    passed = failed = skipped = 0
    for case in cases:
        name, output = case.get("name"), case.findtext("system-out") or ""
        if case.get("status") == "run":
            passed += 1
        elif case.get("status") == "notrun" and case.find("skipped") is not None:
            if any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
                skipped += 1
                print(f"skipped: {name}: {reason(output)}")
            else:
                failed += 1
                print(f"failed: {name}: skipped without being declared: {reason(output)}")
        else:
            failed += 1
            print(f"failed: {name}\n{output}")
    if not cases:
        print("no test was run")
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    sys.exit(1 if failed or not cases else 0)


if __name__ == "__main__":
    main()
