# SPDX-License-Identifier: Apache-2.0
"""Writes results as Markdown."""

SCALES = (("s", 1), ("ms", 1e-3), ("µs", 1e-6), ("ns", 1e-9))


def seconds(value):
    for unit, scale in SCALES:
        if value >= scale or scale == SCALES[-1][1]:
            return f"{value / scale:.3g} {unit}"


def quantity(value, unit):
    if unit == "s":
        return seconds(value)
    if unit == "times":
        return f"{value:.0f}"
    return f"{value:.2f} {unit}".strip()


def spread(values, unit):
    return f"{quantity(min(values), unit)} – {quantity(max(values), unit)}"


def figure_row(figure):
    goal = "" if figure.goal is None else f"≤ {figure.goal:g} {figure.unit}".strip()
    if not figure.values:
        return f"| {figure.what} | {goal} | not measured | | {figure.note} |"
    met = {True: "yes", False: "**no**", None: ""}[figure.met]
    measured = quantity(figure.median, figure.unit)
    unsteady = "" if figure.steady else ", unsteady"
    return f"| {figure.what} | {goal} | {measured} | {spread(figure.values, figure.unit)}{unsteady} | {met} |"


def measurement_row(measurement):
    values = spread(measurement.values, measurement.unit) if len(measurement.values) > 1 else ""
    return f"| {measurement.what} | {quantity(measurement.median, measurement.unit)} | {values} |"


def goals_met(results):
    with_goal = [figure for figure in results.figures if figure.goal is not None]
    return sum(figure.met is True for figure in with_goal), len(with_goal)


def topics(results):
    return list(dict.fromkeys(measurement.topic for measurement in results.measurements))


def markdown(results, page="../benchmarks.md"):
    """page is where the explanations are, as a link from the table."""
    met, goals = goals_met(results)
    lines = [
        "# Results of the benchmarks",
        "",
        f"Written by `bench/run`; [{page}]({page}) says what each line means.",
        f"{met} of {goals} goals are met. Medians of {results.repetitions} measurements.",
        "",
        "![Each figure as a share of its goal](chart.svg)",
        "",
        "| what | goal | measured | spread | met |",
        "|---|---|---|---|---|",
        *map(figure_row, results.figures),
    ]
    lines += [f"\nFailed: {topic}: {reason}" for topic, reason in results.failures.items()]
    lines += ["", "## The machine", "", "| | |", "|---|---|"]
    lines += [f"| {name} | {value} |" for name, value in results.machine.items()]
    lines += ["", "## What the figures are made of"]
    for topic in topics(results):
        picture = ["", "![Where the time of a whole update goes](steps.svg)"] if topic == "steps" else []
        lines += ["", f"### {topic}", *picture, "", "| what | median | spread |", "|---|---|---|"]
        lines += [measurement_row(found) for found in results.measurements if found.topic == topic]
    return "\n".join(lines) + "\n"
