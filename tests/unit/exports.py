#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds what the library exports against the list that the headers declare.

usage: exports.py LIBRARY VERSION-SCRIPT HEADER...
"""
import re
import subprocess
import sys


def exported(library):
    output = subprocess.run(["nm", "-DC", "--defined-only", library], check=True, capture_output=True, text=True)
    names = {re.split(r"\s+", line, maxsplit=2)[2] for line in output.stdout.splitlines()}
    return {re.sub(r"@@.*", "", name) for name in names if not name.startswith("FW_UPDATE_CONTROL_")}


def listed(version_script):
    text = open(version_script, encoding="utf-8").read()
    quoted = set(re.findall(r'"([^"]+)"', text)) - {"C++"}
    plain = set(re.findall(r"^\s+(\w+);$", text, re.MULTILINE))
    return quoted | plain


def declared(headers):
    """The names of the functions and variables that the headers declare."""
    names = set()
    for header in headers:
        text = re.sub(r"//.*|/\*.*?\*/|^#.*", "", open(header, encoding="utf-8").read(), flags=re.MULTILINE)
        names |= set(re.findall(r"extern .*?(\w+);", text))
        for match in re.finditer(r"([~\w]+)\s*\([^;{]*?\)\s*(?:const)?\s*(=\s*\w+)?\s*;", text, re.DOTALL):
            if match.group(2) is None and not match.group(1).startswith("__"):
                names.add(match.group(1))
    return names


def bare(symbol):
    return re.search(r"([~\w]+)(?:\[abi:cxx11\])?(?:\(|$)", symbol).group(1)


def report(title, names):
    for name in sorted(names):
        print(f"{title}: {name}")
    return bool(names)


def main():
    library, version_script, *headers = sys.argv[1:]
    out, wanted = exported(library), listed(version_script)
    names, symbols = declared(headers), {bare(name) for name in out}
    failed = report("exported but not listed", out - wanted)
    failed |= report("listed but not exported", wanted - out)
    failed |= report("declared in a header but not exported", names - symbols)
    failed |= report("exported but declared in no header", symbols - names)
    if len(out) < 50:
        failed = True
        print(f"only {len(out)} exports were found in {library}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
