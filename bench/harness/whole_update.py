# SPDX-License-Identifier: Apache-2.0
"""A whole update of a large image: by the library, by other updaters, and the floor; and
how its cost grows with the image; and what its steps take."""
import filecmp
import os
import shutil
import subprocess
from contextlib import ExitStack, contextmanager

from device import made_device, seconds_on_device
from peers import PEERS
from programs import Failed, run
from results import Figure, Measurement, ratios
import steps

MEBIBYTES = 256
SIZES = {"64 KiB": 64, "1 MiB": 1024, "16 MiB": 16 * 1024, "64 MiB": 64 * 1024, "256 MiB": 256 * 1024,
         "1 GiB": 1024 * 1024}  # in KiB
KEY = "/usr/share/fw-update/package.key"
IMAGE = "lib/firmware/ext/tunerfw/tunerfw.bin"


class SignedPackage:
    """The same image as an encrypted, signed package on a drive, applied by the tool: signature, SHA-256
    and decryption, then all that the module does."""

    name = "signed package"

    def __init__(self, environment, image):
        self.environment, self.device = environment, environment.work / "package-device"
        shutil.rmtree(self.device, ignore_errors=True)
        made_device(environment, self.device)
        self.package = self.device / "opt/media/USBDriveA/tunerfw.bin"
        self.image, self.flash = image, self.device / "var/lib/fw-components/tunerfw.flash"
        log, signing_key = environment.work / "device.log", self.device / "maker/rsa.key"
        run([environment.programs / "fw-pack", "keygen", "rsa-3072", signing_key], log)  # signs a SHA-256, as the peers do
        shutil.copy(f"{signing_key}.pem", self.device / "usr/share/fw-update/keys")
        run([environment.programs / "fw-pack", "usb", image, "--version", "2.0.0", "--key-file",
             self.device / KEY.lstrip("/"), "--signing-key", signing_key, "--output", self.package], log)

    def seconds(self):
        self.flash.unlink(missing_ok=True)
        (self.flash.with_suffix(".component")).unlink(missing_ok=True)  # as quick as it can be
        command = {"apply": ["fw-update", "usb", "apply", "--key-file", KEY]}
        spent = seconds_on_device(self.environment, self.device, command, 1)["apply"][0]
        if self.flash.stat().st_size <= self.image.stat().st_size:
            raise Failed("the package was not applied")
        return spent

    def remove(self):
        shutil.rmtree(self.device)


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


def figure(found, missing, what, label, ours, peer, goal):
    result = Figure("update", what, label, goal)
    if peer in found:
        result.values = ratios(found[ours], found[peer])
    else:
        result.note = missing[peer]
    return result


def figures(found, missing):
    against = [("floor", "the floor: one read pass with the checksum, one copy, one fsync", 1.5)]
    against += [(peer.name, peer.description, peer.goal) for peer in PEERS]
    for name, description, goal in against:
        yield figure(found, missing, f"whole update of {MEBIBYTES} MiB : {description}", f"update : {name}", "library",
                     name, goal)
    for peer in PEERS:
        yield figure(found, missing, f"signed, encrypted package of {MEBIBYTES} MiB, by `fw-update usb apply` : "
                     f"{peer.description}", f"signed package : {peer.name}", SignedPackage.name, peer.name, None)


@contextmanager
def device_with_image(environment, kibibytes):
    device = environment.work / "device"
    shutil.rmtree(device, ignore_errors=True)
    run([environment.program("whole-update"), "prepare", str(device), str(kibibytes)],
        environment.work / "whole-update.log")
    yield device
    shutil.rmtree(device)


def ours(environment, device):
    return {"floor": Ours(environment, "floor", device), "library": Ours(environment, "library", device)}


def whole_update(environment):
    with device_with_image(environment, MEBIBYTES * 1024) as device, ExitStack() as stack:
        image = device / IMAGE
        ready, missing = peers(environment, image, stack)
        signed = SignedPackage(environment, image)
        stack.callback(signed.remove)
        files = [image, signed.package, *(contender.package for contender in ready.values())]
        cached = stack.enter_context(kept_cached(environment, files))
        print(f"bench:   {cached}", flush=True)
        found = measure(environment, {**ours(environment, device), signed.name: signed, **ready})
        for name, contender in ready.items():
            check(name, image, contender.target)
    return [*figures(found, missing), *(Measurement("update", name, values) for name, values in found.items())]


def steps_of_update(environment):
    """The library's update alone, with its system calls traced, which costs it little."""
    with device_with_image(environment, MEBIBYTES * 1024) as device, kept_cached(environment, [device / IMAGE]):
        runs = []
        for _ in range(environment.repetitions):
            os.sync()
            runs.append(steps.measured_steps(environment, Ours(environment, "library", device).command))
    return steps.measurements(runs)


def growth(environment):
    """The same for images of all sizes, beside the floor alone."""
    figures_of_sizes, times = [], []
    for size, kibibytes in SIZES.items():
        with device_with_image(environment, kibibytes) as device, kept_cached(environment, [device / IMAGE]):
            found = measure(environment, ours(environment, device))
        figures_of_sizes.append(Figure("growth", f"an update with {size} : its floor", f"{size} : floor", None,
                                       ratios(found["library"], found["floor"])))
        times += [Measurement("growth", f"{size}, {name}", values) for name, values in found.items()]
    return [*figures_of_sizes, *times]
