#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the steps of ./check and counts their tests into one closing line.

usage: check-steps.py LEVEL [--list] [--step NAME]... [-- CTEST-ARGUMENT...]

LEVEL is quick, all or long. A step is an executable tests/steps/NN-name; NN gives the
order in which steps start, two at a time. Comment lines at its top say when it runs:

  # Step of ./check --all: what it does      (or "./check", or "./check --long")
  # After: dev                               (optional: waits for these steps' end;
                                              everything: for that of all others)

A step of ./check also runs with --all, and one of --all also with --long. It runs in
the repository's root, with its output in build/check/NAME.log and with

  FW_CHECK_RESULTS    the file into which it writes its tests as JUnit XML, like ctest's
                      --output-junit; tests/run-case writes it for a list of commands
  FW_CHECK_LEVEL      quick, all or long, for steps that do more in the long form
  FW_CHECK_DIRECTORY  build/check/NAME, a directory of its own, kept between runs
  FW_CHECK_JOBS       how many processes it may keep busy

Exit code 0: its tests tell the result. 77: the step cannot run here; its last line of
output says why, and it counts as one skipped test "NAME", to be declared in
tests/declared-skips.txt. Anything else without a failed test counts as one failed test.
A failing step does not stop the others. A test that passed only when it was run once more
counts as failed, and so does each step that had not ended when the check was stopped.
"""
import argparse
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

import summary

ROOT = pathlib.Path(__file__).resolve().parent.parent
OUTPUT = ROOT / "build" / "check"
LEVELS = ["quick", "all", "long"]
LEVEL_OF_COMMAND = {"./check": "quick", "./check --all": "all", "./check --long": "long"}
STEPS_AT_ONCE = 2
SKIPPED = 77


class Step:
    def __init__(self, path):
        self.path = path
        self.order, self.name = path.name.split("-", 1)
        text = path.read_text(encoding="utf-8")
        heading = re.search(r"^# Step of (\./check(?: --\w+)?): (.*)$", text, re.MULTILINE)
        if not heading:
            sys.exit(f"{path}: no line \"# Step of ./check ...: title\"")
        self.level, self.title = LEVEL_OF_COMMAND[heading[1]], heading[2]
        after = re.search(r"^# After: (.*)$", text, re.MULTILINE)
        self.after = after[1].split() if after else []
        self.started, self.process = 0.0, None

    def waits_for(self, unfinished):
        return bool(unfinished - {self.name} if self.after == ["everything"] else unfinished.intersection(self.after))

    def runs_at(self, level):
        return LEVELS.index(self.level) <= LEVELS.index(level)

    def environment(self, level):
        directory = OUTPUT / self.name
        directory.mkdir(parents=True, exist_ok=True)
        return {**os.environ, "FW_CHECK_RESULTS": str(self.results()), "FW_CHECK_LEVEL": level,
                "FW_CHECK_DIRECTORY": str(directory),
                "FW_CHECK_JOBS": os.environ.get("FW_CHECK_JOBS", str(os.cpu_count()))}

    def results(self):
        return OUTPUT / f"{self.name}.xml"

    def log(self):
        return OUTPUT / f"{self.name}.log"

    def start(self, level, arguments):
        """Starts the step in a session of its own and returns its process id."""
        self.results().unlink(missing_ok=True)
        self.started = time.monotonic()
        with open(self.log(), "wb") as log:
            self.process = subprocess.Popen([self.path, *arguments], cwd=ROOT, stdout=log,
                                            stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                            env=self.environment(level), start_new_session=True)
        return self.process.pid

    def end(self, status):
        """Takes the exit code and returns the step's cases."""
        self.process.returncode = status
        output = self.log().read_text(encoding="utf-8", errors="replace")
        cases = summary.read_cases(self.results()) if self.results().exists() else []
        cases = summary.judge_unsteady(cases, output)
        if status == SKIPPED:
            return cases + [summary.Case(self.name, "skipped", output)]
        if not cases or (status and not any(case.outcome == "failed" for case in cases)):
            cases.append(summary.Case(self.name, "failed", f"{output}\nexit code {status}"))
        return cases

    def cost(self, usage):
        """How long it took, and how long the processors worked for it: beside others it takes longer."""
        worked = usage.ru_utime + usage.ru_stime
        return f"{in_words(time.monotonic() - self.started)} ({in_words(worked)} of processor time)"


def in_words(seconds):
    minutes, seconds = divmod(round(seconds), 60)
    return f"{minutes} min {seconds} s" if minutes else f"{seconds} s"


def find_steps(level, names):
    steps = [Step(path) for path in sorted((ROOT / "tests" / "steps").glob("[0-9]*-*"))
             if os.access(path, os.X_OK)]
    unknown = set(names) - {step.name for step in steps}
    if unknown:
        sys.exit(f"no such step: {', '.join(map(ascii, sorted(unknown)))}")
    return [step for step in steps if (step.name in names if names else step.runs_at(level))]


def run_all(steps, level, arguments):
    """Runs the steps, at most two at once, and yields (step, cases) as they end."""
    waiting, running = list(steps), {}
    try:
        while waiting or running:
            unfinished = {step.name for step in [*waiting, *running.values()]}
            ready = [step for step in waiting if not step.waits_for(unfinished)]
            for step in ready[:STEPS_AT_ONCE - len(running)]:
                print(f"check: {step.name}: {step.title}", flush=True)
                running[step.start(level, arguments)] = step
                waiting.remove(step)
            process, status, usage = os.wait3(0)
            step = running.pop(process)
            cases = step.end(os.waitstatus_to_exitcode(status))
            print(f"check: {step.name}: {summary.counts(cases)} in {step.cost(usage)}", flush=True)
            yield step, cases
    finally:
        for process, step in running.items():
            os.killpg(process, signal.SIGTERM)
            step.process.wait()


def parse_arguments():
    parser = argparse.ArgumentParser(prog="check-steps.py")
    parser.add_argument("level", choices=LEVELS)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--step", action="append", default=[])
    split = sys.argv.index("--") if "--" in sys.argv else len(sys.argv)
    options = parser.parse_args(sys.argv[1:split])
    options.arguments = sys.argv[split + 1:]
    return options


def main():
    options = parse_arguments()
    steps = find_steps(options.level, options.step)
    if options.list:
        for step in steps:
            print(f"{step.name:14} {step.title}")
        return 0
    OUTPUT.mkdir(parents=True, exist_ok=True)
    patterns = summary.declared_patterns(ROOT / "tests" / "declared-skips.txt")
    results = {step.name: [summary.Case(step.name, "failed", "the check was stopped before this step had ended")]
               for step in steps}
    stopped = False
    try:
        for step, cases in run_all(steps, options.level, options.arguments):
            results[step.name] = summary.judge(step.name, cases, patterns)
    except KeyboardInterrupt:
        stopped = True
    for name, cases in results.items():
        summary.report(name, cases)
    everything = [case for cases in results.values() for case in cases]
    if stopped:
        print("check: stopped")
    print(summary.counts(everything))
    return 1 if any(case.outcome == "failed" for case in everything) else 0


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    sys.exit(main())
