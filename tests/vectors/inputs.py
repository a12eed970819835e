"""Finds what can be read in the folders of a package: files in DER, PEM blocks wherever they stand, and mails."""

import base64
import hashlib
import pathlib
import re

import asn1

LARGEST = 1 << 21
BLOCK = re.compile(rb"-----BEGIN ([A-Z0-9 .]+)-----(.*?)-----END \1-----", re.S)
# In sources of programs the lines of a block are the strings of a language.
QUOTED = re.compile(rb'^[\s"\']*|(?:\\r)?(?:\\n)?["\'\s,;+\\)]*$')

KINDS = {b"CERTIFICATE": "certificate", b"X509 CERTIFICATE": "certificate", b"TRUSTED CERTIFICATE": "certificate",
         b"X509 CRL": "list", b"CRL": "list", b"PKCS7": "message", b"CMS": "message", b"PUBLIC KEY": "public key"}


class Input:
    def __init__(self, package, origin, kind, form, content, label=""):
        self.package = package
        self.origin = origin  # the file, from the package's folder on
        self.kind = kind      # None: any, to be found out
        self.form = form      # "PEM", "DER", "mail"
        self.content = content
        self.label = label
        self.encrypted = b"ENCRYPTED" in content[:200] if form == "PEM" else is_encrypted_key(content)
        self.path = None

    def store(self, folder):
        name = hashlib.sha256(self.content).hexdigest()[:24]
        self.path = folder / f"{name}.{self.form.lower()}"
        if not self.path.exists():
            self.path.write_bytes(self.content)

    def der(self):
        if self.form == "DER":
            return self.content
        lines = BLOCK.search(self.content).group(2).splitlines()
        return base64.b64decode(b"".join(line.strip() for line in lines if b":" not in line))


def is_encrypted_key(octets):
    """Whether it has the shape of an EncryptedPrivateKeyInfo: an algorithm and an octet string."""
    try:
        parts = asn1.children(asn1.first(octets)[1])
        return [tag for tag, _, _ in parts] == [0x30, 0x04] and asn1.first(parts[0][1])[0] == 0x06
    except asn1.Damaged:
        return False


def kind_of(label):
    if label.endswith(b"PRIVATE KEY"):
        return "private key"
    return KINDS.get(label)


def block(match):
    """The block as a text of its own."""
    if b'"' not in match.group(2) and b"\\n" not in match.group(2) and b"'" not in match.group(2):
        return match.group(0) + b"\n"
    lines = [QUOTED.sub(b"", line) for line in re.split(rb"\\n|\n", match.group(2))]
    body = b"\n".join(line for line in lines if line)
    return b"-----BEGIN " + match.group(1) + b"-----\n" + body + b"\n-----END " + match.group(1) + b"-----\n"


def of_file(package, origin, content):
    if origin.suffix == ".eml" or origin.name.endswith(".smime"):
        yield Input(package, origin, "mail", "mail", content)
    elif b"-----BEGIN " in content:
        for match in BLOCK.finditer(content):
            if kind := kind_of(match.group(1)):
                yield Input(package, origin, kind, "PEM", block(match), match.group(1).decode())
    elif content[:1] == b"\x30" and b"\0" in content + b"\0" and not content[:64].isascii():
        yield Input(package, origin, None, "DER", content)
    elif content[:2] == b"\x30\x80":
        yield Input(package, origin, None, "DER", content)


def of_folder(package, folder):
    """Each input once, however often the package has it."""
    seen = set()
    folder = pathlib.Path(folder)
    for path in sorted(folder.rglob("*")):
        if not path.is_file() or path.is_symlink() or path.stat().st_size > LARGEST:
            continue
        for found in of_file(package, path.relative_to(folder), path.read_bytes()):
            key = (found.kind, found.content)
            if key not in seen:
                seen.add(key)
                yield found
