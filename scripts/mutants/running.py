"""Which tests reach which mutants, and what they say of them."""

import concurrent.futures
import hashlib
import json
import os
import re
import subprocess
import threading

from .tree import BUILD, COPY

SCRATCH = COPY.parent / "scratch"
ENVIRONMENT = {"NORV_MUTANTS": "1", "MALLOC_PERTURB_": "165", "TMPDIR": str(SCRATCH)}


class Server:
    """A test program that has started once, and runs tests in processes of their own: tests/mutants/driver/Main.cpp."""

    def __init__(self, program, mutant=0):
        SCRATCH.mkdir(parents=True, exist_ok=True)
        self.process = subprocess.Popen([BUILD / "bin" / program], cwd=BUILD, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        stderr=subprocess.DEVNULL, env=dict(os.environ, NORV_MUTANT=str(mutant), **ENVIRONMENT))

    def ask(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            return ""
        return self.process.stdout.readline().rstrip("\n")

    def names(self):
        found, name = [], self.ask("list")
        while name:
            found.append(name)
            name = self.process.stdout.readline().rstrip("\n")
        return found

    def run(self, what, seconds, names):
        """(outcome, case, milliseconds)"""
        words = self.ask(f"{what} {seconds:.1f} {':'.join(names)}").split()
        return (words[0], words[1], int(words[2])) if len(words) == 3 else ("died", "at its start", 0)

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


class Reached:
    """{program: {case: [milliseconds, [number, ...]]}}, each case in a process of its own: nothing was made for it by another."""

    def __init__(self, state, programs, tell):
        self.programs, self.tell = programs, tell
        self.kept = COPY.parent / "reached.json"
        self.state = hashlib.sha256(state.encode()).hexdigest()
        self.cases, self.early = {}, set()
        known = json.loads(self.kept.read_text()) if self.kept.exists() else {}
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for program, found in zip(programs, pool.map(lambda one: self.of(one, known.get(one)), programs)):
                known[program] = found
                self.cases[program] = found["cases"]
                self.early |= set(found["early"])
        self.kept.write_text(json.dumps(known))

    def of(self, program, known):
        binary = BUILD / "bin" / program
        state = f"{self.state} {binary.stat().st_mtime_ns}"
        if known and known["state"] == state:
            return known
        server, cases = Server(program), {}
        early = list(map(int, server.ask("early").split()))
        for name in server.names():
            if "DISABLED_" in name:
                continue
            outcome, _, took = server.run("reached", 60, [name])
            numbers = list(map(int, server.process.stdout.readline().split()))
            if outcome == "passed":
                cases[name] = [took, numbers]
            else:
                self.tell(f"{program} {name}: {outcome} without a mutant: left out")
        server.close()
        return {"state": state, "early": early, "cases": cases}


class Meeting:
    """Shows mutants to the tests that reach them: those of the module first, and of these the ones that told others of the file."""

    def __init__(self, reached, seconds, first):
        self.seconds, self.early, self.first = seconds, reached.early, first
        self.programs, self.cases = reached.programs, reached.cases
        self.by_number = {}
        for program, cases in reached.cases.items():
            for name, (took, numbers) in cases.items():
                for number in numbers:
                    self.by_number.setdefault(number, {}).setdefault(program, []).append((took, name))
        self.own = threading.local()
        self.tellers = {}  # {file: {case: how often it told}}

    def module(self, program, file):
        """0 for a program that is to be met first, or of the tests of the file's module, 1 for another."""
        if self.first and re.search(self.first, program):
            return 0
        folder = re.match(r"src/(\w+)|extras/\w+", file)
        wanted = f"tests/{folder[1]}" if folder[1] else f"{folder[0]}/tests"
        return int(not any(where == wanted or where.startswith(f"{wanted}/") for where in self.programs[program]))

    def groups(self, number, file):
        """[(program, [case, ...], milliseconds)]"""
        programs = dict(self.by_number.get(number, {}))
        if number in self.early:
            for program, cases in self.cases.items():
                programs[program] = [(took, name) for name, (took, _) in cases.items()]
        told = self.tellers.get(file, {})
        found = []
        for program, cases in programs.items():
            good = sorted((case for case in cases if case[1] in told and case[0] < 1000), key=lambda case: -told[case[1]])[:6]
            if good:
                found.append((-1, -max(told[case[1]] for case in good), program, good))
            group, took, size = [], 0, 150
            for case in sorted(case for case in cases if case not in good):
                if group and took + case[0] > size:
                    found.append((self.module(program, file), took, program, group))
                    group, took, size = [], 0, size * 3
                group.append(case)
                took += case[0]
            if group:
                found.append((self.module(program, file), took, program, group))
        found.sort(key=lambda one: one[:3])
        return [(program, [name for _, name in group], sum(took for took, _ in group)) for _, _, program, group in found]

    def server(self, program):
        servers = self.own.__dict__.setdefault("servers", {})
        if program not in servers or servers[program].process.poll() is not None:
            servers[program] = Server(program)
        return servers[program]

    def show(self, number, file):
        """(outcome, by)"""
        groups = self.groups(number, file)
        if not groups:
            return "not reached", ""
        spent, met, all_cases = 0, 0, sum(len(names) for _, names, _ in groups)
        for program, names, took in groups:
            if spent > self.seconds * 1000:
                break
            early = number in self.early
            server = Server(program, number) if early else self.server(program)
            outcome, name, lasted = server.run(number, 3 + 8 * took / 1000, names)
            if early:
                server.close()
            if outcome != "passed":
                told = self.tellers.setdefault(file, {})
                told[name] = told.get(name, 0) + 1
                return "timed out" if outcome == "late" else "killed", f"{program} {name}"
            spent += lasted  # less than one by one: they share what some of them make
            met += len(names)
        return "survived", f"{met} of {all_cases}"
