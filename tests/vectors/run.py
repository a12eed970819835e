#!/usr/bin/env python3
"""Runs the inputs of packages through the library, beside openssl, and writes the tables of docs/foreign-vectors.md.

    run.py PROGRAM STORE TABLES MINUTES NAME=VERSION=FOLDER..."""

import collections
import concurrent.futures
import os
import pathlib
import subprocess
import sys
import threading
import time

import files
import inputs
import ours
import primitives
import reasons


class Number:
    """What became of one test vector of an algorithm."""

    def __init__(self, package, kind, origin, task, expected, answer):
        self.package, self.kind, self.origin, self.task = package, kind, str(origin), task
        self.label, self.der, self.is_parameters = "", b"", False
        good = primitives.agrees(task, expected, answer)
        self.outcome = ("refused" if expected is False else "read") if good else "differs"
        self.differences = [] if good else [("answer", expected, answer)]
        self.reason = None


class Runner:
    def __init__(self, program, store, minutes):
        self.program, self.store = program, store
        self.mine = threading.local()
        self.programs = []
        self.until = time.monotonic() + 60 * minutes
        self.left_out = 0
        self.walked = {}

    def ours(self):
        if not hasattr(self.mine, "program"):
            self.mine.program = ours.Program(self.program)
            self.programs.append(self.mine.program)
        return self.mine.program

    def in_time(self):
        late = time.monotonic() > self.until
        self.left_out += late
        return not late

    def file(self, one):
        if not self.in_time():
            return []
        one.store(self.store)
        try:
            return files.results(one, self.ours(), self.store)
        except subprocess.TimeoutExpired as late:
            return [files.Result(one, one.kind or "nothing known", "differs", [("openssl did not answer", str(late), None)])]

    def number(self, package, folder, vector):
        if not self.in_time():
            return []
        kind, origin, task, expected = vector
        return [Number(package, kind, pathlib.Path(origin).relative_to(folder), task, expected, self.ours().ask(task))]

    def package(self, name, folder):
        found = []
        self.walked[name] = collections.Counter()
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            for some in pool.map(self.file, inputs.of_folder(name, folder, self.walked[name])):
                found += some
            for some in pool.map(lambda vector: self.number(name, folder, vector), primitives.of_package(name, folder)):
                found += some
        for result in found:
            if result.outcome == "differs":
                result.reason = reasons.reason_for(result)
        return found

    def end(self):
        """What went wrong besides answers: deaths, and what the sanitizers say at the end."""
        return [said for program in self.programs for said in program.end()]


UNEXPLAINED = "**not explained**"


def tables(packages, results, walked):
    lines, numbers, places = [], {}, collections.defaultdict(collections.Counter)
    for name, version, _ in packages:
        some = walked[name]
        lines += [f"\n## {name} {version}\n",
                  f"{some['files']:,} files, {some['with inputs']:,} of them with a certificate, list, key, store or message in them.\n",
                  "| path | files | run | agreed: both read | agreed: neither accepts | differed |", "|---|---|---|---|---|---|"]
        kinds = collections.defaultdict(list)
        for result in results:
            if result.package == name:
                kinds[result.kind].append(result)
        whole = [result for some in kinds.values() for result in some]
        for kind, some in [*sorted(kinds.items()), ("all", whole)]:
            count = collections.Counter(result.outcome for result in some)
            why = collections.Counter(result.reason or UNEXPLAINED for result in some if result.outcome == "differs")
            cells = ", ".join(f"{times} [{numbers.setdefault(reason, len(numbers) + 1)}]" for reason, times in sorted(why.items()))
            if kind == "all":
                cells = f"{count['differs']:,}"
            lines.append(f"| {kind} | {len({one.origin for one in some}):,} | {len(some):,} | {count['read']:,} | {count['refused']:,} | {cells or 0} |")
        for result in whole:
            if result.outcome == "differs":
                places[result.reason or UNEXPLAINED][f"{name}: `{result.origin}`"] += 1
    lines.append("\n## Reasons\n")
    for reason, number in numbers.items():
        lines.append(f"{number}. {reason}")
        lines += [f"   - {place}" + (f" ({times})" if times > 1 else "") for place, times in sorted(places[reason].items())]
    return "\n".join(lines) + "\n"


def main():
    program, store, target, minutes, *given = sys.argv[1:]
    packages = [one.split("=", 2) for one in given]
    runner = Runner(program, pathlib.Path(store), float(minutes))
    results = []
    for name, version, folder in packages:
        began = time.monotonic()
        found = runner.package(name, folder)
        results += found
        print(f"{name} {version}: {len(found)} results in {time.monotonic() - began:.0f} seconds", file=sys.stderr)
    pathlib.Path(target).write_text(tables(packages, results, runner.walked))
    unexplained = [result for result in results if result.outcome == "differs" and result.reason is None]
    for result in unexplained:
        print(f"not explained: {result.package} {result.kind} {result.origin}: {getattr(result, 'path', '')} "
              f"{str(result.differences)[:600]}", file=sys.stderr)
    complaints = runner.end()
    if runner.left_out:
        complaints.append(f"{runner.left_out} inputs were not run, since {minutes} minutes were over")
    for said in complaints:
        print(said, file=sys.stderr)
    return 1 if unexplained or complaints else 0


sys.exit(main())
