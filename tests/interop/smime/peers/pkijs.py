"""PKI.js, in node: the structures; MIME by Python's email package."""

import json
import shutil
from pathlib import Path

import mail as mime
from peers.base import Cannot, Peer, has


class PkiJs(Peer):
    name = "PKI.js"
    note = "in node; MIME by Python's email package"
    unknown = (
        "[Uu]nsupported",
        "Unrecognized algorithm",
        "not supported",
        "has no structure",
        "Parameter 'algorithm' is empty",
    )

    def missing(self):
        if not (self.setting.pkijs and (self.setting.pkijs / "node_modules" / "pkijs").is_dir()):
            return "no folder with it was given"
        return has("node")

    def version(self):
        package = json.loads((self.setting.pkijs / "node_modules" / "pkijs" / "package.json").read_text())
        return f"{package['version']}, node {self.succeeds(['node', '--version']).decode().strip()[1:]}"

    def prepare(self):
        # A module finds the packages beside it.
        self.program = self.setting.pkijs / "peer.mjs"
        shutil.copyfile(Path(__file__).parent.parent / "pkijs" / "peer.mjs", self.program)

    def _does(self, action, given, **task):
        task = {"action": action, "root": self.setting.pem("root"), **task}
        return self.succeeds(["node", self.program, json.dumps(task)], given)

    def sign(self, part, signature):
        if signature.digest == "sha224":
            raise Cannot("no SHA-224 in Web Cryptography")
        part = mime.flat(part)
        cms = self._does(
            "sign",
            part,
            certificate=self.setting.pem(signature.who),
            key=self.setting.key(signature.who),
            scheme=signature.scheme,
            digest=signature.digest,
            detached=not signature.opaque,
        )
        if signature.opaque:
            return mime.opaque(cms, "signed-data")
        return mime.signed(part, cms, "sha-" + (signature.digest or "sha256")[3:])

    def verify(self, mail, signature):
        part, cms = mime.taken_apart(mail)
        if part is None:
            return self._does("verify", cms, detached=False)
        file = self.setting.work / "structure"
        file.write_bytes(cms)
        self._does("verify", part, detached=True, structure=str(file))
        return part

    def encrypt(self, part, envelope):
        if not envelope.cipher.startswith("aes"):
            raise Cannot("no Triple DES")
        cms = self._does(
            "encrypt",
            part,
            certificate=self.setting.pem(envelope.whom),
            transport=envelope.transport,
            cipher=envelope.cipher,
        )
        return mime.opaque(cms, "enveloped-data")

    def decrypt(self, mail, envelope):
        return self._does(
            "decrypt",
            mime.taken_apart(mail)[1],
            certificate=self.setting.pem(envelope.whom),
            key=self.setting.key(envelope.whom),
        )
