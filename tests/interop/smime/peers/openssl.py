"""openssl cms, which reads and writes S/MIME by itself."""

import mail as mime
from peers.base import Cannot, Peer, has

# What only text is is given as it is; its headers are put before it, and lines are ended, by the program.
DIGESTS = {"sha224": "sha224", "sha256": "sha256", "sha384": "sha384", "sha512": "sha512", None: "sha256"}


class OpenSsl(Peer):
    name = "openssl cms"
    unknown = (
        "no default digest",
        "unsupported",
        "not supported for this key type",
        "unknown cipher",
        "Unrecognized flag",
        "operation not supported for this keytype",
        "invalid digest",
        "no matching",
    )

    def missing(self):
        return has("openssl")

    def version(self):
        return self.succeeds(["openssl", "version"]).decode().split()[1]

    def reason(self, lines):
        told = [line for line in lines if ":error:" in line]
        return ":".join(told[0].split(":error:")[1].split(":")[1:4]) if told else super().reason(lines)

    def sign(self, part, signature):
        arguments = ["-signer", self.setting.pem(signature.who), "-inkey", self.setting.key(signature.who)]
        arguments += ["-md", DIGESTS[signature.digest]]
        if signature.scheme == "pss":
            arguments += ["-keyopt", "rsa_padding_mode:pss"]
        if signature.opaque:
            arguments.append("-nodetach")
        return self.succeeds(["openssl", "cms", "-sign", "-crlfeol", *arguments], part)

    def verify(self, mail, signature):
        return self.succeeds(["openssl", "cms", "-verify", "-CAfile", self.setting.pem("root")], mail)

    def encrypt(self, part, envelope):
        arguments = [f"-{envelope.cipher}", "-recip", self.setting.pem(envelope.whom)]
        if envelope.transport == "oaep":
            arguments += ["-keyopt", "rsa_padding_mode:oaep", "-keyopt", "rsa_oaep_md:sha256"]
        elif envelope.transport.startswith("ecdh"):
            arguments += ["-keyopt", "ecdh_kdf_md:sha256", "-aes256-wrap"]
        return self.succeeds(["openssl", "cms", "-encrypt", "-binary", *arguments], mime.crlf(part))

    def decrypt(self, mail, envelope):
        keys = ["-recip", self.setting.pem(envelope.whom), "-inkey", self.setting.key(envelope.whom)]
        return self.succeeds(["openssl", "cms", "-decrypt", *keys], mail)
