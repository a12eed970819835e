"""Asks the program that runs the library."""

import json
import os
import select
import subprocess
import tempfile
import time

# Of one task, in a build with sanitizers on a busy machine. What takes longer is a finding.
SECONDS = 60


class Program:
    """Answers tasks, one after another. A program that dies or does not answer is a finding, and is started anew."""

    def __init__(self, path):
        self.path = path
        self.process = None
        self.deaths = []  # (task, what was said last)
        self.said = tempfile.TemporaryFile()

    def ask(self, task):
        if self.process is None:
            self.process = subprocess.Popen([self.path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.said, bufsize=0)
        try:
            written, octets = 0, json.dumps(task).encode() + b"\n"
            while written < len(octets):
                written += self.process.stdin.write(octets[written:])
        except BrokenPipeError:
            pass
        answer = self.line()
        if answer.endswith(b"\n"):
            return json.loads(answer)
        return self.died(task)

    def line(self):
        """The answer; without the end of its line when there is none, or none in time."""
        answer, until = b"", time.monotonic() + SECONDS
        while not answer.endswith(b"\n"):
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, until - time.monotonic()))
            some = os.read(self.process.stdout.fileno(), 1 << 16) if ready else b""
            if not some:
                break
            answer += some
        return answer

    def died(self, task):
        try:
            self.process.stdin.close()
            self.process.wait(timeout=5)
            said = self.last_words()
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            said = f"no answer in {SECONDS} seconds"
        code = self.process.returncode
        self.process = None
        if code == 2:
            raise RuntimeError(said)
        self.deaths.append((task, said))
        return {"failed": "DIED " + said[-2000:], "died": True}

    def end(self):
        """What went wrong: deaths on the way, and what is only told at the end, leaks."""
        wrong = [f"died at {str(task)[:500]}: {said}" for task, said in self.deaths]
        if self.process is not None:
            self.process.communicate()
            if self.process.returncode != 0:
                wrong.append(self.last_words())
        return wrong

    def last_words(self):
        self.said.seek(0)
        return self.said.read().decode("utf-8", "replace")[-4000:]
