"""Asks the program that runs the library."""

import json
import subprocess
import tempfile


class Program:
    """Answers tasks, one after another. A program that dies is an answer, too, and is started anew."""

    def __init__(self, path):
        self.path = path
        self.process = None
        self.deaths = []
        self.said = tempfile.TemporaryFile()

    def ask(self, task):
        if self.process is None:
            self.process = subprocess.Popen([self.path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.said)
        line = json.dumps(task).encode() + b"\n"
        try:
            self.process.stdin.write(line)
            self.process.stdin.flush()
        except BrokenPipeError:
            pass
        answer = self.process.stdout.readline()
        if answer:
            return json.loads(answer)
        self.process.communicate()
        code = self.process.returncode
        said = self.last_words()
        self.process = None
        if code == 2:
            raise RuntimeError(said)
        self.deaths.append((task, said))
        return {"failed": "DIED " + said[-2000:], "died": True}

    def end(self):
        """Also what is only told at the end: leaks."""
        if self.process is None:
            return 0, ""
        self.process.communicate()
        return self.process.returncode, self.last_words()

    def last_words(self):
        self.said.seek(0)
        return self.said.read().decode("utf-8", "replace")[-4000:]
