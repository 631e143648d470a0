# SPDX-License-Identifier: Apache-2.0
"""Builds the benchmarks, runs the topics and writes what they found. bench/run calls
this and says what the options mean."""
import argparse
import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

import chart
import machine
import report
import steps
from programs import Environment, Failed
from results import Results
from topics import TOPICS

ROOT = Path(__file__).resolve().parent.parent.parent

# What a topic needs of the build; the others need a program of their own name.
TARGETS = {
    "checksum": ["bench-image-crc"],
    "memory": ["bench-resident-memory"],
    "lock": ["bench-update-lock"],
    "update": ["benchmarks"],
    "steps": ["bench-whole-update", "bench-keep-cached"],
    "growth": ["bench-whole-update", "bench-keep-cached"],
    "trace": ["bench-trace-storage"],
    "traces": ["bench-trace-reading"],
    "answer": ["benchmarks"],
    "service": ["benchmarks"],
}


def arguments():
    parser = argparse.ArgumentParser(prog="bench/run", add_help=False)
    parser.add_argument("--only", action="append", choices=TOPICS, metavar="TOPIC")
    parser.add_argument("--peers", action="store_true")
    parser.add_argument("--i386", action="store_true")
    parser.add_argument("--repetitions", type=int, default=9)
    parser.add_argument("--output", type=Path)
    chosen = parser.parse_args()
    if chosen.repetitions < 1:
        parser.error("--repetitions must be at least 1")
    if chosen.i386 and chosen.peers:
        parser.error("--peers compares with programs of this system, which --i386 does not measure")
    if chosen.output is None:
        kept = ROOT / ("build/bench" if chosen.only else "docs/benchmarks")
        chosen.output = kept / "i386" if chosen.i386 else kept
    return chosen


def targets(names):
    return sorted({target for name in names for target in TARGETS.get(name, [f"bench-{name}"])})


def build(preset, names):
    log = ROOT / "build" / "bench-build.log"
    log.parent.mkdir(exist_ok=True)
    print(f"bench: building (the log is in {log.relative_to(ROOT)})", flush=True)
    commands = (["cmake", "--preset", preset],
                ["cmake", "--build", f"build/{preset}", "--parallel", str(os.cpu_count()), "--target", *targets(names)])
    with open(log, "wb") as output:
        for command in commands:
            if subprocess.run(command, cwd=ROOT, stdout=output, stderr=output, check=False).returncode != 0:
                sys.exit(f"bench: the build failed; {log.relative_to(ROOT)} says why")


def run_topics(names, environment, results):
    for number, name in enumerate(names, start=1):
        print(f"bench: {name} ({number} of {len(names)})", flush=True)
        start = time.monotonic()
        try:
            results.add(TOPICS[name](environment))
        except (Failed, OSError, ValueError, KeyError, subprocess.SubprocessError) as error:
            results.failures[name] = str(error) or repr(error)
            print(f"bench:   failed: {results.failures[name]}", flush=True)
        print(f"bench:   {time.monotonic() - start:.0f} s", flush=True)


def write(results, directory):
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "results.json").write_text(json.dumps(results.as_json(), indent=1, ensure_ascii=False) + "\n",
                                            encoding="utf-8")
    page = os.path.relpath(ROOT / "docs" / "benchmarks.md", directory)
    (directory / "results.md").write_text(report.markdown(results, page), encoding="utf-8")
    (directory / "chart.svg").write_text(chart.svg(results), encoding="utf-8")
    if picture := steps.svg(results):
        (directory / "steps.svg").write_text(picture, encoding="utf-8")


def say(results, directory):
    for figure in results.figures:
        print(report.figure_row(figure))
    met, goals = report.goals_met(results)
    print(f"{met} of {goals} goals are met; written to {directory}")


def main():
    chosen = arguments()
    names = chosen.only or list(TOPICS)
    preset = "i386-release" if chosen.i386 else "release"
    build(preset, names)
    directory = ROOT / "build" / preset
    work = directory / "bench-work"  # stays visible on the devices of the programs, also below /tmp
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    environment = Environment(directory / "bin", directory / "lib", work, chosen.repetitions, chosen.peers)
    build_of = {"Build": "32 bits" if chosen.i386 else "64 bits"}
    results = Results({**machine.describe(work), **build_of}, chosen.repetitions)
    run_topics(names, environment, results)
    write(results, chosen.output)
    say(results, chosen.output)
    sys.exit(1 if results.failures else 0)


if __name__ == "__main__":
    main()
