# SPDX-License-Identifier: Apache-2.0
"""The papers name the version that is built.

usage: papers.py SOURCE-DIRECTORY VERSION
"""
import re
import sys
from pathlib import Path

SOURCE, VERSION = Path(sys.argv[1]), sys.argv[2]
NEWEST = {
    "CHANGELOG.md": r"^## (\d+\.\d+\.\d+)",
    "packaging/debian/changelog": r"^fw-update-control \((\d+\.\d+\.\d+)[-)]",
    "README.md": r"^\| status \| (\d+\.\d+\.\d+)",
}

wrong = []
for name, pattern in NEWEST.items():
    found = re.search(pattern, (SOURCE / name).read_text(encoding="utf-8"), re.MULTILINE)
    if not found or found[1] != VERSION:
        wrong.append(f"{name} names {found[1] if found else 'no version'} first, and not {VERSION}")
if wrong:
    sys.exit("\n".join(wrong))
