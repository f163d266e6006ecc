# SPDX-License-Identifier: ISC
"""Draws the plots as SVG, readable on light and on dark pages."""

import math
from html import escape

WIDTH = 900
STYLE = """
text { font-family: sans-serif; font-size: 12px; fill: #24292f }
.title { font-size: 15px; font-weight: bold }
.small { font-size: 11px; fill: #59636e }
.axis { stroke: #59636e; fill: none }
.grid { stroke: #8c959f; stroke-opacity: 0.3 }
.met { fill: #1f9d8a } .missed { fill: #d9742b } .none { fill: #7d8590 }
.goal { stroke: #24292f; stroke-width: 2 }
.line { fill: none; stroke-width: 2 }
.peer { stroke-dasharray: 5 4 }
.c0 { stroke: #1f9d8a } .c1 { stroke: #3f7fd6 } .c2 { stroke: #d9742b } .c3 { stroke: #a765c9 }
@media (prefers-color-scheme: dark) {
  text { fill: #e6edf3 }
  .small { fill: #9198a1 }
  .axis { stroke: #9198a1 }
  .goal { stroke: #e6edf3 }
}
"""


def text(x, y, words, kind="", anchor="start", turn=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}"{turn}>{escape(words)}</text>'


def line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def bar(x1, x2, y, height, kind):
    return (f'<rect x="{min(x1, x2):.1f}" y="{y:.1f}" width="{max(abs(x2 - x1), 1):.1f}" height="{height}" '
            f'class="{kind}"/>')


def curve(points, kind):
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    return f'<polyline points="{path}" class="line {kind}"/>'


def svg(height, parts):
    size = f'width="{WIDTH}" height="{height}" viewBox="0 0 {WIDTH} {height}"'
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" {size}>', f"<style>{STYLE}</style>", *parts, "</svg>", ""])


def scale(low, high, start, end, convert=math.log):
    """Values between low and high to places between start and end."""
    low, high = convert(low), convert(high)
    return lambda value: start + (convert(value) - low) / (high - low) * (end - start)


def round_ticks(high):
    """Round numbers from 0 to beyond the highest value."""
    step = 10 ** math.floor(math.log10(high / 2))
    step *= next(factor for factor in (1, 2, 5, 10) if high / (step * factor) <= 6)
    return [step * i for i in range(math.ceil(high / step) + 1)]


def bars(title, rows, caption):
    """How many times as good as its peer each row is, on a logarithmic axis; right of 1 is better."""
    height = 28 * len(rows) + 118
    bottom = height - 48
    goals = [row.times_as_good(row.goal) for row in rows if row.goal]
    values = goals + [row.times_as_good(row.ratio) for row in rows]
    steps = (0.1, 0.2, 0.5, 0.7, 1, 1.5, 2, 3, 5, 10, 20, 50, 100, 1000)
    first = max(step for step in steps if step < min(values + [0.9]))
    last = min(step for step in steps if step > max(values + [1.4]))
    place = scale(first, last, 330, 690)

    parts = [text(12, 24, title, "title"), text(702, 47, "ours / its")]
    if goals:
        parts += [bar(12, 26, 38, 10, "met"), text(32, 47, "goal met"), bar(122, 136, 38, 10, "missed"),
                  text(142, 47, "goal missed"), bar(232, 246, 38, 10, "none"), text(252, 47, "no goal"),
                  line(330, 36, 330, 50, "goal"), text(339, 47, "goal")]
    for tick in (step for step in steps if first <= step <= last):
        parts += [line(place(tick), 58, place(tick), bottom, "axis" if tick == 1 else "grid"),
                  text(place(tick), bottom + 16, f"{tick:g}", "small", "middle")]
    parts.append(text(510, bottom + 36, f"{caption} (logarithmic)", "small", "middle"))
    for y, row in zip(range(66, height, 28), rows):
        parts += [text(318, y + 6, row.what, "", "end"), text(318, y + 18, f"beside {row.peer_name}", "small", "end"),
                  bar(place(1), place(row.times_as_good(row.ratio)), y, 14, row.verdict() or "none"),
                  text(702, y + 11, f"{row.ours} / {row.peer}")]
        if row.goal:
            goal = place(row.times_as_good(row.goal))
            parts.append(line(goal, y - 3, goal, y + 17, "goal"))
    return svg(height, parts)


def growth(plan, figures):
    width = (WIDTH - 20) / len(plan["panels"])
    parts = [text(12, 24, plan["title"], "title")]
    for index, panel in enumerate(plan["panels"]):
        parts += draw_panel(plan, panel, figures, 78 + index * width, (index + 1) * width - 4)
    return svg(440, parts)


def draw_panel(plan, panel, figures, left, right):
    title, unit, convert, logarithmic, series = panel
    numbers = plan["numbers"]
    curves = [[convert(figures[number][name], number) for number in numbers] for _, name in series]
    low, high = min(map(min, curves)), max(map(max, curves))
    ticks = round_ticks(high)
    if logarithmic:
        ticks = [10 ** e for e in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)]
    many = numbers[-1] > 20
    across = scale(numbers[0], numbers[-1], left, right, math.log if many else float)
    up = scale(ticks[0], ticks[-1], 384, 112, math.log if logarithmic else float)

    parts = [text(left, 54, title), line(left, 384, right, 384, "axis"), line(left, 112, left, 384, "axis"),
             text((left + right) / 2, 424, plan["axis"] + (" (logarithmic)" if many else ""), "small", "middle"),
             text(left - 50, 248, unit + (" (logarithmic)" if logarithmic else ""), "small", "middle",
                  f' transform="rotate(-90 {left - 50:.1f} 248)"')]
    for tick in ticks:
        parts += [line(left, up(tick), right, up(tick), "grid"),
                  text(left - 8, up(tick) + 4, f"{tick:,.10g}".replace(",", " "), "small", "end")]
    for number in numbers:
        parts += [line(across(number), 384, across(number), 388, "axis"),
                  text(across(number), 402, str(number), "small", "middle")]
    for index, (label, name) in enumerate(series):
        x, y = left + index % 2 * 185, 74 + index // 2 * 18
        kind = f"c{index}" + ("" if name.split("/")[1] in ("bv", "find", "find-absent", "fill") else " peer")
        parts += [curve([(x, y - 4), (x + 26, y - 4)], kind), text(x + 32, y, label),
                  curve(zip(map(across, numbers), map(up, curves[index])), kind)]
    return parts
