# SPDX-License-Identifier: Apache-2.0
"""What readelf and objdump say of a program or library, as far as hardening shows in it."""
import dataclasses
import re
import subprocess

ELF = b"\x7fELF"
LINKED = (2, 3)  # at a fixed address, or at any
PROBE = re.compile(r"\bor[lq]\s+\$0x0,(0x[0-9a-f]+)?\(%[re]sp\)")
LANDING = re.compile(r"\bendbr(32|64)\b")


@dataclasses.dataclass
class File:
    type: str  # DYN, EXEC, REL
    stack: str  # flags of the stack's segment, None without one
    relro: bool
    dynamic: dict  # by tag, its values
    imports: set  # names of undefined dynamic symbols
    exports: int  # functions that others may call
    landings: int  # places that an indirect branch may go to
    probes: int  # touches of the stack before it grows by a page


def tool(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, errors="replace",
                          env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"}).stdout


def is_linked(path):
    """Whether it is a program or a library, and no object that is yet to be linked."""
    if not path.is_file() or path.is_symlink():
        return False
    with open(path, "rb") as file:
        start = file.read(18)
    return start.startswith(ELF) and start[16] in LINKED


def dynamic_entries(text):
    entries = {}
    for tag, value in re.findall(r"^\s*0x[0-9a-f]+ \((\w+)\)\s*(.*)$", text, re.MULTILINE):
        entries.setdefault(tag, []).append(value.strip())
    return entries


def symbols(text):
    """(imported names, exported functions)"""
    imports, exports = set(), 0
    for line in text.splitlines():
        cells = line.split()
        if len(cells) < 8 or not cells[0].endswith(":"):
            continue
        if cells[6] == "UND":
            imports.add(cells[7].split("@")[0])
        elif cells[3] in ("FUNC", "IFUNC"):
            exports += 1
    return imports, exports


def read(path):
    header = tool("readelf", "--wide", "--file-header", "--segments", "--dynamic", str(path))
    imports, exports = symbols(tool("readelf", "--wide", "--dyn-syms", str(path)))
    code = tool("objdump", "--disassemble", "--no-show-raw-insn", str(path))
    stack = re.search(r"^\s*GNU_STACK\s+(?:0x[0-9a-f]+\s+){5}([RWE ]{3})", header, re.MULTILINE)
    return File(type=re.search(r"^\s*Type:\s+(\w+)", header, re.MULTILINE)[1],
                stack=stack and stack[1], relro=bool(re.search(r"^\s*GNU_RELRO\s", header, re.MULTILINE)),
                dynamic=dynamic_entries(header), imports=imports, exports=exports,
                landings=len(LANDING.findall(code)), probes=len(PROBE.findall(code)))
