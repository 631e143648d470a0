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
from programs import Environment, Failed
from results import Results
from topics import TOPICS

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / "build" / "release"


def arguments():
    parser = argparse.ArgumentParser(prog="bench/run", add_help=False)
    parser.add_argument("--only", action="append", choices=TOPICS, metavar="TOPIC")
    parser.add_argument("--peers", action="store_true")
    parser.add_argument("--repetitions", type=int, default=9)
    parser.add_argument("--output", type=Path)
    chosen = parser.parse_args()
    if chosen.repetitions < 1:
        parser.error("--repetitions must be at least 1")
    if chosen.output is None:
        chosen.output = ROOT / ("build/bench" if chosen.only else "docs/benchmarks")
    return chosen


def build():
    log = ROOT / "build" / "bench-build.log"
    log.parent.mkdir(exist_ok=True)
    print(f"bench: building (the log is in {log.relative_to(ROOT)})", flush=True)
    commands = (["cmake", "--preset", "release"],
                ["cmake", "--build", "--preset", "release", "--parallel", str(os.cpu_count()),
                 "--target", "benchmarks"])
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
    (directory / "results.md").write_text(report.markdown(results), encoding="utf-8")
    (directory / "chart.svg").write_text(chart.svg(results), encoding="utf-8")


def say(results, directory):
    for figure in results.figures:
        print(report.figure_row(figure))
    met, goals = report.goals_met(results)
    print(f"{met} of {goals} goals are met; written to {directory}")


def main():
    chosen = arguments()
    build()
    work = BUILD / "bench-work"  # stays visible on the devices of the programs, also below /tmp
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    environment = Environment(BUILD / "bin", BUILD / "lib", work, chosen.repetitions, chosen.peers)
    results = Results(machine.describe(work), chosen.repetitions)
    run_topics(chosen.only or list(TOPICS), environment, results)
    write(results, chosen.output)
    say(results, chosen.output)
    sys.exit(1 if results.failures else 0)


if __name__ == "__main__":
    main()
