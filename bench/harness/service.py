# SPDX-License-Identifier: Apache-2.0
"""The update service beside the commands that it runs."""
import os
import shutil
import tempfile
from pathlib import Path

from device import made_device, program_on_device
from programs import run
from results import Figure, Measurement, ratios

MEBIBYTES = 256
IDLE_SECONDS = 60
SLOWEST_UPDATE = "600"  # seconds


def on_device(environment, device, updates_alone):
    return program_on_device(environment, device, "service_on_device.py", environment.repetitions, IDLE_SECONDS,
                             1 if updates_alone else 0)


def lay_out_large_image(environment, device):
    image = environment.work / "service-image"
    with open(image, "wb") as output:
        for _ in range(MEBIBYTES):
            output.write(os.urandom(1024 * 1024))
    run([environment.programs / "fw-pack", "image", image, "--type", "builtin", "--name", "tunerfw", "--version",
         "2.0.0", "--expected-time", SLOWEST_UPDATE, "--into", device / "lib/firmware/ext"],
        environment.work / "service.log")
    image.unlink()


def service(environment):
    with tempfile.TemporaryDirectory(dir="/dev/shm") as memory:
        device = made_device(environment, Path(memory) / "device")
        small = on_device(environment, device, False)
    device = made_device(environment, environment.work / "service-device")
    lay_out_large_image(environment, device)
    large = on_device(environment, device, True)
    shutil.rmtree(device)
    more = [(job - direct) * 1e3 for job, direct in zip(small["job"], small["direct"])]
    return [
        Figure("service", "a job of the update service, a small update : `fw-update` itself, more",
               "job : fw-update, more", 5, more, "ms"),
        Figure("service", f"a job of the update service, {MEBIBYTES} MiB : `fw-update` itself",
               f"job of {MEBIBYTES} MiB : fw-update", 1.05, ratios(large["job"], large["direct"])),
        Figure("service", "start of the update service to its name on the bus", "service's start", 50,
               [seconds * 1e3 for seconds in small["start"]], "ms"),
        Figure("service", "private memory of the update service", "service's memory", 6, small["private"], "MiB"),
        Measurement("service", f"wake-ups of the update service in {IDLE_SECONDS} idle seconds", small["woken"], "times"),
        *(Measurement("service", f"{what}, {size}", found[name])
          for size, found in (("small", small), (f"{MEBIBYTES} MiB", large))
          for name, what in (("direct", "an update by `fw-update` itself"), ("job", "an update by a job"))),
    ]
