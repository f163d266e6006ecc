"""Runs the benchmark programs and turns what they print into rows.

Times are compared within one run: rows of one piece of work are repeated in random order, and the
ratio is the median of the ratios of the repetitions, so what else the machine does hits both sides.
Where a goal counts instructions or system calls they are counted, which no load disturbs."""

import concurrent.futures
import json
import os
import re
import shutil
import statistics
import subprocess
import sys

from rows import AT_MOST, COUNTS, GROWTH, TARGET, TIMES

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.join(SOURCE, "tests", "support", "root")
UNITS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Row:
    def __init__(self, family, what, ours, peer_name, peer, ratio, spread=None, way=AT_MOST, goal=None):
        self.family, self.what, self.ours, self.peer_name, self.peer = family, what, ours, peer_name, peer
        self.ratio, self.spread, self.way, self.goal = ratio, spread, way, goal

    def verdict(self):
        if self.goal is None:
            return ""
        met = self.ratio <= self.goal if self.way == AT_MOST else self.ratio >= self.goal
        return "met" if met else "missed"

    def times_as_good(self, figure):
        """A ratio or goal as "so many times as fast as the peer"."""
        return 1 / figure if self.way == AT_MOST else figure


def rounded(figure):
    """To about four digits, thousands apart."""
    return f"{figure:,.0f}".replace(",", " ") if figure >= 1000 else f"{figure:.4g}"


def duration(nanoseconds):
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.4g} {unit}"
    return f"{nanoseconds:.4g} ns"


def in_root(*command, first=(), **variables):
    result = subprocess.run([*first, ROOT, *command], capture_output=True, text=True,
                            env={**os.environ, **variables})
    if result.returncode != 0:
        sys.exit(f"report: {' '.join(command)} failed:\n{result.stdout}{result.stderr}")
    return result


def time_benchmarks(build, program, pattern, repetitions, seconds, arguments=()):
    """The times of every repetition, in nanoseconds for one item, by benchmark."""
    # Threads and processes that hand work to each other are timed by the clock on the wall. Where
    # we may, they go before whatever else runs on the machine.
    ahead = os.geteuid() == 0 and shutil.which("chrt") and program in ("notifier", "rpc")
    output = in_root(
        os.path.join(build, "bench", "bench_" + program), *arguments,
        f"--benchmark_filter={pattern}", f"--benchmark_repetitions={repetitions}",
        f"--benchmark_min_time={seconds}", "--benchmark_enable_random_interleaving=true",
        "--benchmark_format=json", first=("chrt", "-r", "1") if ahead else ())
    times = {}
    for run in json.loads(output.stdout)["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        # Work that waits, for other threads or processes, is measured in real time.
        name, waits = re.subn("/(real|manual)_time$", "", run["run_name"])
        if "items_per_second" in run:
            time = 1e9 / run["items_per_second"]
        else:
            time = run["real_time" if waits else "cpu_time"] * UNITS[run["time_unit"]]
        times.setdefault(name, []).append(time)
    return times


def timed_rows(build, wanted):
    known = {}
    for family, what, program, work, peer, way, goal in TIMES:
        if not wanted(f"{family} {what} {peer}"):
            continue
        if (program, work) not in known:
            known[program, work] = time_benchmarks(build, program, f"^{work}/", 21, 0.02)
        times = {name[len(work) + 1:]: values for name, values in known[program, work].items()}
        ours = next((times[name] for name in ("bv", "bv-file", "bv-bus") if name in times), None)
        if ours is None or peer not in times:
            print(f"report: nothing to compare for {what}: {peer} is not installed", file=sys.stderr)
            continue
        pairs = zip(ours, times[peer]) if way == AT_MOST else zip(times[peer], ours)
        ratios = [first / second for first, second in pairs]
        low, middle, high = statistics.quantiles(ratios, n=4)
        yield Row(family, what, duration(statistics.median(ours)), peer,
                  duration(statistics.median(times[peer])), middle, (low, high), way, goal)


def growth(build, family):
    """For each number, its figures in nanoseconds by benchmark, N standing for the number."""
    plan = GROWTH[family]
    benchmarks = {name for panel in plan["panels"] for _, name in panel[-1]}
    patterns = "|".join(sorted(benchmarks))
    figures = {}
    for number in plan["numbers"]:
        arguments = [plan["argument"].replace("N", str(number))] if "argument" in plan else []
        pattern = re.sub(r"\bN\b", str(number), patterns)
        times = time_benchmarks(build, plan["program"], f"^({pattern})(/real_time)?$", 5, 0.01, arguments)
        figures[number] = {name: statistics.median(times[re.sub(r"\bN\b", str(number), name)])
                           for name in benchmarks}
    return figures


class Counter:
    """Counts the instructions of counting programs, on the workstation or on the gateway's
    processor. What starting a program takes is in a short and in a longer run and falls out, but for
    a few thousand that differ from run to run: the longer one has to do much more."""

    def __init__(self, build, target=None):
        self.build = target or build
        self.target_cache = None
        if target:
            script = os.path.join(SOURCE, "tools", "target", "cache.sh")
            self.target_cache = subprocess.run(["sh", "-c", f". {script}; echo $cache"], check=True,
                                               capture_output=True, text=True).stdout.strip()

    def run(self, program, name, count):
        """Items of one piece, and the instructions of every process in the order in which they end."""
        path = os.path.join(self.build, "bench", "count_" + program)
        variables = {"BV_BENCH_SCALAR": "1"}
        if self.target_cache:
            userland = os.path.join(self.target_cache, "userland-musl")
            plugin = os.path.join(self.build, "bench", "count_plugin.so")
            command = ["/usr/bin/qemu-mipsel", "-plugin", plugin, "-L", userland]
            variables["BV_ROOT_READ"] = userland
        else:
            command = ["/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
        output = in_root(*command, path, name, str(count), **variables)
        counts = re.findall(r"(?:instructions: |Collected : )(\d+)", output.stderr)
        items = re.search(r"^items (\d+)", output.stdout, re.MULTILINE)
        return int(items.group(1)), [int(count) for count in counts]

    def per_item(self, program, name, few, more):
        # In the remote calls' program the library's owner ends first, then the bare one; the
        # program itself always ends last.
        name, _, owner = name.partition(" owner")
        process = -1 if not _ else (0 if name.endswith("/bv") else 1)
        items, first = self.run(program, name, few)
        _, second = self.run(program, name, few + more)
        return (second[process] - first[process]) / (more * items)


def counted_rows(build, wanted):
    counter = Counter(build)
    for family, what, program, name, units, goal, few, more in COUNTS:
        if not wanted(f"{family} {what} counted"):
            continue
        used = counter.per_item(program, name, few, more) / units
        used = round(used, 3 if units > 1 else 0)
        yield Row(family, what, rounded(used) + " instructions", "counted", None, used, goal=goal)


def target_rows(build, target, wanted):
    counter = Counter(build, target)

    def instructions(row, who):
        family, what, program, work, _, _, units, few, more = row
        return counter.per_item(program, f"{work}/{who}", few, more) / units

    rows = [row for row in TARGET if wanted(f"{row[0]} {row[1]} mipsel")]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        both = [[pool.submit(instructions, row, who) if who else None for who in row[4:6]]
                for row in rows]
    for row, (ours, peer) in zip(rows, both):
        figures = [future and future.result() for future in (ours, peer)]
        texts = [figure and rounded(figure) for figure in figures]
        ratio = figures[0] / figures[1] if figures[1] else None
        yield Row(row[0], row[1], texts[0], (row[5] or "").replace(" owner", ""), texts[1], ratio)


def flash_rows(build, wanted):
    if not wanted("flash system calls counted"):
        return
    output = in_root(os.path.join(build, "bench", "flash_calls")).stdout
    calls = {name: int(count) for name, count in (line.split() for line in output.splitlines())}
    for way in ("read", "write"):
        fixed = calls[way + "-1B"] - 1
        moved = calls[way + "-1MiB"] - fixed
        yield Row("flash", f"{way.capitalize()} of 1 MiB, less the {fixed} of finding and opening",
                  f"{moved} system calls", "counted", None, moved, goal=128)
