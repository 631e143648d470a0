# SPDX-License-Identifier: Apache-2.0
"""Draws the figures that have a goal: each as a share of what its goal allows, so
that one line stands for all goals."""
from xml.sax.saxutils import escape

from report import quantity

LABELS = 330  # width of the column of texts
GOAL = 330  # length of a bar that just meets its goal
ROW = 26
TOP = 56
GREATEST = 1.45  # longer bars are cut off here
WIDTH = round(LABELS + GOAL * GREATEST + 240)

COLOURS = {True: "#2a8a4a", False: "#c2410c"}


def text(x, y, content, anchor="start", colour="#1f2328"):
    return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" fill="{colour}">{escape(content)}</text>'


def line(x1, y1, x2, y2, style):
    return f'<line x1="{x1:.0f}" y1="{y1:.0f}" x2="{x2:.0f}" y2="{y2:.0f}" {style}/>'


def place(value, figure):
    return LABELS + GOAL * min(value / figure.goal, GREATEST)


def row(figure, y):
    middle = y + ROW / 2 - 3
    end = place(figure.median, figure)
    values = f"{quantity(figure.median, figure.unit)} (goal {figure.goal:g}{'' if figure.steady else '; unsteady'})"
    whisker = line(place(min(figure.values), figure), middle, place(max(figure.values), figure), middle,
                   'stroke="#1f2328" stroke-width="1.5"')
    return [
        text(LABELS - 10, middle + 4, figure.label, "end"),
        f'<rect x="{LABELS}" y="{y + 2}" width="{end - LABELS:.0f}" height="{ROW - 10}" '
        f'fill="{COLOURS[figure.met]}"/>',
        whisker,
        text(max(end, place(max(figure.values), figure), LABELS + GOAL) + 8, middle + 4, values),
    ]


def svg(results):
    figures = [figure for figure in results.figures if figure.met is not None]
    height = TOP + ROW * len(figures) + 16
    goal = LABELS + GOAL
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" '
        f'height="{height}" font-family="sans-serif" font-size="13">',
        "<title>Each figure as a share of its goal</title>",
        f'<rect width="{WIDTH}" height="{height}" fill="#ffffff"/>',
        text(12, 22, "Cost as a share of what the goal allows; shorter is better"),
        text(12, 40, results.machine.get("Processor", ""), colour="#59636e"),
        text(goal, 40, "goal", "middle"),
    ]
    for number, figure in enumerate(figures):
        parts += row(figure, TOP + ROW * number)
    parts += [line(goal, TOP - 10, goal, height - 10, 'stroke="#59636e" stroke-dasharray="4 3"'), "</svg>"]
    return "\n".join(parts) + "\n"
