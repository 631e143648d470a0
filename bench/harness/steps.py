# SPDX-License-Identifier: Apache-2.0
"""Where the time of a whole update goes: the steps between the system calls at which they begin."""
import re
import statistics
from xml.sax.saxutils import escape

from programs import Failed, run
from report import quantity
from results import Measurement

TRACE = ["strace", "--follow-forks", "--seccomp-bpf", "-ttt", "--decode-fds=path", "--trace=openat,fsync,fadvise64,rename,exit_group"]
BEGIN = r'openat\(.*"/prd/usr/fwupdate/controls/"'
IMAGE = r'openat\(.*/tunerfw\.bin"'
# Each step lasts until the next call that its pattern fits.
STEPS = (
    ("finding the module, and questions to it", IMAGE),
    ("first check of the image", "openat"),
    ("the lock, the worker and questions", IMAGE),
    ("second check, under the lock", "openat"),
    ("the module's start", r'openat\(.*\.flash\.new"'),
    ("reading, checking and writing", r"fsync\(.*\.flash\.new"),
    ("waiting for the disk", "fadvise64"),
    ("reading back from the disk", "rename"),
    ("switching to the new firmware", "exit_group"),
)
TOPIC = "steps"


def durations(lines):
    """Seconds of each step, from the lines of a trace: process, time, call."""
    calls = ((float(time), call) for _, time, call in (line.split(maxsplit=2) for line in lines))
    since = next((time for time, call in calls if re.match(BEGIN, call)), None)
    found = []
    for name, end in STEPS:
        until = next((time for time, call in calls if re.match(end, call)), None)
        if since is None or until is None:
            raise Failed(f"the trace has no end of the step: {name}")
        found.append(until - since)
        since = until
    return found


def measured_steps(environment, command):
    """One update with its calls traced."""
    trace = environment.work / "steps.strace"
    run([*TRACE, "--output", trace, *command], environment.work / "steps.log")
    with open(trace, encoding="utf-8", errors="replace") as lines:
        return durations(lines)


def measurements(runs):
    return [Measurement(TOPIC, f"{number}. {name}", list(values))
            for number, ((name, _), values) in enumerate(zip(STEPS, zip(*runs)), start=1)]


LABELS, BARS, VALUES, ROW, TOP = 290, 470, 110, 24, 40


def svg(results):
    """The steps of one update below each other, each beginning where the one before it ends; empty
    when they were not measured."""
    steps = [found for found in results.measurements if found.topic == TOPIC]
    if not steps:
        return ""
    times = [statistics.median(step.values) for step in steps]
    scale, height, begin = BARS / sum(times), TOP + ROW * len(steps) + 12, 0.0
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LABELS + BARS + VALUES} {height}" '
             f'width="{LABELS + BARS + VALUES}" height="{height}" font-family="sans-serif" font-size="13">',
             "<title>Where the time of a whole update goes</title>",
             f'<rect width="{LABELS + BARS + VALUES}" height="{height}" fill="#ffffff"/>',
             f'<text x="12" y="22" fill="#1f2328">One update, {quantity(sum(times), "s")} in all; '
             "medians, each step begins where the one before it ends</text>"]
    for number, (step, time) in enumerate(zip(steps, times)):
        left, y = LABELS + begin * scale, TOP + ROW * number
        end = left + max(time * scale, 1)
        parts += [f'<text x="{LABELS - 10}" y="{y + 15}" text-anchor="end" fill="#1f2328">'
                  f'{escape(step.what.split(". ", 1)[1])}</text>',
                  f'<rect x="{left:.1f}" y="{y + 3}" width="{end - left:.1f}" height="{ROW - 8}" fill="#2563a8"/>',
                  f'<text x="{end + 6:.1f}" y="{y + 15}" fill="#1f2328">{quantity(time, "s")}</text>']
        begin += time
    return "\n".join([*parts, "</svg>"]) + "\n"
