"""Draws the plots as SVG, readable on light and on dark pages."""

import math
from html import escape

from rows import GROWTH

WIDTH = 900

STYLE = """
text { font-family: sans-serif; font-size: 12px; fill: #24292f }
.title { font-size: 15px; font-weight: bold }
.panel { font-size: 13px; font-weight: bold }
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


class Drawing:
    def __init__(self, height):
        self.height = height
        self.parts = []

    def text(self, x, y, text, kind="", anchor="start", turn=None):
        turned = f' transform="rotate({turn} {x:.1f} {y:.1f})"' if turn else ""
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}"'
                          f'{turned}>{escape(text)}</text>')

    def line(self, x1, y1, x2, y2, kind):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>')

    def bar(self, x1, x2, y, height, kind):
        left, width = min(x1, x2), max(abs(x2 - x1), 1)
        self.parts.append(f'<rect x="{left:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height}" '
                          f'class="{kind}"/>')

    def curve(self, points, kind):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{path}" class="line {kind}"/>')

    def svg(self):
        return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{self.height}" '
                          f'viewBox="0 0 {WIDTH} {self.height}">', f"<style>{STYLE}</style>",
                          *self.parts, "</svg>", ""])


class Axis:
    """Values to places between start and end, with round ticks."""

    def __init__(self, low, high, start, end, logarithmic, ticks=None):
        self.start, self.end, self.logarithmic = start, end, logarithmic
        if logarithmic:
            self.ticks = ticks or [10 ** e for e in range(math.floor(math.log10(low)),
                                                          math.ceil(math.log10(high)) + 1)]
            low, high = min(low, self.ticks[0]), max(high, self.ticks[-1])
        else:
            step = 10 ** math.floor(math.log10(high / 2))
            step *= next(factor for factor in (1, 2, 5, 10) if high / (step * factor) <= 6)
            low, high = 0, step * math.ceil(high / step)
            self.ticks = ticks or [step * i for i in range(round(high / step) + 1)]
        self.low, self.high = self.scale(low), self.scale(high)

    def scale(self, value):
        return math.log(value) if self.logarithmic else value

    def place(self, value):
        share = (self.scale(value) - self.low) / (self.high - self.low)
        return self.start + share * (self.end - self.start)


def number(value):
    return f"{value:,.10g}".replace(",", " ")


def ticks_around(low, high):
    """Round numbers, the last of them beyond the highest value."""
    steps = (0.2, 0.5, 0.7, 1, 1.5, 2, 3, 5, 10, 20, 50, 100)
    return [tick for before, tick, after in zip((0, *steps), steps, (*steps[1:], 1000))
            if after > low and before < high]


def bars(title, rows, caption):
    """How many times as good as its peer each row is, on a logarithmic axis; right of 1 is better."""
    rows = [row for row in rows if row.peer is not None]
    drawing = Drawing(28 * len(rows) + 118)
    bottom = drawing.height - 48
    values = [row.times_as_good(row.ratio) for row in rows]
    goals = [row.times_as_good(row.goal) for row in rows if row.goal is not None]
    low, high = min(values + goals + [0.9]), max(values + goals + [1.6])
    axis = Axis(low, high, 330, 690, True, ticks_around(low, high))

    drawing.text(12, 24, title, "title")
    place = 12
    legend = [("met", "goal met"), ("missed", "goal missed"), ("none", "no goal")]
    kinds = {row.verdict() or "none" for row in rows}
    for kind, label in [entry for entry in legend if goals and entry[0] in kinds]:
        drawing.bar(place, place + 14, 38, 10, kind)
        drawing.text(place + 20, 47, label)
        place += 110
    if goals:
        drawing.line(place + 7, 36, place + 7, 50, "goal")
        drawing.text(place + 16, 47, "goal")
    drawing.text(702, 47, "ours / its")

    for tick in axis.ticks:
        drawing.line(axis.place(tick), 58, axis.place(tick), bottom, "axis" if tick == 1 else "grid")
        drawing.text(axis.place(tick), bottom + 16, number(tick), "small", "middle")
    drawing.text((axis.start + axis.end) / 2, bottom + 36, f"{caption} (logarithmic)", "small", "middle")
    for index, row in enumerate(rows):
        y = 66 + 28 * index
        drawing.text(318, y + 6, row.what, "", "end")
        drawing.text(318, y + 18, f"beside {row.peer_name}", "small", "end")
        drawing.bar(axis.place(1), axis.place(row.times_as_good(row.ratio)), y, 14, row.verdict() or "none")
        if row.goal is not None:
            goal = axis.place(row.times_as_good(row.goal))
            drawing.line(goal, y - 3, goal, y + 17, "goal")
        drawing.text(702, y + 11, f"{row.ours} / {row.peer}")
    return drawing.svg()


def growth(family, figures):
    plan = GROWTH[family]
    drawing = Drawing(440)
    drawing.text(12, 24, plan["title"], "title")
    width = (WIDTH - 20) / len(plan["panels"])
    for index, panel in enumerate(plan["panels"]):
        draw_panel(drawing, plan, panel, figures, 20 + index * width, width)
    return drawing.svg()


def draw_panel(drawing, plan, panel, figures, left, width):
    title, unit, convert, logarithmic, series = panel
    numbers = plan["numbers"]
    values = {name: [convert(figures[n][name], n) for n in numbers] for _, name in series}
    highest = max(max(row) for row in values.values())
    lowest = min(min(row) for row in values.values())
    many = numbers[-1] > 20
    across = Axis(numbers[0], numbers[-1], left + 58, left + width - 24, many, list(numbers))
    if not many:
        across.low, across.high = numbers[0], numbers[-1]
    up = Axis(lowest, highest, 384, 112, logarithmic)

    drawing.text(left + 58, 54, title, "panel")
    for index, (label, name) in enumerate(series):
        x, y = left + 58 + index % 2 * 185, 74 + index // 2 * 18
        kind = style_of(index, name)
        drawing.curve([(x, y - 4), (x + 26, y - 4)], kind)
        drawing.text(x + 32, y, label)
    for tick in up.ticks:
        drawing.line(across.start, up.place(tick), across.end, up.place(tick), "grid")
        drawing.text(across.start - 8, up.place(tick) + 4, number(tick), "small", "end")
    drawing.text(left + 8, 248, axis_title(unit), "small", "middle", -90)
    drawing.line(across.start, 384, across.end, 384, "axis")
    drawing.line(across.start, 112, across.start, 384, "axis")
    for tick in numbers:
        drawing.line(across.place(tick), 384, across.place(tick), 388, "axis")
        drawing.text(across.place(tick), 402, number(tick), "small", "middle")
    drawing.text((across.start + across.end) / 2, 424, plan["axis"] + (" (logarithmic)" if many else ""),
                 "small", "middle")
    for index, (_, name) in enumerate(series):
        points = [(across.place(n), up.place(value)) for n, value in zip(numbers, values[name])]
        drawing.curve(points, style_of(index, name))


def style_of(index, name):
    return f"c{index}" + ("" if name.split("/")[1] in ("bv", "find", "find-absent", "fill") else " peer")


def axis_title(unit):
    return {"1/s": "calls a second", "ns": "ns", "us": "µs", "ms": "ms (logarithmic)"}[unit]
