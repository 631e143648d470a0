# SPDX-License-Identifier: Apache-2.0
"""What the benchmarks run on."""
import os
import platform
import re
import subprocess


def first(pattern, path):
    with open(path, encoding="utf-8") as file:
        match = re.search(pattern, file.read(), re.MULTILINE)
    return match.group(1) if match else "unknown"


def flags():
    """The processor's features that the checksum's speed depends on."""
    present = first(r"^flags\s*: (.*)$", "/proc/cpuinfo").split()
    known = [flag for flag in ("pclmulqdq", "vpclmulqdq", "avx2", "avx512f", "aes", "vaes") if flag in present]
    return ", ".join(known) or "none of those used"


def memory():
    kibibytes = int(first(r"^MemTotal:\s*(\d+)", "/proc/meminfo"))
    return f"{kibibytes / 1024 / 1024:.1f} GiB"


def file_system(directory):
    found = subprocess.run(["findmnt", "-n", "-o", "FSTYPE", "-T", directory], capture_output=True, text=True,
                           check=True)
    return found.stdout.strip()


def describe(directory):
    return {
        "Processor": first(r"^model name\s*: (.*)$", "/proc/cpuinfo"),
        "Cores": str(os.cpu_count()),
        "Features used": flags(),
        "Memory": memory(),
        "Kernel": f"{platform.system()} {platform.release()} {platform.machine()}",
        "System": first(r'^PRETTY_NAME="?([^"\n]*)', "/etc/os-release"),
        "File system of the updates": file_system(directory),
    }
