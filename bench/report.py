#!/usr/bin/env python3
"""report.py RESULTS NAME: makes of the rounds of a contest, read from standard input, RESULTS/NAME.md (tables), NAME.csv (the
same in numbers) and a plot NAME-task.svg for each task.

For NAME "sizes", "messages" and "counts" the input is that of bench_whole, "task,who,x,round,seconds": a ratio is the time of the bare
primitives divided by the contestant's, taken round by round; tables show the median and the quartiles of these. For NAME "memory"
it is "task,who,x,round,KiB": tables show the median growth over an empty body; for NAME "tool" it is that of tool.py, and the base is
`openssl cms`.
"""
import csv
import datetime
import os
import platform
import re
import statistics
import subprocess
import sys

BASES = {"tool": "openssl cms"}  # and "primitives" else


def said(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def machine():
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        model = next((line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")), "?")
    load = ", ".join("%.1f" % value for value in os.getloadavg())
    packages = "libssl3 libbotan-2-19 libnss3 libqca-qt5-2 libqca-qt5-2-plugins gpgsm"
    versions = said("dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *packages.split())
    return (f"{datetime.date.today()}, {model}, {os.cpu_count()} cores, {platform.machine()}; load at the end {load}.\n"
            f"{'; '.join(versions.splitlines())}.\n")


def label(x, name):
    if name == "counts" or x < 1024:
        return str(x)
    for unit, size in (("GB", 1 << 30), ("MB", 1 << 20), ("KB", 1 << 10)):
        if x >= size and x % size == 0:
            return f"{x // size} {unit}"
    return str(x)


def quartiles(values):
    if len(values) < 2:
        return values[0], values[0], values[0]
    return tuple(statistics.quantiles(values, n=4, method="inclusive"))


def short(ratio):
    return f"{ratio:.2f}" if ratio >= 0.1 else f"{ratio:.2g}"


def duration(seconds):
    for unit, size in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= size or unit == "us":
            return f"{seconds / size:.3g} {unit}"
    return ""


class Results:
    def __init__(self, rows, base):
        self.base = base
        self.values = {}  # (task, who, x) -> {round: value}
        self.tasks, self.contestants, self.points = [], {}, {}
        for task, who, x, turn, value in rows:
            key = (task, who, int(x))
            self.values.setdefault(key, {})[int(turn)] = float(value)
            if task not in self.tasks:
                self.tasks.append(task)
            for known, one in ((self.contestants.setdefault(task, []), who), (self.points.setdefault(task, []), int(x))):
                if one not in known:
                    known.append(one)

    def median(self, *key):
        values = self.values.get(key)
        return None if values is None else statistics.median(values.values())

    def ratios(self, task, who, x):
        own, base = self.values.get((task, who, x)), self.values.get((task, self.base, x))
        if own is None or base is None:
            return None
        return quartiles([base[turn] / own[turn] for turn in own if turn in base and own[turn] > 0])


def plot(path, title, axes, lines):
    """lines: [(who, [(x, y)])]"""
    commands = [f'set terminal svg size 760,460 dynamic background "white"', f'set output "{path}"', f'set title "{title}"',
                "set logscale x", "set grid", "set key outside right", *axes]
    data = []
    parts = []
    for number, (who, points) in enumerate(lines):
        data.append(f"$d{number} << EOD\n" + "\n".join(f"{x} {y}" for x, y in points) + "\nEOD")
        parts.append(f'$d{number} using 1:2 with linespoints linewidth 2 title "{who}"')
    script = "\n".join(data + commands + ["plot " + ", ".join(parts)])
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    folder, name = sys.argv[1:3]
    os.makedirs(folder, exist_ok=True)
    reader = csv.reader(sys.stdin)
    next(reader)
    results = Results(reader, BASES.get(name, "primitives"))
    out, numbers = [f"# {name.capitalize()}\n", machine()], []
    if name == "tool":
        out.append("Ratios: processor time of `openssl cms` (3.0) divided by norvcrypt's, a process each, from its start to its end; "
                   "above 1 is faster; median of the rounds (first and third quartile). One run, in turns.\n")
    elif name != "memory":
        out.append("Ratios: processor time of the bare primitives divided by the contestant's, above 1 is faster; median of the "
                   "rounds (first and third quartile). Primitives make and read no structure. One run, contestants in turns.\n")
    else:
        out.append("Growth of the peak memory over that with an empty body, in MiB.\n")
    for task in results.tasks:
        points = results.points[task]
        head = [label(x, name) for x in points]
        out += [f"## {task}\n", "| | " + " | ".join(head) + " |", "|---|" + "---|" * len(head)]
        lines = []
        for who in results.contestants[task]:
            cells, line = [], []
            for x in points:
                value = results.median(task, who, x)
                if value is None:
                    cells.append("-")
                    continue
                if name == "memory":
                    cells.append(f"{value / 1024:.1f}")
                    line.append((x, max(value / 1024, 0.05)))
                    numbers.append((task, who, x, f"{value:.0f}", "", "", ""))
                    continue
                ratio = results.ratios(task, who, x)
                numbers.append((task, who, x, f"{value:.4g}", *(f"{part:.4g}" for part in (ratio or ()))))
                if who == results.base:
                    cells.append(duration(value))
                elif ratio:
                    cells.append(f"{short(ratio[1])} ({short(ratio[0])}-{short(ratio[2])})")
                else:
                    cells.append(duration(value))
                line.append((x, value * 1e6 if name == "counts" else ratio[1] if ratio else 0))
            out.append(f"| {who} | " + " | ".join(cells) + " |")
            if line:
                lines.append((who, line))
        out.append("")
        image = f"{name}-{re.sub('[^a-z0-9]+', '-', task.lower()).strip('-')}.svg"
        axes = {
            "sizes": ['set xlabel "bytes"', 'set ylabel "primitives / contestant, processor time"', "set yrange [0:*]"],
            "messages": ['set xlabel "bytes"', 'set ylabel "primitives / contestant, processor time"', "set yrange [0:*]"],
            "tool": ['set xlabel "bytes"', 'set ylabel "openssl cms / norvcrypt, processor time"', "set yrange [0:*]"],
            "counts": ['set xlabel "number"', 'set ylabel "microseconds of processor time"', "set logscale y"],
            "memory": ['set xlabel "bytes"', 'set ylabel "MiB above an empty body"', "set logscale y"],
        }[name]
        plot(os.path.join(folder, image), task, axes, lines)
        out.append(f"![{task}]({image})\n")
    with open(os.path.join(folder, name + ".md"), "w", encoding="utf-8") as table:
        table.write("\n".join(out))
    with open(os.path.join(folder, name + ".csv"), "w", encoding="utf-8", newline="") as table:
        writer = csv.writer(table, lineterminator="\n")
        unit = "KiB" if name == "memory" else "seconds"
        writer.writerow(["task", "who", "x", unit, "ratio_first_quartile", "ratio_median", "ratio_third_quartile"])
        writer.writerows(numbers)


main()
