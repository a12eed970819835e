#!/usr/bin/env python3
"""Runs the inputs of packages through the library, beside openssl, and writes a page of what became of each.

    run.py PROGRAM STORE PAGE NAME=VERSION=FOLDER..."""

import collections
import concurrent.futures
import pathlib
import subprocess
import sys
import threading

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
    def __init__(self, program, store):
        self.program, self.store = program, store
        self.mine = threading.local()
        self.programs = []

    def ours(self):
        if not hasattr(self.mine, "program"):
            self.mine.program = ours.Program(self.program)
            self.programs.append(self.mine.program)
        return self.mine.program

    def file(self, one):
        one.store(self.store)
        try:
            return files.results(one, self.ours(), self.store)
        except subprocess.TimeoutExpired as late:
            return [files.Result(one, one.kind or "nothing known", "differs", [("openssl did not answer", str(late), None)])]

    def package(self, name, folder):
        found = []
        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            for some in pool.map(self.file, inputs.of_folder(name, folder)):
                found += some
        for kind, origin, task, expected in primitives.of_package(name, folder):
            found.append(Number(name, kind, origin, task, expected, self.ours().ask(task)))
        for result in found:
            if result.outcome == "differs":
                result.reason = reasons.reason_for(result)
        return found

    def end(self):
        """What the sanitizers say at the end."""
        return [said for code, said in (program.end() for program in self.programs) if code != 0]


HEAD = """# Files of other projects

What other projects test themselves with, read by this library beside the `openssl` program, or against the result that stands in
the file. `scripts/foreign-vectors` fetches the source packages from Debian, runs it and makes this page; do not edit it.

- **inputs**: files, PEM blocks wherever they stand, or test vectors of an algorithm; each once, however often a package has it.
  A file in DER is tried as everything, since nothing says what it is.
- **read**: both read it, and agree on all facts: the encoding, names, times, key, extensions, usages; that a signature is good,
  and what it signs. **refused**: neither accepts it.
- **differs**: the number leads to the reason. What differs without one fails the run.

What goes through a message ("in a message") is put into CMS for it, as that is the way to the algorithm here. Left out are vectors
that fit no way: AES-GCM with further authenticated data, vectors that Project Wycheproof calls acceptable, key wrap that has to fail
(in a message that looks like any wrong key), RSA decryption to anything but a key, ciphers and key derivation that are not offered.
"""


def page(packages, results):
    lines = [HEAD]
    numbers = {}
    for name, version, _ in packages:
        lines += [f"\n## {name} {version}\n", "| kind | inputs | read | refused | differs |", "|---|---|---|---|---|"]
        kinds = collections.defaultdict(list)
        for result in results:
            if result.package == name:
                kinds[result.kind].append(result)
        for kind, some in sorted(kinds.items()):
            count = collections.Counter(result.outcome for result in some)
            why = collections.Counter(result.reason or "**not explained**" for result in some if result.outcome == "differs")
            cells = ", ".join(f"{times} [{numbers.setdefault(reason, len(numbers) + 1)}]" for reason, times in sorted(why.items()))
            lines.append(f"| {kind} | {len(some)} | {count['read']} | {count['refused']} | {cells or 0} |")
    lines += ["\n## Reasons\n", *(f"{number}. {reason}" for reason, number in numbers.items())]
    return "\n".join(lines) + "\n"


def main():
    program, store, target, *given = sys.argv[1:]
    packages = [one.split("=", 2) for one in given]
    runner = Runner(program, pathlib.Path(store))
    results = []
    for name, version, folder in packages:
        found = runner.package(name, folder)
        results += found
        print(f"{name} {version}: {len(found)} inputs", file=sys.stderr)
    pathlib.Path(target).write_text(page(packages, results))
    unexplained = [result for result in results if result.outcome == "differs" and result.reason is None]
    for result in unexplained:
        print(f"not explained: {result.package} {result.kind} {result.origin}: {str(result.differences)[:600]}", file=sys.stderr)
    complaints = runner.end()
    for said in complaints:
        print(said, file=sys.stderr)
    return 1 if unexplained or complaints else 0


sys.exit(main())
