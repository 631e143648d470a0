"""Generates ../reference.md from the comments and declarations in the public headers.

usage: generate.py [--check]
  --check   changes nothing; exit code 1 when the page is not up to date
"""
import re
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
PAGE = HERE.parent / "reference.md"
HEADERS = ["fw-update-control.h", "fw-update-symbol-manager.h", "fw-update-symbol.h", "fw-update-common.h",
           "fw-update-mount-manager.h", "fw-update-cipher.h", "fw-update-types.h", "fw-update-module.h"]

HEAD = """# Reference

What the installed headers declare, generated from them by
`docs/reference/generate.py`; the headers are the original. The platform's calls are in
[platform.md](platform.md), examples in [using-the-library.md](using-the-library.md).
"""


def without_privates(lines):
    """The lines but for the private parts of classes."""
    kept, private = [], False
    for line in lines:
        word = line.strip()
        if word == "private:":
            private = True
        elif word in ("public:", "protected:") or line.startswith("}"):
            private = False
        if not private:
            kept.append(line)
    return kept


def with_line_comments(text):
    """The C header's comments as those of the others."""
    return re.sub(r"/\*(.*?)\*/", lambda comment: "\n".join(
        "// " + line.strip(" *") for line in comment[1].splitlines()), text, flags=re.S)


def blocks(text):
    """Runs of lines without a blank line between them; without directives and with
    comments of one kind."""
    text = re.sub(r"^.*SPDX-License-Identifier.*\n", "", with_line_comments(text), flags=re.M)
    lines = without_privates([line for line in text.splitlines() if not line.startswith("#")])
    run = []
    for line in lines + [""]:
        if line.strip():
            run.append(line)
        elif run:
            yield run
            run = []


def paragraphs(comment):
    return " ".join(" ".join(line.strip()[2:] for line in comment).split())


CLASS = re.compile(r"class (?:[A-Z_]+ )?(\w+) {")
FUNCTION = re.compile(r"(~?\w+)\(")
TYPE_OR_VARIABLE = re.compile(r"enum (\w+)|extern .*?(\w+);")


def statements(code):
    """Runs of lines that end a declaration, or open a class; an enumeration is one."""
    run = []
    for line in code:
        run.append(line)
        opens = line.rstrip().endswith("{") and not line.startswith("enum")
        if opens or (";" in line and not (run[0].startswith("enum") and not line.startswith("}"))):
            yield run
            run = []
    if run:
        yield run


def name_of(statement, owner):
    """What to call the statement's heading; None for what belongs to the one before."""
    text = " ".join(line.split("//")[0] for line in statement)
    opened = CLASS.search(text)
    if opened:
        return opened[1]
    if "= default" in text or "operator" in text:
        return None
    function = FUNCTION.search(text)
    if function:
        called = function[1]
        is_lifetime = called.startswith("~") or (called == owner and " " + owner + "(const " + owner in text)
        return None if is_lifetime else (f"{owner}::{called}" if owner else called)
    other = TYPE_OR_VARIABLE.search(text)
    return (other[1] or other[2]) if other else None


def sections(code, owner):
    """Name -> lines, in order; the first may have no name."""
    found = []
    for statement in statements(code):
        name = name_of(statement, owner)
        if name or not found:
            found.append((name, []))
        found[-1][1].extend(statement)
    return found


def anchor(name):
    return "#" + re.sub(r"[^\w -]", "", name.lower()).replace(" ", "-")


def rendered(block, owner):
    """Comments as text, what they stand before as code, under a heading for each call."""
    comment, code = [], []
    for line in block + [None]:
        is_comment = line is not None and line.strip().startswith("//")
        if code and (is_comment or line is None):
            yield from with_headings(comment, code, owner)
            owner = owner_after(code, owner)
            comment, code = [], []
        if is_comment:
            comment.append(line)
        elif line is not None:
            code.append(line)
    if comment:
        yield paragraphs(comment) + "\n"


def with_headings(comment, code, owner):
    text, first = paragraphs(comment) + "\n" if comment else None, None
    for name, lines in sections(code, owner):
        if name:
            yield f"### {name}\n"
        if text:
            yield text if first is None else f"See [{first}]({anchor(first)}).\n"
        yield "```cpp\n" + "\n".join(lines) + "\n```\n"
        first = first or name


def owner_after(block, owner):
    """The class that what follows is part of."""
    for line in block:
        opened = CLASS.search(line)
        owner = opened[1] if opened else None if line.startswith("}") else owner
    return owner


def chapter(header):
    parts, owner = [f"## {header}\n"], None
    for block in blocks((ROOT / "include" / header).read_text(encoding="utf-8")):
        if not all(re.fullmatch(r"\s*(};?|public:|extern \"C\" {|.*= delete;)", line) for line in block):
            parts += rendered(block, owner)
        owner = owner_after(block, owner)
    return parts


def contents(chapters):
    """A line for each header, with a link for each name."""
    lines = ["| header | declares |", "|---|---|"]
    for header, parts in chapters.items():
        names = [part.removeprefix("### ").strip() for part in parts if part.startswith("### ")]
        links = ", ".join(f"[{name.split('::')[-1]}]({anchor(name)})" for name in names)
        lines.append(f"| [{header}]({anchor(header)}) | {links} |")
    return "\n".join(lines) + "\n"


def page():
    chapters = {header: chapter(header) for header in HEADERS}
    return "\n".join([HEAD, contents(chapters)] + [part for parts in chapters.values() for part in parts])


def complaints():
    installed = {path.name for path in (ROOT / "include").glob("*.h")} - {"fw-update-export.h"}
    for name in sorted(installed ^ set(HEADERS)):
        yield f"generate.py and include/ do not agree on {name}"


def main():
    wrong = list(complaints())
    if wrong:
        sys.exit("\n".join(wrong))
    text = page()
    if "--check" in sys.argv[1:]:
        if not PAGE.exists() or PAGE.read_text(encoding="utf-8") != text:
            sys.exit("reference.md is not up to date: run docs/reference/generate.py")
        return
    PAGE.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
