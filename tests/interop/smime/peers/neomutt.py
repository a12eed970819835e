"""neomutt, with gpgsm behind it: a terminal is made for it, and keys are typed."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import termios
import time

import mail as mime
from peers.base import Cannot, has
from peers.gnupg import GnuPg

CONFIGURATION = """
set crypt_use_gpgme = yes
set smime_is_default = yes
set crypt_verify_sig = yes
set crypt_autosign = no
set crypt_confirm_hook = no
set crypt_opportunistic_encrypt = no
set autocrypt = no
set smime_self_encrypt = no
set folder = "{work}/mail"
set spoolfile = "{work}/box"
set record = ""
set postponed = "{work}/postponed"
set mbox_type = mbox
set header_cache = ""
set tmpdir = "{work}"
set pager = "{work}/keep"
set sendmail = "{work}/send"
set sendmail_wait = 0
set editor = "true"
set use_from = yes
set hostname = example.org
set realname = ""
set charset = "utf-8"
set send_charset = "utf-8"
set wait_key = no
set prompt_after = no
set quit = yes
set copy = no
set abort_unmodified = no
set sleep_time = 0
"""
KEEP = """#!/bin/sh
cp "$1" "{work}/shown"
"""
SEND = """#!/bin/sh
cat >"{work}/sent"
"""


class NeoMutt(GnuPg):
    name = "neomutt"
    note = "through a terminal, with gpgsm behind it"

    def missing(self):
        return has("neomutt") or super().missing()

    def version(self):
        said = self.succeeds(["neomutt", "-v"]).decode()
        return re.search(r"NeoMutt (\S+)", said).group(1) + ", gpgsm " + super().version()

    def prepare(self):
        super().prepare()
        work = self.setting.work
        (work / "mail").mkdir()
        (work / "configuration").write_text(CONFIGURATION.format(work=work))
        for name, text in (("keep", KEEP), ("send", SEND)):
            (work / name).write_text(text.format(work=work))
            (work / name).chmod(0o700)

    def _run(self, arguments, typed, wanted):
        """Runs it in a terminal. typed: what is waited for, and what is typed then. wanted: the file that it makes."""
        wanted.unlink(missing_ok=True)
        child, terminal = pty.fork()
        if child == 0:
            os.chdir(self.setting.work)
            os.environ.update(
                self.setting.environment, TERM="xterm", LC_ALL="C.UTF-8", HOME=str(self.setting.work), EDITOR="true"
            )
            os.execvp("neomutt", ["neomutt", "-n", "-F", str(self.setting.work / "configuration"), *arguments])
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 120, 0, 0))
        shown, seen, typed, end = b"", 0, list(typed), time.monotonic() + 20
        while time.monotonic() < end and b"Enter keyID for" not in shown:
            if not select.select([terminal], [], [], 0.5)[0]:
                continue
            try:
                more = os.read(terminal, 65536)
            except OSError:  # the other side is closed
                break
            if not more:
                break
            shown += more
            if typed and re.search(typed[0][0], shown[seen:]):
                seen = len(shown)
                time.sleep(0.2)  # it drops what was typed before it asks
                os.write(terminal, typed.pop(0)[1])
        else:
            os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)
        os.close(terminal)
        if b"Enter keyID for" in shown:
            raise Cannot("it sees no key in the certificate that it could encrypt with")
        if not wanted.exists():
            lines = re.sub(rb"\x1b[^a-zA-Z]*[a-zA-Z]", b"\n", shown).decode("utf-8", "replace").splitlines()
            self.fail("\n".join(line for line in lines if line.strip()).encode() or b"it ends without a mail")
        return wanted.read_bytes()

    def write(self, sender, layers, part):
        signs = [layer for layer in layers if layer.signs]
        encrypts = [layer for layer in layers if not layer.signs]
        if any(layer.opaque for layer in signs):
            raise Cannot("no option to sign in any other form than multipart/signed")
        if len(layers) > 2 or (len(layers) == 2 and layers[-1].signs):
            raise Cannot("no option for layers in this order")
        self.choose_for(layers)
        body = self.setting.work / "body"
        body.write_text(mime.TEXT, encoding="utf-8")
        arguments = ["-s", mime.SUBJECT, "-i", str(body), "-e", f"set from = {sender}@example.org"]
        arguments += ["-e", f"set crypt_autosign = {'yes' if signs else 'no'}"]
        arguments += ["-e", f"set crypt_autoencrypt = {'yes' if encrypts else 'no'}"]
        if signs:
            arguments += ["-e", f"set smime_sign_as = {signs[0].who}@example.org"]
        whom = encrypts[0].whom if encrypts else "bob"
        typed = [(rb"To: ", b"\r"), (rb"Subject: ", b"\r"), (rb"y:Send", b"y")]
        return self._run([*arguments, f"{whom}@example.org"], typed, self.setting.work / "sent")

    def read(self, mail, layers):
        for layer in layers:
            if not layer.signs:
                self.need_key(layer.whom)
        start = b"From alice@example.org Mon Mar  2 10:00:00 2026\n"
        lines = re.sub(rb"(?m)^(>*From )", rb">\1", mail.replace(b"\r\n", b"\n"))
        (self.setting.work / "box").write_bytes(start + lines + b"\n")
        shown = self._run(
            ["-f", str(self.setting.work / "box"), "-e", 'push "<display-message><exit>"'],
            [],
            self.setting.work / "shown",
        ).decode("utf-8", "replace")
        body = shown.split("\n\n", 2)[-1]  # after a line of its own, and the header
        notes = re.findall(r"(?m)^\[-- (.*) --\]$", body)
        signatures = sum(layer.signs for layer in layers)
        judged = re.findall(r"(?ms)^\[-- Begin signature information --\]$(.*?)^\[-- End signature", body)
        told = "; ".join(one.strip().splitlines()[0] for one in judged)
        if len(judged) < signatures or any("Good signature from" not in one for one in judged) or "BAD" in told:
            self.fail((told or "; ".join(notes) or "it shows no signature").encode())
        text = re.sub(r"(?ms)^\[-- Begin signature information --\]$.*?^\[-- End signature[^\n]*$", "", body)
        text = re.sub(r"(?m)^\[-- .* --\]$", "", text).strip("\n") + "\n"
        if layers[0].protects:  # it shows the field that was signed or encrypted above the text
            text = text.removeprefix(f"Subject: {mime.SUBJECT}\n\n")
        if not text.strip() and notes:
            self.fail("; ".join(notes).encode())
        return b"Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n" + text.encode()
