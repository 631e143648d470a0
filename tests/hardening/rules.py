# SPDX-License-Identifier: Apache-2.0
"""What is asked of the built files, and of the commands that compiled them."""
import platform
import re
import shlex

HAS_LANDINGS = platform.machine() in ("x86_64", "i686", "i386")
OF_THE_START_FILES = 3  # places to land that every program has

# Without any of these a file is not taken. Each: what is wrong, and how it is seen.
OF_EACH_FILE = [
    ("lies at a fixed address (-fPIE, -pie)", lambda file: file.type != "DYN"),
    ("lets its stack be run (-z noexecstack)", lambda file: file.stack is None or "E" in file.stack),
    ("leaves its tables of functions writable (-z relro)", lambda file: not file.relro),
    ("binds functions late (-z now)", lambda file: not binds_at_once(file)),
    ("has code that is changed when it is loaded (-fPIC)", lambda file: "TEXTREL" in file.dynamic),
    ("does not guard its stack (-fstack-protector-strong)", lambda file: "__stack_chk_fail" not in file.imports),
    ("has no places for branches to land (-fcf-protection)",
     lambda file: HAS_LANDINGS and file.landings <= file.exports + OF_THE_START_FILES),
    ("looks for libraries in the current directory (RUNPATH)",
     lambda file: any(not entry.startswith(("/", "$ORIGIN")) for entry in search_path(file))),
]

# What not every file has a use for; one of those that are built together must show it.
OF_SOME_FILE = [
    ("checks the sizes of buffers (-D_FORTIFY_SOURCE=2)",
     lambda file: any(re.fullmatch(r"__\w+_chk", name) for name in file.imports)),
    ("checks indices (-D_GLIBCXX_ASSERTIONS)",
     lambda file: any("glibcxx_assert_fail" in name for name in file.imports)),
    ("touches each page of its stack (-fstack-clash-protection)", lambda file: file.probes > 0),
]

OF_EACH_COMMAND = ["-D_FORTIFY_SOURCE=2", "-D_GLIBCXX_ASSERTIONS", "-fstack-protector-strong",
                   "-fstack-clash-protection", "-fcf-protection"]
ONLY_CXX = "-D_GLIBCXX_ASSERTIONS"
# These are compiled to see that headers stand alone, and linked into nothing.
NOT_LINKED = "verify_interface_header_sets"


def binds_at_once(file):
    return ("BIND_NOW" in file.dynamic or any("BIND_NOW" in value for value in file.dynamic.get("FLAGS", []))
            or any("NOW" in value.split() for value in file.dynamic.get("FLAGS_1", [])))


def search_path(file):
    """Where it looks for libraries first."""
    for value in file.dynamic.get("RUNPATH", []) + file.dynamic.get("RPATH", []):
        yield from re.search(r"\[(.*)\]", value)[1].split(":")


def judge_file(file, installed):
    wrong = [text for text, is_wrong in OF_EACH_FILE if is_wrong(file)]
    if installed and list(search_path(file)):
        wrong.append("looks for libraries where it was built (RUNPATH)")
    return wrong


def judge_together(files):
    return [f"no file {text}" for text, shows in OF_SOME_FILE if not any(map(shows, files))]


def judge_commands(entries):
    """entries: as in compile_commands.json."""
    for entry in entries:
        if NOT_LINKED in entry["file"] or entry["file"].endswith(".S"):
            continue
        words = shlex.split(entry["command"])
        for flag in OF_EACH_COMMAND:
            if flag not in words and not (flag == ONLY_CXX and entry["file"].endswith(".c")):
                yield f"{entry['file']}: compiled without {flag}"
