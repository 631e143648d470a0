# SPDX-License-Identifier: Apache-2.0
"""usage: example_tests.py TEST: the examples of the service's page, run as they stand there.

Each function whose name begins with a capital is a test.
"""
import pathlib
import re
import subprocess

from service_client import Bus, Service, run_named_test, slow

PAGE = pathlib.Path(__file__).resolve().parents[3] / "docs/service.md"


def block(language):
    return re.search(rf"```{language}\n(.*?)```", PAGE.read_text(encoding="utf-8"), re.DOTALL)[1]


def draws(command):
    """A bar that fills, for a module that takes a while, and says why an update fails."""
    slow("tunerfw", 800)
    Service(Bus().connect())
    done = subprocess.run([*command, "libtuner"], stdout=subprocess.PIPE, text=True, check=False, timeout=100)
    lengths = [len(filled) for filled in re.findall(r"\[(#*) *\]", done.stdout)]
    assert done.returncode == 0, done
    assert lengths == sorted(lengths) and len(set(lengths)) > 3 and lengths[-1] == 40, done.stdout
    assert "libtuner was updated. Version 0.0.0 -> 2.0.0 in " in done.stdout, done.stdout
    refused = subprocess.run([*command, "libpanel"], stdout=subprocess.PIPE, text=True, check=False, timeout=100)
    assert refused.returncode == 5 and "panelfw" in refused.stdout, refused


def ThePythonExampleDrawsAProgressBar():
    path = pathlib.Path("/tmp/bar.py")
    path.write_text(block("python"), encoding="utf-8")
    draws(["/usr/bin/python3", str(path)])


def TheCppExampleDrawsAProgressBar():
    source = pathlib.Path("/tmp/bar.cpp")
    source.write_text(block("cpp"), encoding="utf-8")
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "sdbus-c++"], stdout=subprocess.PIPE, text=True,
                           check=True).stdout.split()
    subprocess.run(["c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", str(source), *flags, "-o", "/tmp/bar"],
                   check=True)
    draws(["/tmp/bar"])


if __name__ == "__main__":
    run_named_test(globals())
