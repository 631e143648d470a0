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
PAGE = HERE.parent / "troubleshooting.md"

LITERAL = r'"((?:[^"\\]|\\.)*)"'
CALL = re.compile(
    r"FW_LOG(?P<named>_AS)?\(\s*(?:" + LITERAL + r"\s*,\s*)?diagnostics::k(?P<priority>\w+)\s*,\s*"
    r"(?P<text>(?:" + LITERAL + r"\s*)+)[,)]")
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


def logged_messages():
    """Text -> the (function, priority) pairs that write it, in the order of the sources."""
    messages = OrderedDict()
    for path in sorted(SOURCES.rglob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        calls = list(CALL.finditer(source))
        expected = len(re.findall(r"\bFW_LOG(?:_AS)?\(", source))
        if len(calls) != expected:
            raise SystemExit(f"{path.name}: {expected} messages are logged, {len(calls)} were understood")
        for call in calls:
            text = "".join(re.findall(LITERAL, call["text"]))
            function = call[2] if call["named"] else enclosing_function(source, call.start())
            messages.setdefault(text, []).append((function, call["priority"][0]))
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
            chapters[-1][1].append({"text": line[1:-1]})
        elif line and not line.startswith("#"):
            key, value = line.split(": ", 1)
            chapters[-1][1][-1][key] = value
    return chapters


def complaints(logged, chapters):
    explained = [entry["text"] for _, entries in chapters for entry in entries]
    for text in logged:
        if text not in explained:
            yield f"messages.txt does not explain: {text}"
    for text in explained:
        if text not in logged:
            yield f"messages.txt explains what the sources do not write: {text}"
        if explained.count(text) > 1:
            yield f"messages.txt explains twice: {text}"
    for _, entries in chapters:
        for entry in entries:
            if not entry.get("means") or not entry.get("do"):
                yield f"messages.txt says too little of: {entry['text']}"


def shown(text):
    return text.replace("\\n", "").replace("\\t", " ")


def page(logged, chapters):
    lines = [HEAD]
    for title, entries in chapters:
        lines.append(f"## {title}\n")
        for entry in entries:
            places = OrderedDict.fromkeys(f"{function} ({priority})" for function, priority in logged[entry["text"]])
            lines.append(f"### `{shown(entry['text'])}`\n")
            lines.append(f"From {', '.join(places)}. {entry['means']}\n")
            if entry["do"] != "Nothing.":
                lines.append(f"*What to do:* {entry['do']}\n")
    return "\n".join(lines)


def main():
    logged, chapters = logged_messages(), explained_messages()
    wrong = list(complaints(logged, chapters))
    if wrong:
        raise SystemExit("\n".join(wrong))
    text = page(logged, chapters)
    if "--check" in sys.argv[1:]:
        if PAGE.read_text(encoding="utf-8") != text:
            raise SystemExit("troubleshooting.md is not up to date: run docs/troubleshooting/generate.py")
        return
    PAGE.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
