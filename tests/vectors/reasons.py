"""The differences that are as they should be: a closed list. What none of these explains is a failure."""

import re


def what(result):
    return [name for name, _, _ in result.differences]


def said(result):
    return " ".join(str(ours) for _, _, ours in result.differences)


def refuses(result, text=""):
    """The library refuses what the other reads, in these words."""
    return what(result) == ["accepts"] and result.differences[0][1] is not False and text in said(result)


def zone_offset(result):
    return set(what(result)) <= {"notBefore", "notAfter", "lastUpdate", "nextUpdate"} and bool(
        re.search(rb"[\x17\x18].(?:\d{10}|\d{12}|\d{14})[+-]\d{4}", result.der, re.S))


def is_missing_zero(result):
    """An ECDSA or DSA signature whose numbers are negative as they are encoded."""
    if not result.kind.startswith(("ECDSA", "DSA")):
        return False
    signature = bytes.fromhex(result.task["signature"])
    return result.differences[0][1] == {"valid": True} and any(
        len(octets) and octets[0] & 0x80 for octets in re.findall(rb"\x02(?:[\x00-\x7f])(.)", signature, re.S)[:2])


SIGNING_TIME = bytes.fromhex("06092a864886f70d010905")


def unsigned_attributes(structure):
    """What stands behind the last signature, from the element [1] on."""
    return structure[structure.rfind(b"\xa1"):]


# (text, whether it explains a result)
REASONS = [
    ('a block "TRUSTED CERTIFICATE": OpenSSL\'s own, a certificate and settings of its trust behind it. '
     "Such blocks are skipped, as blocks of other kinds are",
     lambda r: r.label == "TRUSTED CERTIFICATE" and refuses(r)),
    ("a key on an elliptic curve that is spelled out: RFC 5480, 2.1.1 forbids it in certificates, and it costs a stranger nothing "
     "to keep a reader busy with one (`Acceptance.h`)",
     lambda r: refuses(r, "explicit elliptic curve parameters")),
    ('a PEM block of another label than "PUBLIC KEY" or a key\'s usual ones ("SM2 PRIVATE KEY", "RSA PUBLIC KEY")',
     lambda r: refuses(r, "no start line") and r.label not in ("PRIVATE KEY", "ENCRYPTED PRIVATE KEY", "PUBLIC KEY")),
    ("Diffie-Hellman parameters without a key, which `openssl pkey -pubin` takes for one",
     lambda r: r.kind == "public key" and refuses(r) and r.is_parameters),
    ("a public key of RSA by itself (PKCS#1) in DER: public keys are SubjectPublicKeyInfo here",
     lambda r: r.kind == "public key" and refuses(r, "wrong tag")),
    ("a time with a zone offset, which RFC 5280 forbids: its fields are given as they stand (`docs/quirks.md`)", zone_offset),
    ("a signing time among the unsigned attributes, which OpenSSL refuses (RFC 5652, 11.3): these are not looked at, since anybody "
     "may add one on the way",
     lambda r: r.kind == "CMS" and what(r) == ["valid", "views"] and r.differences[0][1] is False
     and SIGNING_TIME in unsigned_attributes(r.der)),
    ("a negative serial number or list number, which RFC 5280 forbids: there is no value for it",
     lambda r: set(what(r)) <= {"serial", "number"} and r.differences[0][1] == "negative"),
    ("not in a message: RFC 5084, 3.2 has tags of 12 octets and more",
     lambda r: r.kind == "AES-GCM in a message" and len(r.task["tag"]) < 24),
    ("not in a message: nonces of up to 128 octets are read (`CMSEnvelopeReader.h`)",
     lambda r: r.kind == "AES-GCM in a message" and "with a nonce of" in said(r)),
    ("not in a message: DSA with SHA-384 and SHA-512 has no place in CMS (RFC 5754, 3.1) and is called unsupported",
     lambda r: r.kind == "DSA in a message" and re.search("not supported dsa_with_SHA(384|512)", said(r)) is not None),
    ("a number of a DSA or ECDSA signature that lacks its leading zero, and so is negative: not DER, and up to the verifier; OpenSSL "
     "refuses it, too",
     is_missing_zero),
]


def reason_for(result):
    for text, explains in REASONS:
        if explains(result):
            return text
    return None
