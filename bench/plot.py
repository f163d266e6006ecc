# SPDX-License-Identifier: ISC
"""Figures as people read them: numbers, and plots as SVG for light and for dark pages."""

import math
from html import escape

STYLE = """
text { font-family: sans-serif; font-size: 12px; fill: #24292f }
.title { font-size: 15px; font-weight: bold }
.grid { stroke: #8c959f; stroke-opacity: 0.3 }
.axis, .goal { stroke: #24292f; stroke-width: 2 }
.met { fill: #1f9d8a } .missed { fill: #d9742b } .none { fill: #7d8590 }
.line { fill: none; stroke-width: 2 }
.c0 { stroke: #1f9d8a } .c1 { stroke: #3f7fd6 } .c2 { stroke: #d9742b } .c3 { stroke: #a765c9 }
@media (prefers-color-scheme: dark) { text { fill: #e6edf3 } .axis, .goal { stroke: #e6edf3 } }
"""
UNITS = {"": {1e6: " M", 0: ""}, "ns": {1e6: " ms", 1e3: " µs", 0: " ns"}}
# How the figures of a panel are made of nanoseconds and the number.
CONVERT = {"ns": lambda time, number: time, "ms": lambda time, number: time / 1e6,
           "1/s": lambda time, number: 1e9 / time, "µs": lambda time, number: time * number / 1e3}


def number(figure, unit=""):
    """To about four digits, thousands apart."""
    size = next(size for size in UNITS[unit] if figure >= size)
    figure /= size or 1
    digits = f"{figure:,.0f}".replace(",", " ") if figure >= 1000 else f"{figure:.4g}"
    return digits + UNITS[unit][size]


def text(x, y, words, anchor="start", kind=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{kind}">'
            f"{escape(words)}</text>")


def line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def svg(height, title, parts):
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 900 {height}" width="900">',
        f"<style>{STYLE}</style>", text(12, 24, title, kind="title"), *parts, "</svg>", ""])


def scale(low, high, start, end, convert=math.log):
    """Values between low and high to places between start and end, what is outside to an end."""
    span = convert(high) - convert(low)
    return lambda value: start + (end - start) * (
        convert(min(max(value, low), high)) - convert(low)) / span


def bars(side, rows):
    """A bar from 1 to each figure's worth; the dot at its end is seen also when that is 1."""
    rows = [(row, row.figures[side]) for row in rows
            if side in row.figures and row.figures[side].ratios]
    bottom = 22 * len(rows) + 66
    steps = (0.2, 0.5, 0.7, 1, 1.5, 2, 3, 5, 10, 20, 50)
    place = scale(steps[0], steps[-1], 372, 740)
    parts = [text(12, 46, "Right of 1 is better than the peer. Green: goal met; orange: missed; "
                          "grey: no goal. The stroke is the goal. At the right: ours / its.")]
    for step in steps:
        parts += [line(place(step), 58, place(step), bottom, "axis" if step == 1 else "grid"),
                  text(place(step), bottom + 16, f"{step:g}", "middle")]
    for y, (row, figure) in zip(range(74, bottom, 22), rows):
        x, kind = place(figure.worth(figure.ratio)), figure.verdict or "none"
        left, width = min(x, place(1)), abs(x - place(1))
        parts += [text(360, y + 4, f"{row.what}, beside {row.peer}", "end"),
                  f'<g class="{kind}"><circle cx="{x:.1f}" cy="{y}" r="5"/>',
                  f'<rect x="{left:.1f}" y="{y - 4}" width="{width:.1f}" height="8"/></g>',
                  text(752, y + 4, f"{figure.ours} / {figure.its}")]
        if figure.verdict:
            goal = place(figure.worth(figure.limit))
            parts.append(line(goal, y - 9, goal, y + 9, "goal"))
    return svg(bottom + 30, f"Times as good as the peer, on the {side}", parts)


def growth(plan):
    parts = []
    for left, panel in zip((78, 518), plan["panels"]):
        parts += draw_panel(plan, *panel, left, left + 358)
    return svg(440, plan["title"], parts)


def draw_panel(plan, title, unit, axis, series, left, right):
    numbers = list(plan["figures"])
    curves = [[CONVERT[unit](figures[name], n) for n, figures in plan["figures"].items()]
              for _, name in series]
    low, high = min(map(min, curves)), max(map(max, curves))
    if axis == "log":
        exponents = range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)
        ticks = [10.0 ** exponent for exponent in exponents]
    else:
        step = next(f * 10 ** e for e in range(9) for f in (1, 2, 5) if high <= f * 10 ** e * 6)
        ticks = [step * i for i in range(math.ceil(high / step) + 1)]
    across = scale(numbers[0], numbers[-1], left, right, math.log if numbers[-1] > 20 else float)
    up = scale(ticks[0], ticks[-1], 384, 112, math.log if axis == "log" else float)
    parts = [text(left, 54, f"{title}, {unit}"),
             text((left + right) / 2, 424, plan["axis"], "middle")]
    for tick in ticks:
        parts += [line(left, up(tick), right, up(tick), "grid"),
                  text(left - 8, up(tick) + 4, number(tick), "end")]
    parts += [text(across(n), 402, str(n), "middle") for n in numbers]
    for index, ((label, _), curve) in enumerate(zip(series, curves)):
        x, y, kind = left + index % 2 * 185, 74 + index // 2 * 18, f"line c{index}"
        path = " ".join(f"{across(n):.1f},{up(value):.1f}" for n, value in zip(numbers, curve))
        parts += [line(x, y - 4, x + 26, y - 4, kind), text(x + 32, y, label),
                  f'<polyline points="{path}" class="{kind}"/>']
    return parts
