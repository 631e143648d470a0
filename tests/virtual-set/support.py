# SPDX-License-Identifier: Apache-2.0
"""What the tests of the virtual set share."""
import made_set


def say(text):
    print(f"virtual-set: {text}", flush=True)


def the_set():
    """The set with this project's packages, as ./virtual-set make left it."""
    return made_set.current()


def debian():
    """The set without them."""
    return made_set.make_debian(say)


def set_packages():
    """The packages that are in it."""
    return made_set.packages_in(made_set.current().packages)


def expect(condition, what, seen=""):
    """A test's claim: what was promised, and what was seen instead."""
    if not condition:
        raise AssertionError(f"{what}\n{seen}")


def succeed(machine, script, seconds=300):
    """Runs a script that must succeed: what it printed, without the last newline."""
    code, output = machine.run(f"set -eu\n{script}\n", seconds)
    expect(code == 0, f"exit code {code} of: {script}", output)
    return output.rstrip("\n")
