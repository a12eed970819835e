"""The tool."""

import mail as mime
from peers.base import Peer


class Ours(Peer):
    name = "norvcrypt"

    def version(self):
        return self.succeeds([self.setting.ours, "--version"]).decode().split()[1]

    def reason(self, lines):
        told = [line for line in lines if not line.startswith("norvcrypt: warning: ")]
        return told[0] if told else "no reason given"

    def _signing(self, signature):
        arguments = ["--cert", self.setting.pem(signature.who), "--key", self.setting.key(signature.who)]
        if signature.digest:
            arguments += ["--digest", signature.digest]
        if signature.scheme == "pss":
            arguments.append("--pss")
        if signature.opaque:
            arguments.append("--opaque")
        return arguments

    def _encrypting(self, envelope):
        arguments = ["--to", self.setting.pem(envelope.whom), "--cipher", envelope.cipher]
        if envelope.transport == "oaep":
            arguments.append("--oaep")
        return arguments

    def _protection(self, layers):
        return ["--protect-header"] if layers[0].protects else []

    def write(self, sender, layers, part):
        """From the whole mail: what is signed and then encrypted is written in one go."""
        mail = mime.plain_mail(sender)
        smime = [self.setting.ours, "smime"]
        rest = list(layers)
        if len(rest) > 1 and rest[0].signs and not rest[1].signs:
            arguments = self._signing(rest[0]) + self._encrypting(rest[1]) + self._protection(rest)
            mail = self.succeeds([*smime, "sign-encrypt", *arguments], mail)
            rest = rest[2:]
        for layer in rest:
            arguments = self._signing(layer) if layer.signs else self._encrypting(layer)
            mail = self.succeeds(
                [*smime, "sign" if layer.signs else "encrypt", *arguments, *self._protection([layer])], mail
            )
        return mail

    def read(self, mail, layers):
        out = self.setting.work / "ours.out"
        out.unlink(missing_ok=True)
        arguments = ["--ca", self.setting.pem("root"), "--out", out]
        for layer in layers:
            if not layer.signs:
                arguments += ["--cert", self.setting.pem(layer.whom), "--key", self.setting.key(layer.whom)]
        command = "verify" if any(layer.signs for layer in layers) else "decrypt"
        if command == "decrypt":
            arguments = arguments[2:]
        self.succeeds([self.setting.ours, "smime", command, *arguments], mail)
        return out.read_bytes()
