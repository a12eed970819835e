"""The differences that are as they should be: a closed list. What none of these explains is a failure."""

import re

import asn1


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


def times(octets):
    """The tag and content of each time in an encoding."""
    try:
        parts = list(asn1.elements(octets))
    except asn1.Damaged:
        return
    for tag, content, _ in parts:
        if tag in (0x17, 0x18):
            yield tag, content
        elif tag & 0x20:
            yield from times(content)


MOMENT = rb"(?:0[1-9]|1[0-2])(?:0[1-9]|[12]\d|3[01])(?:[01]\d|2[0-3])(?:[0-5]\d){2}Z"


def is_no_time(result):
    """What cannot be converted answers as it was constructed: the last day of 1899, which no proper time is."""
    return (set(what(result)) <= {"notBefore", "notAfter", "lastUpdate", "nextUpdate"}
            and all(theirs is None and ours == -2209075200 for _, theirs, ours in result.differences)
            and any(re.fullmatch((rb"\d\d" if tag == 0x17 else rb"\d{4}") + MOMENT, time) is None for tag, time in times(result.der)))


def has_twice(result, identifier):
    names = [name for name, _ in asn1.certificate(result.der)["extensions"]]
    return names.count(identifier) > 1


def wide_numbers(result):
    """Both list the same extensions, when numbers are taken modulo 2^32."""
    if what(result) != ["extensions"]:
        return False
    _, theirs, ours = result.differences[0]
    wrapped = [[".".join(str(int(number) % (1 << 32)) for number in name.split(".")), critical] for name, critical in theirs]
    return wrapped == ours


def has_signed_attributes(structure):
    """Of the only signer of a structure in DER."""
    content = asn1.children(asn1.children(asn1.first(structure)[1])[1][1])[0][1]
    signers = asn1.children(asn1.children(content)[-1][1])
    return len(signers) != 1 or any(tag == 0xA0 for tag, _, _ in asn1.elements(signers[0][1]))


ED25519 = bytes.fromhex("06032b6570")
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
    ("numbers by themselves: an RSA public key as PKCS#1 has it, or parameters of Diffie-Hellman, which `openssl pkey -pubin` takes for "
     "one. Public keys are SubjectPublicKeyInfo here",
     lambda r: r.kind == "public key" and refuses(r) and r.is_parameters),
    ("a time with a zone offset, which RFC 5280 forbids: its fields are given as they stand (`docs/quirks.md`)", zone_offset),
    ("a time with a fraction of a second, which RFC 5280 forbids and `openssl` does not print as ISO 8601: the fraction is ignored",
     lambda r: set(what(r)) <= {"notBefore", "notAfter"} and all(theirs is None for _, theirs, _ in r.differences)
     and any(re.fullmatch(rb"\d{14}\.\d+Z", time) for _, time in times(r.der))),
    ("a time that is none (a thirteenth month, letters): it has no value, and reads as the last day of 1899; the tool names it as a "
     "problem", is_no_time),
    ("key usage that stands twice, which RFC 5280, 4.2 forbids: OpenSSL's bits are none then, nothing is allowed by them, and no "
     "chain is built with such a certificate",
     lambda r: what(r) == ["keyUsage"] and r.differences[0][2] == 0 and has_twice(r, "2.5.29.15")),
    ("an object identifier with a number beyond 2^32: such numbers wrap in its text (`docs/quirks.md`), while comparing goes by the "
     "encoding", wide_numbers),
    ("an alternative name of the kind EDI party whose explicit tag is marked primitive: OpenSSL does not decode the extension, either",
     lambda r: what(r) == ["alternativeNames"] and r.differences[0][1:] == ([5], []) and b"\xa5\x0c\x81\x0a\x13" in r.der),
    ("a PKCS#12 file without MAC, by which a password can be told from a wrong one (`docs/quirks.md`)",
     lambda r: r.kind == "PKCS#12" and refuses(r, "mac absent")),
    ("a signature of Ed25519 without signed attributes (RFC 8419): OpenSSL 3.0 cannot verify it, `SignedReader` can",
     lambda r: r.kind == "CMS" and what(r) == ["valid"] and r.differences[0][1:] == (False, ["good"]) and ED25519 in r.der
     and not has_signed_attributes(r.der)),
    ("a signer named by key identifier (SignerInfo version 3): the views of PKCS#7 1.5 do not decode it (`docs/quirks.md`), "
     "`SignedReader` does and agrees",
     lambda r: r.kind == "CMS" and what(r) == ["views"] and "CMS::_ContentInfo::_ContentInfo" in said(r)),
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
