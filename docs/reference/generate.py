"""Makes ../reference.md of the comments and declarations in the public headers.

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

What the installed headers declare, made of the headers by
`docs/reference/generate.py`; the headers are the original. The platform's calls are in
[platform.md](platform.md).
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
    text = with_line_comments(text)
    lines = without_privates([line for line in text.splitlines() if not line.startswith("#")])
    run = []
    for line in lines + [""]:
        if line.strip():
            run.append(line)
        elif run:
            yield run
            run = []


def paragraphs(comment):
    return " ".join(line.strip()[2:].strip() for line in comment)


def rendered(block):
    """Comments as text, what they stand before as code."""
    comment, code = [], []
    for line in block + [None]:
        is_comment = line is not None and line.strip().startswith("//")
        if code and (is_comment or line is None):
            if comment:
                yield paragraphs(comment) + "\n"
            yield "```cpp\n" + "\n".join(code) + "\n```\n"
            comment, code = [], []
        if is_comment:
            comment.append(line)
        elif line is not None:
            code.append(line)
    if comment:
        yield paragraphs(comment) + "\n"


def page():
    parts = [HEAD]
    for name in HEADERS:
        parts.append(f"## {name}\n")
        for block in blocks((ROOT / "include" / name).read_text(encoding="utf-8")):
            if not all(re.fullmatch(r"\s*(};?|public:|extern \"C\" {|.*= delete;)", line) for line in block):
                parts += rendered(block)
    return "\n".join(parts)


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
