# SPDX-License-Identifier: Apache-2.0
"""A device of fw-device for measurements, and commands that are timed on it."""
import json
from pathlib import Path

from programs import run

HERE = Path(__file__).resolve().parent


def made_device(environment, directory):
    run([environment.programs / "fw-device", "init", directory], environment.work / "device.log")
    return directory


def program_on_device(environment, device, program, *arguments):
    """What a program of this directory prints as its last line, read as JSON."""
    output = run([environment.programs / "fw-device", "run", "--keep", HERE, device, "--", "/usr/bin/python3", "-B",
                  HERE / program, *map(str, arguments)], environment.work / "device.log")
    return json.loads(output.splitlines()[-1])


def seconds_on_device(environment, device, commands, repetitions):
    """Seconds of each command of a table of them by name, in turns."""
    return program_on_device(environment, device, "timed_on_device.py", repetitions, json.dumps(commands))
