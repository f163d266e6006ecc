"""Writes docs/benchmarks.md."""

import os
import platform
import subprocess

from measure import rounded
from rows import FAMILIES, GROWTH, PEERS, REASONS, SHORT


def machine():
    model = "unknown processor"
    with open("/proc/cpuinfo") as file:
        for line in file:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip().replace("(R)", "").replace("(TM)", "")
                break
    compiler = subprocess.run(["c++", "-dumpversion"], capture_output=True, text=True).stdout.strip()
    busy = os.getloadavg()[1] / os.cpu_count()
    state = "otherwise idle" if busy < 1.5 else f"busy: {busy:.1f} programs wanted each processor"
    kernel = ".".join(platform.release().split(".")[:2])
    return (f"{platform.machine()}, {os.cpu_count()} processors ({model}), Linux {kernel}, "
            f"{' '.join(platform.libc_ver())}, GCC {compiler}; {state}")


def aligned(lines):
    """A Markdown table of a head and rows of cells."""
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    lines = [lines[0], ["-" * width for width in widths], *lines[1:]]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
                     for line in lines)


def by_family(rows, head, cells):
    lines, last = [["", *head]], None
    for family in FAMILIES:
        for row in (row for row in rows if row.family == family):
            lines.append(["" if family == last else FAMILIES[family], *cells(row)])
            last = family
    return aligned(lines)


def goals_table(rows):
    def cells(row):
        goal = "" if row.goal is None else f"{row.way} {row.goal:g}"
        ratio = f"{row.ratio:.3g} ({row.spread[0]:.3g}-{row.spread[1]:.3g})" if row.spread else ""
        return [row.what, row.ours, row.peer_name, row.peer or "", ratio, goal, row.verdict()]

    return by_family(rows, ["what", "ours", "beside", "its figure", "ratio (quartiles)", "goal", ""], cells)


def target_table(rows):
    def cells(row):
        return [row.what, row.ours, row.peer_name, row.peer or "", f"{row.ratio:.2f}" if row.ratio else ""]

    return by_family(rows, ["what", "ours", "beside", "its count", "ratio"], cells)


def growth_table(family, figures):
    plan = GROWTH[family]
    columns = [(title.split(":")[0], f"{label}, {unit}", convert, name)
               for title, unit, convert, _, series in plan["panels"] for label, name in series]
    heads = [head for _, head, _, _ in columns]
    lines = [[plan["axis"]] + [head if heads.count(head) == 1 else f"{title}: {head}"
                               for title, head, _, _ in columns]]
    for number in plan["numbers"]:
        lines.append([str(number)] + [rounded(convert(figures[number][name], number))
                                      for _, _, convert, name in columns])
    return aligned(lines)


def short_table(target, rows):
    counts = {(row.family, row.what): row.ours for row in target}
    times = {}
    for row in rows:
        times.setdefault((row.family, row.what), row.ours)
    lines = [["what", "gateway, instructions", "workstation"]]
    for label, counted, timed in SHORT:
        lines.append([label, counts.get(counted, ""), times.get(timed, "")])
    return aligned(lines)


def missed_list(rows):
    lines = []
    for row in rows:
        if row.verdict() != "missed":
            continue
        reason = REASONS.get((row.what, row.peer_name), "")
        beside = "" if row.peer is None else f", beside {row.peer_name}"
        lines.append(f"- {FAMILIES[row.family]}: {row.what}{beside}: {row.ratio:.3g}, goal {row.way} "
                     f"{row.goal:g}. {reason}".rstrip())
    return lines


def document(rows, target, grown, plots):
    missed = sum(row.verdict() == "missed" for row in rows)
    goals = sum(row.goal is not None for row in rows)
    text = [
        "# Benchmarks", "",
        "Written by `make bench`; run it again rather than editing this page.", "",
        "## What things cost", "",
        short_table(target, rows), "",
        f"{goals - missed} of {goals} goals are met" + ("; the others, and why, stand at the end." if missed else "."), "",
        f"Workstation: {machine()}. Gateway: 32-bit little-endian MIPS with musl, the library built for "
        "size as its packages are. Instructions are counted there, under emulation, because times of an "
        "emulator say nothing; the kernel's are not in the count.", "",
        "## Beside others", "",
        "On the workstation. Each figure stands beside a peer's from the same run, with 21 repetitions "
        "of both mixed; the ratio is their median. \"At most\" limits our time divided by the peer's, "
        "\"at least\" the peer's divided by ours. Where times are noise, instructions or system calls are "
        "counted. The names of the peers are explained further down.", "",
        goals_table(rows), "",
    ]
    for family, name in plots.items():
        if family not in grown and family != "target":
            text += [f"![{FAMILIES[family]}: times as fast as the peer]({name})", ""]
    text += ["## On the gateway", "",
             "Instructions of one call, or of one byte where the row says so. The peers do the same work "
             "with the gateway's libraries.", "",
             target_table(target), "",
             f"![Instructions on the gateway]({plots['target']})", "",
             "## Growth", ""]
    for family, figures in grown.items():
        text += [f"### {GROWTH[family]['title']}", "", GROWTH[family]["note"], "",
                 f"![{GROWTH[family]['title']}]({plots[family]})", "", growth_table(family, figures), ""]
    text += ["## Who stands beside", "", *(f"- {name}: {meaning}" for name, meaning in PEERS.items()), ""]
    if missed:
        text += ["## Missed", "", *missed_list(rows), ""]
    return "\n".join(text)
