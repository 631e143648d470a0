"""Makes ../troubleshooting.md of the library's sources and messages.txt.

usage: generate.py [--check]
  --check   changes nothing; exit code 1 when the page is not up to date

Every message that the sources can write must have an entry, and every entry a
message; otherwise the missing ones are named and the exit code is 1.
"""
import re
import sys
from collections import OrderedDict
from pathlib import Path

HERE = Path(__file__).resolve().parent
SOURCES = HERE.parent.parent / "src"
MESSAGES = HERE.parent.parent / "vocabulary" / "library-messages.h"
PAGE = HERE.parent / "troubleshooting.md"

LITERAL = r'"((?:[^"\\]|\\.)*)"'
CALL = re.compile(
    r"FW_LOG(?P<named>_AS)?\(\s*(?:" + LITERAL + r"\s*,\s*)?diagnostics::k(?P<priority>\w+)\s*,\s*"
    r"MESSAGE_(?P<name>\w+)\b")
TEXT = re.compile(r"^#define MESSAGE_(\w+)\s+(?:\\\n\s*)?" + LITERAL + "$", re.M)
NUMBER = re.compile(r"^inline constexpr unsigned int (k\w+) = (\d+);$", re.M)
FUNCTION = re.compile(r"^[\w:<>&*,~ \[\]]*?\b([\w~]+)\(", re.M)

HEAD = """# Troubleshooting by message

Every message that the library can write, what it means and what to do about it.
`%s` and `%d` stand for names and numbers. Messages go to the platform log
(`journalctl -t FWUPDATE`, or `--log` of `fw-update`) as
`FILE: FUNCTION(LINE) > MESSAGE`; most are written at error priority (E) on purpose, also those that report progress;
I is information, D is debug. `fw-update` says in its own words how an update ended;
its exit codes are in [fw-update.md](fw-update.md).

This page is made by `docs/troubleshooting/generate.py`.
"""


def message_texts():
    """Name -> text, of every message."""
    texts = dict(TEXT.findall(MESSAGES.read_text(encoding="utf-8")))
    del texts["PREFIX"]
    return texts


def logged_messages():
    """Name -> the (function, priority) pairs that write it, in the order of the sources."""
    messages = OrderedDict()
    for path in sorted(SOURCES.rglob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        calls = list(CALL.finditer(source))
        expected = len(re.findall(r"\bFW_LOG(?:_AS)?\(", source))
        if len(calls) != expected:
            raise SystemExit(f"{path.name}: {expected} messages are logged, {len(calls)} were understood")
        for call in calls:
            function = call[2] if call["named"] else enclosing_function(source, call.start())
            messages.setdefault(call["name"], []).append((function, call["priority"][0]))
    return messages


def enclosing_function(source, position):
    """The function whose body, which begins in the first column, holds the position."""
    names = [m[1] for m in FUNCTION.finditer(source, 0, position) if source[m.start()] not in " \n}/#"]
    return names[-1] if names else ""


def explained_messages():
    """Chapters as (title, entries), an entry being a dictionary of its lines."""
    chapters = []
    for line in (HERE / "messages.txt").read_text(encoding="utf-8").splitlines():
        if line.startswith("= "):
            chapters.append((line[2:], []))
        elif line.startswith("["):
            chapters[-1][1].append({"name": line[1:-1]})
        elif line and not line.startswith("#"):
            key, value = line.split(": ", 1)
            chapters[-1][1][-1][key] = value
    return chapters


def complaints(texts, logged, chapters):
    explained = [entry["name"] for _, entries in chapters for entry in entries]
    for name in texts:
        if name not in explained:
            yield f"messages.txt does not explain: {name}"
        if name not in logged:
            yield f"the sources do not write: {name}"
    for name in explained:
        if name not in texts:
            yield f"messages.txt explains what is no message: {name}"
        if explained.count(name) > 1:
            yield f"messages.txt explains twice: {name}"
    for _, entries in chapters:
        for entry in entries:
            if not entry.get("means") or not entry.get("do"):
                yield f"messages.txt says too little of: {entry['name']}"


def shown(text):
    return text.replace("\\n", "").replace("\\t", " ")


def with_numbers(sentence):
    numbers = dict(NUMBER.findall(MESSAGES.read_text(encoding="utf-8")))
    return re.sub(r"\{(k\w+)\}", lambda name: numbers[name[1]], sentence)


def page(texts, logged, chapters):
    lines = [HEAD]
    for title, entries in chapters:
        lines.append(f"## {title}\n")
        for entry in entries:
            places = OrderedDict.fromkeys(f"{function} ({priority})" for function, priority in logged[entry["name"]])
            lines.append(f"### `{shown(texts[entry['name']])}`\n")
            lines.append(f"From {', '.join(places)}. {with_numbers(entry['means'])}\n")
            if entry["do"] != "Nothing.":
                lines.append(f"*What to do:* {entry['do']}\n")
    return "\n".join(lines)


def main():
    texts, logged, chapters = message_texts(), logged_messages(), explained_messages()
    wrong = list(complaints(texts, logged, chapters))
    if wrong:
        raise SystemExit("\n".join(wrong))
    text = page(texts, logged, chapters)
    if "--check" in sys.argv[1:]:
        if PAGE.read_text(encoding="utf-8") != text:
            raise SystemExit("troubleshooting.md is not up to date: run docs/troubleshooting/generate.py")
        return
    PAGE.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
