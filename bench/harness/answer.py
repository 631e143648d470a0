# SPDX-License-Identifier: Apache-2.0
"""How long a person waits for the first answer of a command, its process' start with it."""
import shutil
import tempfile
from pathlib import Path

from device import made_device, seconds_on_device
from results import Figure, Measurement, ratios

MODULES = 10
RUNS_PER_REPETITION = 5
LIST = "fw-update list"
# The quickest answer that each of them has: neither looks at anything for it.
PEERS = ("rauc --version", "swupdate --version")


def with_modules(environment, device):
    """As many modules as MODULES, which answer at once."""
    controls = device / "prd/usr/fwupdate/controls"
    for module in controls.glob("*.so"):
        module.unlink()
    for number in range(MODULES):
        shutil.copy(environment.libraries / "libbench-empty-module.so", controls / f"libmodule{number}.so")


def figure(found, peer):
    values = ratios(found[LIST], found[peer]) if peer in found else []
    return Figure("answer", f"`{LIST}` with {MODULES} modules, from its start to its end : `{peer}`",
                  f"{LIST} : {peer}", None, values, note="" if values else f"{peer.split()[0]} is not installed")


def first_answer(environment):
    commands = {text: text.split() for text in (LIST, *PEERS) if text == LIST or shutil.which(text.split()[0])}
    with tempfile.TemporaryDirectory(dir="/dev/shm") as memory:
        device = made_device(environment, Path(memory) / "device")
        with_modules(environment, device)
        seconds_on_device(environment, device, commands, 1)  # reads the programs
        found = seconds_on_device(environment, device, commands, RUNS_PER_REPETITION * environment.repetitions)
    return [*(figure(found, peer) for peer in PEERS),
            *(Measurement("answer", name, values) for name, values in found.items())]
