# SPDX-License-Identifier: ISC
"""Draws the page's pictures."""

import matplotlib
from matplotlib import pyplot

matplotlib.use("svg")
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "bench", "font.size": 9})
COLOURS = {"met": "#1f9d8a", "missed": "#d9742b", "": "#7d8590"}


def save(figure, path):
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def bars(path, side, rows):
    """A bar from 1 to each figure's worth; the dot at its end is seen also when that is 1."""
    rows = [(row, row.figures[side]) for row in rows
            if side in row.figures and row.figures[side].ratios]
    figure, axes = pyplot.subplots(figsize=(9, 1 + 0.22 * len(rows)), layout="constrained")
    for y, (row, result) in enumerate(rows):
        worth, colour = result.worth(result.ratio), COLOURS[result.verdict]
        axes.barh(y, worth - 1, 0.5, left=1, color=colour)
        axes.plot(worth, y, "o", color=colour)
        if result.verdict:
            axes.plot(result.worth(result.limit), y, "|", color="black", markersize=12)
        axes.text(1.01, y, f"{result.ours} / {result.its}", va="center",
                  transform=axes.get_yaxis_transform())
    ticks = (0.5, 0.7, 1, 1.5, 2, 3, 5, 10, 20, 50)
    axes.axvline(1, color="black")
    axes.set(title=f"Times as good as the peer, on the {side}", xscale="log")
    axes.set_ylim(len(rows) - 0.4, -0.6)
    axes.set_yticks(range(len(rows)), [f"{row.what}, beside {row.peer}" for row, _ in rows])
    axes.set_xticks(ticks, [f"{tick:g}" for tick in ticks])
    axes.set_xticks((), minor=True)
    axes.grid(axis="x", alpha=0.3)
    save(figure, path)


def growth(path, plan, convert):
    figure, panels = pyplot.subplots(1, 2, figsize=(9, 4), layout="constrained")
    figure.suptitle(plan["title"])
    numbers = list(plan["figures"])
    for axes, (title, unit, scale, curves) in zip(panels, plan["panels"]):
        for label, name in curves:
            curve = [convert[unit](plan["figures"][n][name], n) for n in numbers]
            axes.plot(numbers, curve, label=label)
        axes.set(title=f"{title}, {unit}", xlabel=plan["axis"], yscale=scale)
        if numbers[-1] > 20:
            axes.set(xscale="log")
            axes.set_xticks((), minor=True)
        axes.set_xticks(numbers, numbers)
        if scale == "linear":
            axes.set_ylim(bottom=0)
        axes.legend()
        axes.grid(alpha=0.3)
    save(figure, path)
