"""gpgsm with a keyring of its own: by itself, under GMime and under neomutt."""

import re

import mail as mime
from jobs import PEOPLE
from peers.base import Cannot, Peer, lines_of, has

PINENTRY = """#!/bin/sh
# Types the passphrase.
echo OK
while read -r line; do
  case $line in
  GETPIN*) echo "D x"; echo OK ;;
  BYE*) echo OK; exit 0 ;;
  *) echo OK ;;
  esac
done
"""
KEYRINGS = {}  # by folder: who is in it without a key, and why
CIPHERS = {"aes-128-cbc": "AES", "aes-192-cbc": "AES192", "aes-256-cbc": "AES256", "des-ede3-cbc": "3DES"}


class GnuPg(Peer):
    """The keyring, and what cannot be asked of it."""

    unknown = (
        "[Uu]nsupported",
        "Unknown algorithm",
        "not supported",
        "[Ii]nvalid (public key |digest )?algorithm",
        "Not implemented",
    )

    def missing(self):
        return has("gpgsm", "gpg-agent", "gpgconf", "openssl")

    def version(self):
        said = self.succeeds(["gpgsm", "--version"]).decode()
        return re.search(r"\(GnuPG\) (\S+)", said).group(1)

    def prepare(self):
        # One for all that stand on it: taking keys in takes most of the time.
        self.home = self.setting.work.parent / "gnupg"
        self.setting.environment["GNUPGHOME"] = str(self.home)
        if self.home not in KEYRINGS:
            self.home.mkdir(mode=0o700)
            KEYRINGS[self.home] = self._fill()
        self.without_key = KEYRINGS[self.home]

    def _fill(self):
        """People without their keys, and why."""
        pinentry = self.home / "pinentry"
        pinentry.write_text(PINENTRY)
        pinentry.chmod(0o700)
        printed = self.succeeds(
            ["openssl", "x509", "-in", self.setting.pem("root"), "-noout", "-fingerprint", "-sha1"]
        ).decode()
        (self.home / "trustlist.txt").write_text(printed.split("=")[1].strip() + " S relax\n")
        (self.home / "gpg-agent.conf").write_text(
            f"pinentry-program {pinentry}\nallow-loopback-pinentry\ns2k-count 65536\n"
        )
        self.choose("aes-256-cbc", None)
        self.succeeds(["gpgsm", "--import", self.setting.pem("root")])
        reasons = {who: self._import(who) for who in PEOPLE}
        return {who: reason for who, reason in reasons.items() if reason}

    def close(self):
        self.setting.run(["gpgconf", "--homedir", self.home, "--kill", "all"])

    def choose(self, cipher, digest):
        """GMime and neomutt leave the choice to gpgsm."""
        options = ["disable-crl-checks", "disable-dirmngr", "batch"]
        if cipher in CIPHERS:
            options.append(f"cipher-algo {CIPHERS[cipher]}")
        if digest:
            options.append(f"digest-algo {digest.upper()}")
        (self.home / "gpgsm.conf").write_text("\n".join(options) + "\n")

    def _import(self, who):
        """With the key; or the certificate alone, and the reason, where gpgsm does not take the key."""
        file = self.home / f"{who}.p12"
        # One file in a hundred with an RSA key is not taken, whoever made it.
        for _ in range(4 if who in ("alice", "bob") else 1):
            self.succeeds(
                ["openssl", "pkcs12", "-export", "-in", self.setting.pem(who), "-inkey", self.setting.key(who)]
                + ["-out", file, "-passout", "pass:x", "-keypbe", "PBE-SHA1-3DES", "-certpbe", "PBE-SHA1-3DES"]
                + ["-macalg", "sha1"]
            )
            done = self.setting.run(
                ["gpgsm", "--pinentry-mode", "loopback", "--passphrase-fd", "0", "--import", file], b"x\n"
            )
            if done.returncode == 0:
                return None
        self.setting.run(["gpgsm", "--import", self.setting.pem(who)])
        return "gpgsm does not import the key: " + self.reason(lines_of(done.stderr))

    def need_key(self, who):
        if who in self.without_key:
            raise Cannot(self.without_key[who])

    def choose_for(self, layers):
        """What of the layers can be asked for."""
        cipher, digest = "aes-256-cbc", None
        for layer in layers:
            if layer.signs:
                if layer.scheme == "pss":
                    raise Cannot("no option to sign with PSS")
                self.need_key(layer.who)
                digest = layer.digest
            else:
                cipher = layer.cipher
                if layer.transport == "oaep":
                    raise Cannot("no option to encrypt with OAEP")
                if cipher not in CIPHERS:
                    raise Cannot("no option to encrypt with this cipher")
        self.choose(cipher, digest)

    def reason(self, lines):
        telling = [line for line in lines if re.search(r"failed|error|[Uu]nsupported|BAD|not |invalid|Invalid", line)]
        return (telling or lines or ["no reason given"])[0]


class Gpgsm(GnuPg):
    name = "gpgsm"
    note = "MIME by Python's email package"

    def sign(self, part, signature):
        self.choose_for([signature])
        part = mime.flat(part)
        arguments = ["gpgsm", "--local-user", f"{signature.who}@example.org", "--sign"]
        if not signature.opaque:
            arguments.append("--detach-sign")
        cms = self.succeeds(arguments, part)
        if signature.opaque:
            return mime.opaque(cms, "signed-data")
        return mime.signed(part, cms, "sha-" + (signature.digest or "sha256")[3:])

    def verify(self, mail, signature):
        part, cms = mime.taken_apart(mail)
        structure = self.home / "structure"
        structure.write_bytes(cms)
        if part is not None:
            (self.home / "body").write_bytes(part)
            self.succeeds(["gpgsm", "--verify", structure, self.home / "body"])
            return part
        out = self.home / "out"
        out.unlink(missing_ok=True)
        self.succeeds(["gpgsm", "--output", out, "--verify", structure])
        return out.read_bytes()

    def encrypt(self, part, envelope):
        self.choose_for([envelope])
        cms = self.succeeds(["gpgsm", "--recipient", f"{envelope.whom}@example.org", "--encrypt"], part)
        return mime.opaque(cms, "enveloped-data")

    def decrypt(self, mail, envelope):
        self.need_key(envelope.whom)
        return self.succeeds(["gpgsm", "--decrypt"], mime.taken_apart(mail)[1])


class GMime(GnuPg):
    name = "GMime"
    note = "its context for PKCS#7, with gpgsm behind it"

    def missing(self):
        if not (self.setting.programs / "smime_gmime_peer").exists():
            return "smime_gmime_peer is not built"
        return super().missing()

    def version(self):
        return self._gmime("version").decode().strip() + ", gpgsm " + super().version()

    def _gmime(self, command, who="", given=b""):
        return self.succeeds([self.setting.programs / "smime_gmime_peer", command, who], given)

    def sign(self, part, signature):
        self.choose_for([signature])
        command = "sign-opaque" if signature.opaque else "sign"
        return self._gmime(command, f"{signature.who}@example.org", part)

    def verify(self, mail, signature):
        return self._gmime("verify", given=mail)

    def encrypt(self, part, envelope):
        self.choose_for([envelope])
        return self._gmime("encrypt", f"{envelope.whom}@example.org", part)

    def decrypt(self, mail, envelope):
        self.need_key(envelope.whom)
        return self._gmime("decrypt", given=mail)
