"""What the programs have in common."""

import os
import re
import shutil
import subprocess
from dataclasses import dataclass, field
from pathlib import Path


class Refused(Exception):
    """The program did not do it; its own words."""


class Cannot(Exception):
    """The program does not know the algorithm or the form, or has no way to be asked for it."""


@dataclass
class Setting:
    """Where everything is."""

    people: Path  # root.pem, NAME.pem, NAME.key
    work: Path
    ours: Path  # norvcrypt
    programs: Path  # the built peers
    pkijs: Path | None = None  # a folder with node_modules
    environment: dict = field(default_factory=dict)

    def pem(self, who):
        return str(self.people / f"{who}.pem")

    def key(self, who):
        return str(self.people / f"{who}.key")

    def run(self, arguments, given=b"", directory=None, seconds=60):
        environment = dict(os.environ, LC_ALL="C", **self.environment)
        return subprocess.run(
            [str(one) for one in arguments],
            input=given,
            capture_output=True,
            cwd=directory or self.work,
            env=environment,
            timeout=seconds,
            check=False,
        )


def lines_of(octets, setting=None):
    """What a program said, without places and colours."""
    text = octets.decode("utf-8", "replace")
    text = re.sub(r"\x1b\[[0-9;]*m", "", text)
    if setting:
        for folder in (setting.work, setting.people, setting.programs):
            text = text.replace(str(folder) + "/", "").replace(str(folder), "")
    return [" ".join(line.split()) for line in text.splitlines() if line.strip()]


class Peer:
    """A program: what it is asked for, in octets. `signature` and `envelope` are what jobs say of a layer."""

    name = ""
    note = ""  # for the page
    unknown: tuple = ()  # patterns in its words that mean: it does not know the algorithm

    def __init__(self, setting):
        self.setting = setting

    def missing(self):
        """Why it is not there; None when it is."""
        return None

    def version(self):
        raise NotImplementedError

    def prepare(self):
        pass

    def close(self):
        pass

    def sign(self, part, signature):
        raise Cannot("it does not sign")

    def verify(self, mail, signature):
        raise Cannot("it does not verify")

    def encrypt(self, part, envelope):
        raise Cannot("it does not encrypt")

    def decrypt(self, mail, envelope):
        raise Cannot("it does not decrypt")

    # The layers of a message: each "signature" or "envelope", the outermost last.
    def write(self, sender, layers, part):
        for layer in layers:
            part = self.sign(part, layer) if layer.signs else self.encrypt(part, layer)
        return part

    def read(self, mail, layers):
        """What is in the middle of a mail."""
        for layer in reversed(layers):
            mail = self.verify(mail, layer) if layer.signs else self.decrypt(mail, layer)
        return mail

    def succeeds(self, arguments, given=b"", **more):
        """What a program wrote. Raises Cannot or Refused with its words."""
        done = self.setting.run(arguments, given, **more)
        if done.returncode != 0:
            self.fail(done.stderr + done.stdout if not done.stderr.strip() else done.stderr)
        return done.stdout

    def reason(self, lines):
        """The line that tells why."""
        told = [line for line in lines if not line.startswith("Press any key")]
        return told[-1] if told else "no reason given"

    def fail(self, said):
        lines = lines_of(said, self.setting)
        reason = re.sub(r"\b[0-9A-F]{16}:error:", "error:", self.reason(lines))  # a thread, another each time
        if any(re.search(pattern, line) for pattern in self.unknown for line in lines):
            raise Cannot(reason)
        raise Refused(reason)


def has(*programs):
    missing = [one for one in programs if shutil.which(one) is None]
    return f"{' and '.join(missing)} not installed" if missing else None
