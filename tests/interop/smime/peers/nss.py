"""cmsutil of NSS."""

import mail as mime
from jobs import PEOPLE
from peers.base import Cannot, Peer, has


class Nss(Peer):
    name = "cmsutil"
    note = "of NSS; MIME by Python's email package"
    unknown = ("SEC_ERROR_INVALID_ALGORITHM", "SEC_ERROR_UNSUPPORTED", "unsupported", "not supported", "disabled")

    def missing(self):
        return has("cmsutil", "certutil", "pk12util", "openssl")

    def version(self):
        done = self.setting.run(["dpkg-query", "-W", "-f", "${Version}", "libnss3-tools"])
        return done.stdout.decode() if done.returncode == 0 else "of this machine"

    def prepare(self):
        self.database = self.setting.work / "nss"
        self.database.mkdir()
        self.succeeds(["certutil", "-N", "-d", self.database, "--empty-password"])
        self.succeeds(
            ["certutil", "-A", "-d", self.database, "-n", "root", "-t", "C,C,C", "-i", self.setting.pem("root")]
        )
        self.without_key = {}
        for who in PEOPLE:
            file = self.database / f"{who}.p12"
            self.succeeds(
                ["openssl", "pkcs12", "-export", "-in", self.setting.pem(who), "-inkey", self.setting.key(who)]
                + ["-name", who, "-out", file, "-passout", "pass:x"]
            )
            done = self.setting.run(["pk12util", "-i", file, "-d", self.database, "-W", "x"])
            if done.returncode != 0:
                self.without_key[who] = "pk12util: " + done.stderr.decode().splitlines()[-1].split("pk12util: ")[-1]

    def _cmsutil(self, command, *arguments, given):
        (self.database / "in").write_bytes(given)
        out = self.database / "out"
        out.unlink(missing_ok=True)
        self.succeeds(["cmsutil", command, "-d", self.database, "-i", self.database / "in", "-o", out, *arguments])
        return out.read_bytes()

    def sign(self, part, signature):
        if signature.scheme == "pss":
            raise Cannot("no option to sign with PSS")
        if signature.who in self.without_key:
            raise Cannot(self.without_key[signature.who])
        part = mime.flat(part)
        arguments = ["-N", signature.who, "-H", (signature.digest or "sha256").upper(), "-G", "-Y", "NONE"]
        if signature.opaque:
            return mime.opaque(self._cmsutil("-S", *arguments, given=part), "signed-data")
        cms = self._cmsutil("-S", "-T", *arguments, given=part)
        return mime.signed(part, cms, "sha-" + (signature.digest or "sha256")[3:])

    def verify(self, mail, signature):
        part, cms = mime.taken_apart(mail)
        if part is None:
            return self._cmsutil("-D", given=cms)
        (self.database / "body").write_bytes(part)
        self._cmsutil("-D", "-c", self.database / "body", given=cms)
        return part

    def encrypt(self, part, envelope):
        if envelope.transport == "oaep":
            raise Cannot("no option to encrypt with OAEP")
        if envelope.cipher != "aes-128-cbc":
            raise Cannot("no option for the cipher: it takes AES-128-CBC")
        cms = self._cmsutil("-E", "-r", f"{envelope.whom}@example.org", given=part)
        return mime.opaque(cms, "enveloped-data")

    def decrypt(self, mail, envelope):
        return self._cmsutil("-D", given=mime.taken_apart(mail)[1])
