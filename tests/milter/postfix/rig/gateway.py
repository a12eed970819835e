"""The filter as a process: its folders, its configuration, starting, reloading, stopping and killing it."""

import os
import pwd
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

from . import mail
from .people import hand_over
from .postfix import free_ports

USER = "nobody"


def toml(value):
    """A value as TOML writes it."""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, (int, float)):
        return str(value)
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(toml(item) for item in value) + "]"
    return '"' + str(value).replace("\\", "\\\\").replace('"', '\\"') + '"'


def table(name, entries, array=False):
    head = f"[[{name}]]" if array else f"[{name}]"
    return head + "\n" + "".join(f"{key} = {toml(value)}\n" for key, value in entries.items()) + "\n"


class Settings:
    """The configuration of a filter. Tables are dictionaries; `direction` and `rules` are lists of them, in order."""

    def __init__(self, **tables):
        self.tables = {name: dict(entries) for name, entries in tables.items()}
        self.direction = []
        self.rules = []

    def change(self, table_name, **entries):
        self.tables.setdefault(table_name, {}).update(entries)
        return self

    def text(self):
        text = ""
        for name, entries in self.tables.items():
            text += table(name, entries)
        for entries in self.direction:
            text += table("direction", entries, array=True)
        for entries in self.rules:
            text += table("outgoing.rule", entries, array=True)
        return text


def reachable(path):
    """Whether everybody may go to a file: a checkout below /root, say, is for root alone."""
    return all(parent.stat().st_mode & 0o001 for parent in Path(path).resolve().parents)


class Filter:
    """Runs as an unprivileged user; its folder holds the store, the trust anchors, the spool and the log."""

    def __init__(self, program, folder, settings, environment=None):
        self.program = Path(program).resolve()
        self.folder = Path(folder)
        self.settings = settings
        self.environment = environment or {}
        self.process = None
        self.guard = None
        self.port, = free_ports(1)
        self.store = self.folder / "identities"
        self.anchors = self.folder / "anchors"
        self.lists = self.folder / "lists"
        self.spool = self.folder / "spool"
        self.learned = self.folder / "learned"
        self.run = self.folder / "run"
        self.log = self.folder / "filter.log"
        self.config = self.folder / "filter.toml"
        for path in (self.folder, self.store, self.anchors, self.lists, self.spool, self.learned, self.run):
            path.mkdir(parents=True, exist_ok=True)
        for path in (self.folder, self.run):
            path.chmod(0o755)
        for path in (self.spool, self.learned, self.store):
            path.chmod(0o750)
        settings.tables.setdefault("milter", {}).setdefault("socket", f"inet:{self.port}@127.0.0.1")
        settings.change("milter", spool=self.spool)
        settings.change("store", directory=self.store)
        settings.tables.setdefault("trust", {}).setdefault("anchors", [str(self.anchors)])
        settings.change("metrics", socket=f"unix:{self.run}/metrics.sock")

    @property
    def address(self):
        """As smtpd_milters of Postfix names it."""
        kind, _, rest = self.settings.tables["milter"]["socket"].partition(":")
        if kind == "unix":
            return f"unix:{rest}"
        port, _, host = rest.partition("@")
        return f"inet:{host}:{port}"

    def write_settings(self):
        self.config.write_text(self.settings.text())

    def trust(self, authority):
        shutil.copy(authority.certificate, self.anchors / f"{authority.name.replace(' ', '-')}.pem")

    def own(self):
        hand_over(self.folder, USER)

    def runnable(self):
        """The program where the unprivileged user can start it, and what its libraries are found with."""
        if reachable(self.program):
            return self.program, {}
        folder = self.folder / "program"
        folder.mkdir(exist_ok=True)
        copy = folder / self.program.name
        if not copy.exists():
            shutil.copy(self.program, copy)
            for library in (self.program.parent.parent / "lib").glob("libnorv*.so*"):
                shutil.copy(library, folder / library.name)
        return copy, {"LD_LIBRARY_PATH": str(folder)}

    def start(self, wait=True):
        self.write_settings()
        self.own()
        program, libraries = self.runnable()
        size = self.log_size()
        entry = pwd.getpwnam(USER)
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen([program, "--config", self.config, "--foreground"], stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log, user=entry.pw_uid, group=entry.pw_gid, extra_groups=[],
                                            start_new_session=True, cwd=self.folder,
                                            env={**os.environ, **libraries, **self.environment})
        if self.guard:
            self.guard.session(self.process)
        # Its socket is there before it can do anything: connections wait.
        if wait and not mail.until(lambda: self.listens() and "event=loaded" in self.logged_since(size), seconds=30, every=0.02):
            raise RuntimeError(f"the filter did not start:\n{self.log_text()}")
        return self

    def listens(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the filter ended with {self.process.returncode}:\n{self.log_text()}")
        kind, _, rest = self.settings.tables["milter"]["socket"].partition(":")
        try:
            if kind == "unix":
                with socket.socket(socket.AF_UNIX) as probe:
                    probe.connect(rest)
            else:
                socket.create_connection(("127.0.0.1", int(rest.partition("@")[0])), timeout=1).close()
            return True
        except OSError:
            return False

    def log_text(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def log_size(self):
        return self.log.stat().st_size if self.log.exists() else 0

    def logged_since(self, size):
        with open(self.log, "rb") as log:
            log.seek(size)
            return log.read().decode(errors="replace")

    def workers(self):
        """The processes that the supervisor started."""
        children = []
        for task in Path(f"/proc/{self.process.pid}/task").iterdir():
            children += [int(child) for child in (task / "children").read_text().split()]
        return children

    def memory(self):
        """Of supervisor and workers together: what is held now and the most of each, in KiB."""
        held = peak = 0
        for process in [self.process.pid, *self.workers()]:
            for line in Path(f"/proc/{process}/status").read_text().splitlines():
                if line.startswith("VmRSS:"):
                    held += int(line.split()[1])
                elif line.startswith("VmHWM:"):
                    peak += int(line.split()[1])
        return held, peak

    def processor_seconds(self):
        total = 0
        for process in [self.process.pid, *self.workers()]:
            fields = Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()
            total += int(fields[11]) + int(fields[12])
        return total / os.sysconf("SC_CLK_TCK")

    def reload(self):
        self.process.send_signal(signal.SIGHUP)

    def reload_and_wait(self, seconds=30):
        """Whether everything was read anew."""
        size = self.log_size()
        self.reload()
        return mail.until(lambda: "event=reloaded" in self.logged_since(size), seconds, every=0.01)

    def kill(self):
        """As a crash of all of it. A worker is in a group of its own, and would end what it has in hand."""
        workers = self.workers() if self.process.poll() is None else []
        for process in [self.process.pid, *workers]:
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass
        # They are somebody else's children now.
        mail.until(lambda: not any(Path(f"/proc/{worker}").exists() for worker in workers), 10)
        self.ended()

    def ended(self):
        self.process.wait()
        if self.guard:
            self.guard.session_ended(self.process)
        self.process = None

    def stop(self, seconds=30):
        """Asks it to end; answers its exit code."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=seconds)
            except subprocess.TimeoutExpired:
                self.kill()
                raise RuntimeError(f"the filter did not end:\n{self.log_text()}") from None
        code = self.process.returncode
        self.ended()
        return code

    def metrics(self):
        """Name with labels -> number."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(f"{self.run}/metrics.sock")
            connection.sendall(b"GET /metrics HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
            answer = b""
            while piece := connection.recv(65536):
                answer += piece
        numbers = {}
        for line in answer.decode().partition("\r\n\r\n")[2].splitlines():
            if line and not line.startswith("#"):
                name, _, number = line.rpartition(" ")
                try:
                    numbers[name] = float(number)
                except ValueError:
                    pass
        return numbers
