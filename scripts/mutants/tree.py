"""The copy of the tree whose libraries hold all mutants."""

import bisect
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

from .places import Source

ROOT = pathlib.Path(__file__).resolve().parents[2]
COPY = ROOT / "build/mutants/tree"
BUILD = COPY / "build/mutants"
CHANGED = re.compile(r"(src/(openssl|CMS\w*|Hasher)|extras/\w+/src)/.*\.cpp$")
OBJECTS = ("norvcrypto_objects", "norvkeystore_objects", "norvtrust_objects", "norvsmime_walk", "norvsmime_objects")
# What these test starts programs, which is another process and no mutant, or is no test of what is changed.
NOT_MET = re.compile(r"tests/(tool|interop|milter|examples|docs|faults|secrets|fuzz|platform|authority|vectors)/|common/|extras/trust/tests/agreement/")
# The last of these tells of the constant that was to be known when it is compiled, below a complaint about its use.
COMPLAINT = re.compile(r"^(\S+?\.cpp):(\d+):(\d+):\s+(?:error:|required from here|note: .*(was not initialized with a constant expression|declared here))", re.M)
PATIENCE = 4


def said(*command, folder=ROOT):
    return subprocess.run(command, cwd=folder, check=True, capture_output=True, text=True).stdout


def shell(command):
    done = subprocess.run(["bash", "-c", f"source scripts/common.sh; {command}"], cwd=COPY, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode == 0, done.stdout


def put(path, contents):
    """Writes what is another than it was: what is as it was is not compiled again."""
    if not path.exists() or path.read_bytes() != contents:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(contents)


class Tree:
    """Numbers the mutants of all sources and builds them. Those that do not compile are left out."""

    def __init__(self):
        self.names = [name for name in said("git", "ls-files", "-co", "--exclude-standard").splitlines() if (ROOT / name).is_file()]
        self.sources = {name: Source(name, (ROOT / name).read_text()) for name in sorted(self.names) if CHANGED.match(name)}
        self.mutants, self.first, number = {}, {}, 1
        for name, source in self.sources.items():
            self.first[name] = number
            self.mutants.update(enumerate(source.mutants, number))
            number += len(source.mutants) // 64 * 64 + 128  # so that few more do not move those of other files, which would be compiled again
        self.kept = COPY.parent / "refused.json"
        self.refused = set(map(tuple, json.loads(self.kept.read_text()))) if self.kept.exists() else set()

    def state(self):
        """What the tests reach depends on."""
        return "".join(source.text for source in self.sources.values()) + str(sorted(self.refused)) + str(self.first)

    def copy(self):
        assert COPY != ROOT and COPY.is_relative_to(ROOT / "build")
        for name in self.names:
            if name not in self.sources:
                put(COPY / name, (ROOT / name).read_bytes())
                (COPY / name).chmod((ROOT / name).stat().st_mode)
        here = set(self.names)
        for top in {name.split("/")[0] for name in here} - {"build"}:
            for path in (COPY / top).rglob("*") if (COPY / top).is_dir() else []:
                if path.is_file() and str(path.relative_to(COPY)) not in here and "__pycache__" not in path.parts:
                    path.unlink()
        for name in self.sources:
            self.write(name)

    def write(self, name):
        """The places of what was written: {index: (start, end)}, and the text."""
        source = self.sources[name]
        numbers = {index: self.first[name] + index for index, mutant in enumerate(source.mutants) if mutant.key() not in self.refused}
        text, places = source.written(numbers)
        put(COPY / name, ('#include "Active.h"\n#line 1\n' + text).encode())
        return text, places

    def refuse(self, complaints, tries):
        """Leaves out the innermost mutant at each place that the compiler complains of, or all of a line that it goes on about."""
        found = 0
        for name, lines in complaints.items():
            text, places = self.write(name)
            starts = [0] + [match.end() for match in re.finditer("\n", text)]
            for line, columns in lines.items():
                tries[name, line] = tries.get((name, line), 0) + 1
                chosen = set()
                for column in columns if tries[name, line] < PATIENCE else ():
                    at = starts[line - 1] + column - 1
                    around = [(end - start, index) for index, (start, end) in places.items() if start <= at < end]
                    chosen |= {min(around)[1]} if around else set()
                if not chosen:
                    end = starts[line] if line < len(starts) else len(text)
                    chosen = {index for index, (start, stop) in places.items() if start < end and stop > starts[line - 1]}
                found += len(chosen)
                self.refused |= {self.sources[name].mutants[index].key() for index in chosen}
            self.write(name)
        put(self.kept, json.dumps(sorted(self.refused)).encode())
        return found

    def complaints(self, output):
        """{file: {line: {column, ...}}}"""
        places, found = [], {}
        for path, line, column, constant in COMPLAINT.findall(output):
            name = os.path.relpath(os.path.normpath(os.path.join(BUILD, path)), COPY)
            if constant:
                mutants = self.sources[name].mutants if name in self.sources else ()
                if not places or not any(one.line == int(line) and one.key() not in self.refused for one in mutants):
                    continue
                places.pop()
            places.append((name, int(line), int(column)))
        for name, line, column in places:
            if name in self.sources:
                found.setdefault(name, {}).setdefault(line, set()).add(column)
        return found

    def build(self, tell, only=""):
        built, output = shell("configure mutants")
        if not built:
            sys.exit(output[-4000:])
        tries = {}
        while True:
            built, output = shell(f"cmake --build {shlex.quote(str(BUILD))} --parallel 2 --target {' '.join(OBJECTS)} -- -k 0")
            if built:
                break
            found = self.refuse(self.complaints(output), tries)
            tell(f"The compiler refuses {found} mutants more, {len(self.refused)} in all")
            if found == 0:
                sys.exit(output[-4000:])
        programs = {target: where for target, where in self.programs().items() if re.search(only, target)}
        tell(f"Building {len(programs)} test programs")
        built, output = shell(f"cmake --build {shlex.quote(str(BUILD))} --parallel 2 --target {' '.join(sorted(programs))} -- -k 0")
        if not built:
            tell(output[-3000:])
        return {target: where for target, where in programs.items() if (BUILD / "bin" / target).exists()}

    def programs(self):
        """{test program: the folders of its tests}."""
        found = {}
        for entry in json.loads((BUILD / "compile_commands.json").read_text()):
            name = os.path.relpath(entry["file"], COPY)
            if name.endswith("Test.cpp") and not NOT_MET.match(name):
                words = shlex.split(entry["command"])
                target = re.search(r"CMakeFiles/([^/]+)\.dir/", words[words.index("-o") + 1])[1]
                found.setdefault(target, set()).add(os.path.dirname(name))
        return found
