# SPDX-License-Identifier: Apache-2.0
"""Every link of a page leads to a file that is there, and to a heading that is in it.

usage: links.py SOURCE-DIRECTORY
"""
import os
import re
import sys

SOURCE = sys.argv[1]
LINK = re.compile(r"\]\(([^)\s#]*)(#[^)]*)?\)")


def pages():
    for directory, _, names in os.walk(os.path.join(SOURCE, "docs")):
        yield from (os.path.join(directory, name) for name in names if name.endswith(".md"))
    yield from (os.path.join(SOURCE, name) for name in os.listdir(SOURCE) if name.endswith(".md"))


def text_of(page):
    with open(page, encoding="utf-8") as file:
        return re.sub(r"^```.*?^```", "", file.read(), flags=re.MULTILINE | re.DOTALL)


def anchors(page):
    headings = re.findall(r"^#+ (.*)$", text_of(page), re.MULTILINE)
    return {"#" + re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


count, wrong = 0, []
for page in pages():
    for path, anchor in LINK.findall(text_of(page)):
        if path.startswith(("http:", "https:")):
            continue
        count += 1
        target = os.path.join(os.path.dirname(page), path) if path else page
        if not os.path.exists(target) or (anchor and anchor not in anchors(target)):
            wrong.append(f"{os.path.relpath(page, SOURCE)}: {path}{anchor}")
print(f"{count} links")
if wrong or count == 0:
    sys.exit("\n".join(wrong) or "no page has a link")
