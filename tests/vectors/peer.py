"""What the openssl program says of a file."""

import calendar
import hashlib
import re
import subprocess
import tempfile
import time

PASSPHRASES = ["", "password", "123456", "foobar", "baz", "1234", "12345", "asdf", "secret", "test", "changeit", "v3-certs",
               "σύνθημα γνώρισμα", "Red Hat Enterprise Linux 7.4", "CaudFocwijRupogDoicsApfiHadManUgNa", "cryptography", "nss",
               "PeterPan", "helloworld", "fred", "pass", "hello", "abc123"]

# The library loads what is old, too.
OLD = ["-provider", "legacy", "-provider", "default"]


def run(*arguments, data=None):
    done = subprocess.run(["openssl", *map(str, arguments)], input=data or b"", capture_output=True, timeout=120, check=False)
    return done.returncode == 0, done.stdout, done.stderr


def moment(text):
    try:
        return calendar.timegm(time.strptime(text.strip(), "%Y-%m-%d %H:%M:%SZ"))
    except ValueError:
        return None


def digest(octets):
    return hashlib.sha256(octets).hexdigest()


def key_fact(pem):
    """The digest of a SubjectPublicKeyInfo that stands in a text."""
    good, der, _ = run("pkey", "-pubin", "-pubout", "-outform", "DER", data=pem)
    return digest(der) if good else None


def fields(out):
    return dict(line.split("=", 1) for line in out.decode("utf-8", "replace").splitlines() if "=" in line and not line.startswith(" "))


def certificate(one):
    common = ["x509", "-in", one.path, "-inform", one.form, "-noout"]
    good, out, _ = run(*common, "-fingerprint", "-sha256", "-serial", "-subject", "-nameopt", "compat", "-startdate", "-enddate",
                       "-dateopt", "iso_8601", "-subject_hash", "-issuer_hash")
    if not good:
        return None
    said = fields(out)
    hashes = [line for line in out.decode("utf-8", "replace").splitlines() if re.fullmatch("[0-9a-f]{8}", line)]
    subject = said["subject"]
    _, pem, _ = run(*common, "-pubkey")
    return {"encoding": said.get("sha256 Fingerprint", "").replace(":", "").lower(),
            "serial": said["serial"].lower(), "subject": "" if subject == " " else subject, "notBefore": moment(said["notBefore"]), "notAfter": moment(said["notAfter"]),
            "subjectHash": int(hashes[0], 16), "issuerHash": int(hashes[1], 16), "key": key_fact(pem)}


def revocation_list(one):
    good, out, _ = run("crl", "-in", one.path, "-inform", one.form, "-noout", "-fingerprint", "-sha256", "-hash", "-lastupdate",
                       "-nextupdate", "-dateopt", "iso_8601")
    if not good:
        return None
    said = fields(out)
    return {"encoding": next(value for name, value in said.items() if "ingerprint" in name).replace(":", "").lower(),
            "issuerHash": int(re.search(rb"(?:^|=)([0-9a-f]{8})$", out, re.M).group(1), 16), "lastUpdate": moment(said["lastUpdate"]),
            "nextUpdate": moment(said.get("nextUpdate", ""))}


def private_key(one):
    """(passphrase, digest of the public half); the passphrase is the one that opens it."""
    for passphrase in PASSPHRASES:
        good, out, _ = run("pkey", "-in", one.path, "-inform", one.form, "-passin", "pass:" + passphrase, "-pubout",
                           "-outform", "DER", *OLD)
        if good:
            return passphrase, digest(out)
        if not one.encrypted:
            break
    return None


def public_key(one):
    good, out, _ = run("pkey", "-pubin", "-in", one.path, "-inform", one.form, "-pubout", "-outform", "DER")
    return digest(out) if good else None


def pkcs12(one):
    """The passphrase, the key, and the certificate that belongs to it; nothing when it is no PKCS#12 file."""
    wrong = False
    for passphrase in PASSPHRASES:
        good, out, said = run("pkcs12", "-in", one.path, "-passin", "pass:" + passphrase, "-nodes", "-legacy")
        if good:
            return opened_pkcs12(passphrase, out)
        if b"Mac verify error" not in said and b"invalid password" not in said:
            break
        wrong = True
    return {"passphrase": None} if wrong else None


def opened_pkcs12(passphrase, out):
    keys = [key_of_private(pem) for pem in re.findall(rb"-----BEGIN [A-Z ]*PRIVATE KEY-----.*?-----END [A-Z ]*PRIVATE KEY-----\n", out, re.S)]
    found = {"passphrase": passphrase, "keys": keys, "certificates": {}}
    for pem in re.findall(rb"-----BEGIN CERTIFICATE-----.*?-----END CERTIFICATE-----\n", out, re.S):
        good, der, _ = run("x509", "-outform", "DER", data=pem)
        _, public, _ = run("x509", "-noout", "-pubkey", data=pem)
        if good:
            found["certificates"][digest(der)] = key_fact(public)
    return found


def key_of_private(pem):
    good, der, _ = run("pkey", "-pubout", "-outform", "DER", data=pem)
    return digest(der) if good else None


def message(one, content=None):
    """The type, and whether all signatures are good; nothing when it is no CMS structure."""
    good, out, _ = run("cms", "-cmsout", "-print", "-noout", "-inform", one.form, "-in", one.path)
    if not good:
        return None
    kind = re.search(rb"contentType: \S+ \(([0-9.]+)\)", out)
    found = {"type": kind.group(1).decode() if kind else "", "valid": None}
    if found["type"] != "1.2.840.113549.1.7.2":
        return found
    with tempfile.NamedTemporaryFile() as body:
        given = ["-content", content] if content else []
        good, _, said = run("cms", "-verify", "-noverify", "-binary", "-inform", one.form, "-in", one.path, "-out", body.name, *given, *OLD)
        found["valid"] = good
        found["said"] = said.decode("utf-8", "replace")
        found["content"] = digest(body.read())
    return found


def mail(one):
    with tempfile.NamedTemporaryFile() as body:
        good, _, said = run("cms", "-verify", "-noverify", "-in", one.path, "-out", body.name)
        octets = body.read()
        lines = octets.replace(b"\r\n", b"\n")
        return {"valid": good, "said": said.decode("utf-8", "replace"),
                "contents": {digest(octets), digest(lines), digest(lines.replace(b"\n", b"\r\n"))}}
