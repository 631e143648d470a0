# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmark programs."""
import json
import os
import re
import subprocess
from dataclasses import dataclass
from pathlib import Path


class Failed(Exception):
    """A topic cannot be measured; its text says why."""


@dataclass
class Environment:
    """What a topic runs in."""

    programs: Path  # the benchmark programs
    libraries: Path
    work: Path  # a directory of its own, on the disk that updates are written to
    repetitions: int
    peers: bool

    def program(self, name):
        return str(self.programs / f"bench-{name}")


def run(command, log, environment=None, **options):
    """Runs a command whose output matters; its messages go to the log."""
    with open(log, "ab") as messages:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=messages, text=True,
                              env={**os.environ, **(environment or {})}, **options)
    if done.returncode != 0:
        raise Failed(f"{Path(command[0]).name} ended with {done.returncode}; its messages are in {log}")
    return done.stdout


def plain_name(run_name):
    """Without what Google Benchmark adds about how it measured."""
    return re.sub(r"/(iterations:\d+|repeats:\d+|manual_time|real_time|process_time|threads:1)(?=/|$)", "", run_name)


def values_by_name(document):
    """Seconds of every repetition, in order, by benchmark."""
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}
    found = {}
    for entry in sorted(document["benchmarks"], key=lambda entry: entry.get("repetition_index", 0)):
        if entry["run_type"] != "iteration":
            continue
        name = plain_name(entry["run_name"])
        if entry.get("error_occurred"):
            raise Failed(f"{name}: {entry['error_message']}")
        found.setdefault(name, []).append(entry["real_time"] * scale[entry["time_unit"]])
    return found


def counter_values(document, counter, scale):
    """Of every repetition, in order, of a program with one benchmark."""
    entries = [entry for entry in document["benchmarks"] if entry["run_type"] == "iteration"]
    return [entry[counter] * scale for entry in sorted(entries, key=lambda entry: entry["repetition_index"])]


def google_benchmark(environment, name, *options, variables=None):
    """The JSON document of a program that uses Google Benchmark. It prints it: on a device of its own it
    can write no file."""
    printed = run([environment.program(name), f"--benchmark_repetitions={environment.repetitions}",
                   "--benchmark_enable_random_interleaving=true", "--benchmark_format=json", *options],
                  environment.work / f"{name}.log", {"FW_BENCH_DIRECTORY": str(environment.work), **(variables or {})})
    return json.loads(printed)
