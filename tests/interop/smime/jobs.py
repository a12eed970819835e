"""What is exchanged: each job is a message of one or more layers, the innermost first."""

from dataclasses import dataclass

SIGNERS = {
    "rsa": "alice",
    "pss": "alice",
    "ecdsa": "erin",
    "ecdsa-384": "grace",
    "ecdsa-521": "heidi",
    "ed25519": "frank",
}
RECIPIENTS = {"rsa": "bob", "oaep": "bob", "ecdh": "erin", "ecdh-384": "grace", "ecdh-521": "heidi"}
PEOPLE = ("alice", "bob", "erin", "frank", "grace", "heidi")
NAMES = {
    "rsa": "RSA PKCS#1 1.5",
    "pss": "RSA-PSS",
    "ecdsa": "ECDSA P-256",
    "ecdsa-384": "ECDSA P-384",
    "ecdsa-521": "ECDSA P-521",
    "ed25519": "Ed25519",
    "oaep": "RSA-OAEP",
    "ecdh": "ECDH P-256",
    "ecdh-384": "ECDH P-384",
    "ecdh-521": "ECDH P-521",
}


@dataclass(frozen=True)
class Signature:
    scheme: str
    opaque: bool = False
    digest: str | None = "sha256"
    protects: bool = False
    signs = True

    @property
    def who(self):
        return SIGNERS[self.scheme]

    def text(self):
        digest = "" if self.digest is None else ", " + self.digest.upper().replace("SHA", "SHA-")
        return NAMES[self.scheme] + digest + (", opaque" if self.opaque else ", multipart/signed")


@dataclass(frozen=True)
class Envelope:
    transport: str
    cipher: str
    protects: bool = False
    signs = False

    @property
    def whom(self):
        return RECIPIENTS[self.transport]

    def text(self):
        cipher = {"des-ede3-cbc": "Triple DES-CBC"}.get(self.cipher, self.cipher.upper())
        return f"{NAMES[self.transport]}, {cipher}"


@dataclass(frozen=True)
class Job:
    id: str
    group: str
    layers: tuple
    text: str
    oursAlone: bool = False  # what others have no way to be asked for

    @property
    def sender(self):
        signers = [layer.who for layer in self.layers if layer.signs]
        return signers[-1] if signers else "alice"


def _sign(scheme, opaque=False, digest="sha256"):
    layer = Signature(scheme, opaque, digest)
    name = f"sign-{scheme}{'' if digest in ('sha256', None) else '-' + digest}-{'opaque' if opaque else 'detached'}"
    return Job(name, "Signed", (layer,), layer.text())


def _encrypt(transport, cipher):
    layer = Envelope(transport, cipher)
    return Job(f"encrypt-{transport}-{cipher}", "Encrypted", (layer,), layer.text())


def _layers(name, text, *layers, oursAlone=False):
    return Job(name, "Both", layers, text, oursAlone)


def all_jobs():
    jobs = [_sign(scheme, opaque) for scheme in ("rsa", "pss", "ecdsa") for opaque in (False, True)]
    jobs += [_sign("ed25519", opaque, None) for opaque in (False, True)]
    jobs += [_sign("rsa", False, digest) for digest in ("sha224", "sha384", "sha512")]
    jobs += [_sign("pss", False, "sha512"), _sign("ecdsa-384", False, "sha384"), _sign("ecdsa-521", False, "sha512")]
    ciphers = ("des-ede3-cbc", "aes-128-cbc", "aes-192-cbc", "aes-256-cbc", "aes-128-gcm", "aes-192-gcm", "aes-256-gcm")
    for cipher in ciphers:
        jobs.append(_encrypt("rsa", cipher))
    for transport in ("oaep", "ecdh"):
        for cipher in ("aes-128-cbc", "aes-256-cbc", "aes-256-gcm"):
            jobs.append(_encrypt(transport, cipher))
    jobs += [_encrypt("ecdh-384", "aes-256-cbc"), _encrypt("ecdh-521", "aes-256-cbc")]
    rsa, opaque, ecdsa = Signature("rsa"), Signature("rsa", True), Signature("ecdsa")
    protects = Signature("rsa", protects=True)
    cbc, gcm, ecdh = Envelope("rsa", "aes-128-cbc"), Envelope("rsa", "aes-256-gcm"), Envelope("ecdh", "aes-256-cbc")
    part, ours = "signed (multipart/signed)", {"oursAlone": True}
    jobs += [
        _layers("both-detached", f"{part}, encrypted: RSA, AES-128-CBC", rsa, cbc),
        _layers("both-opaque", "signed (opaque), encrypted: RSA, AES-128-CBC", opaque, cbc),
        _layers("both-gcm", f"{part}, encrypted: RSA, AES-256-GCM", rsa, gcm),
        _layers("both-ec", f"{part}, encrypted: ECDSA, ECDH, AES-256-CBC", ecdsa, ecdh),
        _layers("outer-signature", f"encrypted, {part}: RSA, AES-128-CBC", cbc, rsa),
        _layers("triple", "signed, encrypted, signed again: RSA, AES-128-CBC", rsa, cbc, rsa),
        _layers("protected-signed", "signed with its header fields (RFC 9788): RSA", protects, **ours),
        _layers(
            "protected-both",
            "signed and encrypted with its header fields (RFC 9788): RSA, AES-128-CBC",
            protects,
            cbc,
            **ours,
        ),
    ]
    return jobs
