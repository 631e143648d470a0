# SPDX-License-Identifier: Apache-2.0
"""A whole update of a large image: by the library, by other updaters, and the floor."""
import filecmp
import os
import shutil
import subprocess
from contextlib import ExitStack, contextmanager

from peers import PEERS
from programs import Failed, run
from results import Figure, Measurement, ratios

MEBIBYTES = 256
IMAGE = "lib/firmware/ext/tunerfw/tunerfw.bin"


class Ours:
    """The library or the floor, by the program that times itself."""

    def __init__(self, environment, work, device):
        self.command = [environment.program("whole-update"), work, str(device)]
        self.log = environment.work / "whole-update.log"

    def seconds(self):
        return float(run(self.command, self.log))


@contextmanager
def kept_cached(environment, files):
    """Files in the page cache, locked there where the system allows it."""
    keeper = subprocess.Popen([environment.program("keep-cached"), *map(str, files)],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        yield keeper.stdout.readline().strip()
    finally:
        keeper.communicate()


def peers(environment, image, stack):
    """What can be compared with, ready to install the image; and why others cannot."""
    ready, missing = {}, {}
    for peer in PEERS:
        reason = peer.unusable() if environment.peers else "bench/run --peers compares with it"
        if reason:
            missing[peer.name] = reason
        else:
            ready[peer.name] = stack.enter_context(peer(environment, image))
    return ready, missing


def check(name, image, target):
    if not filecmp.cmp(image, target, shallow=False):
        raise Failed(f"{name} did not write the image")


def measure(environment, contenders):
    """In turns, so that what slows the machine for a while slows all of them."""
    found = {name: [] for name in contenders}
    for number in range(environment.repetitions):
        for name, contender in contenders.items():
            os.sync()  # nothing is left to write of what ran before
            found[name].append(contender.seconds())
        times = ", ".join(f"{name} {values[-1]:.2f} s" for name, values in found.items())
        print(f"bench:   {number + 1} of {environment.repetitions}: {times}", flush=True)
    return found


def figures(found, missing):
    against = [("floor", "the floor: one read pass with the checksum, one copy, one fsync", 1.5)]
    against += [(peer.name, peer.description, peer.goal) for peer in PEERS]
    for name, description, goal in against:
        figure = Figure("update", f"whole update of {MEBIBYTES} MiB : {description}", f"update : {name}", goal)
        if name in found:
            figure.values = ratios(found["library"], found[name])
        else:
            figure.note = missing[name]
        yield figure


def whole_update(environment):
    device = environment.work / "device"
    image = device / IMAGE
    run([environment.program("whole-update"), "prepare", str(device), str(MEBIBYTES)],
        environment.work / "whole-update.log")
    with ExitStack() as stack:
        ready, missing = peers(environment, image, stack)
        files = [image, *(contender.package for contender in ready.values())]
        cached = stack.enter_context(kept_cached(environment, files))
        print(f"bench:   {cached}", flush=True)
        contenders = {"floor": Ours(environment, "floor", device), "library": Ours(environment, "library", device)}
        found = measure(environment, {**contenders, **ready})
        for name, contender in ready.items():
            check(name, image, contender.target)
    shutil.rmtree(device)
    return [*figures(found, missing), *(Measurement("update", name, values) for name, values in found.items())]
