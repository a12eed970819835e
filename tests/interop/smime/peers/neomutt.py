"""neomutt, with gpgsm or openssl behind it: a terminal is made for it, and keys are typed."""

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
from jobs import PEOPLE
from peers.base import Cannot, Peer, has
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


class Terminal:
    """The program in a terminal of its own."""

    def program_version(self):
        return re.search(r"NeoMutt (\S+)", self.succeeds(["neomutt", "-v"]).decode()).group(1)

    def configure(self, more=""):
        work = self.setting.work
        (work / "mail").mkdir()
        (work / "configuration").write_text(CONFIGURATION.format(work=work) + more)
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

    def check(self, layers):
        """Whether there are options for layers like these."""
        if any(layer.opaque for layer in layers if layer.signs):
            raise Cannot("no option to sign in any other form than multipart/signed")
        if len(layers) > 2 or (len(layers) == 2 and layers[-1].signs):
            raise Cannot("no option for layers in this order")

    def send(self, sender, layers, options, prompts=()):
        """The mail that it sends, signed and encrypted by what `options` set."""
        signs = [layer for layer in layers if layer.signs]
        encrypts = [layer for layer in layers if not layer.signs]
        body = self.setting.work / "body"
        body.write_text(mime.TEXT, encoding="utf-8")
        arguments = ["-s", mime.SUBJECT, "-i", str(body), "-e", f"set from = {sender}@example.org"]
        arguments += ["-e", f"set crypt_autosign = {'yes' if signs else 'no'}"]
        arguments += ["-e", f"set crypt_autoencrypt = {'yes' if encrypts else 'no'}"]
        for option in options:
            arguments += ["-e", option]
        whom = encrypts[0].whom if encrypts else "bob"
        typed = [(rb"To: ", b"\r"), (rb"Subject: ", b"\r"), (rb"y:Send", b"y"), *prompts]
        return self._run([*arguments, f"{whom}@example.org"], typed, self.setting.work / "sent")

    def show(self, mail, prompts=()):
        """What it shows below the header."""
        start = b"From alice@example.org Mon Mar  2 10:00:00 2026\n"
        lines = re.sub(rb"(?m)^(>*From )", rb">\1", mail.replace(b"\r\n", b"\n"))
        (self.setting.work / "box").write_bytes(start + lines + b"\n")
        shown = self._run(
            ["-f", str(self.setting.work / "box"), "-e", 'push "<display-message><exit>"'],
            prompts,
            self.setting.work / "shown",
        ).decode("utf-8", "replace")
        return shown.split("\n\n", 2)[-1]  # after a line of its own, and the header

    def text_in(self, body, layers, notes):
        """The text alone, as an entity. body: without what is told about signatures"""
        text = re.sub(r"(?m)^\[-- .* --\]$", "", body).strip("\n") + "\n"
        if layers[0].protects:  # it shows the field that was signed or encrypted above the text
            text = text.removeprefix(f"Subject: {mime.SUBJECT}\n\n")
        if not text.strip() and notes:
            self.fail("; ".join(notes).encode())
        return b"Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n" + text.encode()


class NeoMutt(Terminal, GnuPg):
    name = "neomutt"
    note = "through a terminal, with gpgsm behind it"

    def missing(self):
        return has("neomutt") or super().missing()

    def version(self):
        return self.program_version() + ", gpgsm " + super().version()

    def prepare(self):
        super().prepare()
        self.configure()

    def write(self, sender, layers, part):
        self.check(layers)
        self.choose_for(layers)
        signs = [layer for layer in layers if layer.signs]
        return self.send(sender, layers, [f"set smime_sign_as = {layer.who}@example.org" for layer in signs[:1]])

    def read(self, mail, layers):
        for layer in layers:
            if not layer.signs:
                self.need_key(layer.whom)
        body = self.show(mail)
        notes = re.findall(r"(?m)^\[-- (.*) --\]$", body)
        signatures = sum(layer.signs for layer in layers)
        judged = re.findall(r"(?ms)^\[-- Begin signature information --\]$(.*?)^\[-- End signature", body)
        told = "; ".join(one.strip().splitlines()[0] for one in judged)
        if len(judged) < signatures or any("Good signature from" not in one for one in judged) or "BAD" in told:
            self.fail((told or "; ".join(notes) or "it shows no signature").encode())
        text = re.sub(r"(?ms)^\[-- Begin signature information --\]$.*?^\[-- End signature[^\n]*$", "", body)
        return self.text_in(text, layers, notes)


OPENSSL_MODE = """
source /etc/neomuttrc.d/smime.rc
set crypt_use_gpgme = no
set smime_ask_cert_label = no
set smime_decrypt_use_default_key = yes
set smime_timeout = 3600
set smime_ca_location = "{root}"
set smime_certificates = "{work}/certificates"
set smime_keys = "{work}/keys"
"""
CIPHERS = {"des-ede3-cbc": "des3", "aes-128-cbc": "aes128", "aes-192-cbc": "aes192", "aes-256-cbc": "aes256"}


class NeoMuttOpenSsl(Terminal, Peer):
    """The commands that its package configures for openssl, and a folder of certificates and keys by their hashes."""

    name = "neomutt (openssl)"
    note = "through a terminal, with the commands of Debian's smime.rc behind it"
    unknown = ("unsupported", "unknown cipher", "not supported", "invalid digest", "no default digest")

    def missing(self):
        rc = None if os.path.exists("/etc/neomuttrc.d/smime.rc") else "its smime.rc is not installed"
        return has("neomutt", "openssl") or rc

    def version(self):
        return self.program_version() + ", openssl " + self.succeeds(["openssl", "version"]).decode().split()[1]

    def prepare(self):
        work = self.setting.work
        self.configure(OPENSSL_MODE.format(work=work, root=self.setting.pem("root")))
        for folder in ("certificates", "keys"):
            (work / folder).mkdir(mode=0o700)
        self.hashes = {}
        for who in PEOPLE:
            printed = self.succeeds(["openssl", "x509", "-in", self.setting.pem(who), "-noout", "-hash"])
            self.hashes[who] = name = printed.decode().strip() + ".0"
            for folder, file in (("certificates", self.setting.pem(who)), ("keys", self.setting.key(who))):
                with open(file, "rb") as octets:
                    (work / folder / name).write_bytes(octets.read())
                with open(work / folder / ".index", "a", encoding="ascii") as index:
                    index.write(f"{who}@example.org {name} {who} ? t\n")

    def write(self, sender, layers, part):
        self.check(layers)
        options, prompts = [], []
        for layer in layers:
            if layer.signs:
                if layer.scheme == "pss":
                    raise Cannot("no option to sign with PSS")
                options.append(f"set smime_sign_as = {self.hashes[layer.who]}")
                options.append(f"set smime_sign_digest_alg = {layer.digest or 'sha256'}")
                prompts.append((rb"passphrase", b"x\r"))
            else:
                if layer.transport == "oaep":
                    raise Cannot("no option to encrypt with OAEP")
                options.append(f"set smime_encrypt_with = {CIPHERS.get(layer.cipher, layer.cipher)}")
        return self.send(sender, layers, options, prompts)

    def read(self, mail, layers):
        encrypts = [layer for layer in layers if not layer.signs]
        if encrypts:
            name = self.hashes[encrypts[0].whom]
            with open(self.setting.work / "configuration", "a", encoding="utf-8") as configuration:
                configuration.write(f'set smime_default_key = "{name}"\n')
        body = self.show(mail, [(rb"passphrase", b"x\r")] * len(encrypts))
        told = re.findall(r"(?ms)^\[-- OpenSSL output follows[^\n]*$(.*?)^\[-- End of OpenSSL output --\]$", body)
        notes = re.findall(r"(?m)^\[-- (.*) --\]$", body)
        good = sum("Verification successful" in one for one in told)
        if good < sum(layer.signs for layer in layers):
            said = [line for one in told for line in one.splitlines() if line.strip()]
            self.fail(("; ".join(said[-1:]) or "; ".join(notes) or "it shows no signature").encode())
        text = re.sub(r"(?ms)^\[-- OpenSSL output follows.*?^\[-- End of OpenSSL output --\]$", "", body)
        return self.text_in(text, layers, notes)
