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
LITERAL = re.compile(rb'"((?:[A-Za-z0-9+/=]|\\[nr])*)"')
STRINGS = re.compile(rb'"M(?:[A-Za-z0-9+/=]|\\[nr])*"(?:\s*\+\s*"(?:[A-Za-z0-9+/=]|\\[nr])*")*')

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


def is_text(octets):
    return all(octet in b"\t\n\r" or 0x20 <= octet < 0x7F for octet in octets[:64])


def strings(content):
    """Structures in Base64 that stand in sources of Java, in strings put together by "+"."""
    for match in STRINGS.finditer(content):
        text = b"".join(LITERAL.findall(match.group())).replace(b"\\n", b"").replace(b"\\r", b"")
        try:
            octets = base64.b64decode(text, validate=True)
            if octets[:2] == b"\x30\x80" or asn1.first(octets)[0] == 0x30:
                yield octets
        except (ValueError, asn1.Damaged):
            pass


def of_file(package, origin, content):
    if origin.suffix == ".eml" or origin.name.endswith(".smime"):
        yield Input(package, origin, "mail", "mail", content)
    elif content[:1] == b"\x30" and not is_text(content):
        yield Input(package, origin, None, "DER", content)
    else:
        for match in BLOCK.finditer(content):
            if kind := kind_of(match.group(1)):
                yield Input(package, origin, kind, "PEM", block(match), match.group(1).decode())
        if origin.suffix == ".java":
            for octets in strings(content):
                yield Input(package, origin, None, "DER", octets)


def of_folder(package, folder, walked):
    """Each input once, however often the package has it. `walked` counts the files."""
    seen = set()
    folder = pathlib.Path(folder)
    for path in sorted(folder.rglob("*")):
        if not path.is_file() or path.is_symlink():
            continue
        walked["files"] += 1
        if path.stat().st_size > LARGEST:
            walked["too large"] += 1
            continue
        inputs = list(of_file(package, path.relative_to(folder), path.read_bytes()))
        walked["with inputs"] += bool(inputs)
        for found in inputs:
            key = (found.kind, found.content)
            if key not in seen:
                seen.add(key)
                yield found
