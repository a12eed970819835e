"""Compares what the library makes of a file with what openssl says of it, and with what stands in its encoding."""

import asn1
import peer


class Result:
    """What became of one input under one kind."""

    def __init__(self, one, kind, outcome, differences=()):
        self.package = one.package
        self.origin = str(one.origin)
        self.label = one.label
        self.form = one.form
        self.path = one.path
        self.kind = kind
        self.outcome = outcome                # "read": both read it; "refused": neither does; "differs"
        self.differences = list(differences)  # (what, theirs, ours)
        self.reason = None
        self.task = {}
        self.der = b""
        try:
            self.der = one.der() if one.form != "mail" else b""
        except ValueError:
            pass
        # Parameters of a group: a sequence that holds nothing but integers.
        try:
            self.is_parameters = all(tag == 0x02 for tag, _, _ in asn1.elements(asn1.first(self.der)[1]))
        except asn1.Damaged:
            self.is_parameters = False


def compared(one, kind, theirs, ours):
    """Facts against facts, by name: those that theirs has."""
    differences = [(name, value, ours.get(name)) for name, value in theirs.items() if ours.get(name) != value]
    return Result(one, kind, "differs" if differences else "read", differences)


# A key of which neither OpenSSL's program nor its library makes a SubjectPublicKeyInfo: negative salt lengths, for instance.
UNENCODABLE = "has no public key"


def accepts(one, kind, theirs, ours_failed):
    """A result when one of them refuses; None when both read."""
    if theirs is None and ours_failed:
        return Result(one, kind, "refused")
    if theirs is None:
        return Result(one, kind, "differs", [("accepts", False, True)])
    if ours_failed:
        return Result(one, kind, "differs", [("accepts", True, ours_failed)])
    return None


def serial_of(digits):
    return "negative" if digits.startswith("-") else digits.lstrip("0").rjust(1, "0")


def certificate(one, program):
    theirs = peer.certificate(one)
    answer = program.ask({"do": "certificates", "path": str(one.path)})
    found = answer.get("found", [])
    failed = answer.get("failed") or ("" if found else answer.get("refusal") or "does not decode")
    if result := accepts(one, "certificate", theirs, failed):
        return result
    ours = found[0]
    try:
        theirs.update(asn1.certificate(one.der()))
    except (asn1.Damaged, ValueError, IndexError):
        pass  # BER, or not even that: openssl's facts are left
    if ours["key"] == UNENCODABLE:
        ours["key"] = None
    theirs["serial"] = serial_of(theirs["serial"])
    ours["serial"] = serial_of(ours["serial"])
    return compared(one, "certificate", theirs, ours)


def revocation_list(one, program):
    theirs = peer.revocation_list(one)
    ours = program.ask({"do": "revocationList", "path": str(one.path)})
    if result := accepts(one, "list", theirs, ours.get("failed")):
        return result
    try:
        read = asn1.revocation_list(one.der())
        number = read.pop("number")
        theirs.update(read)
        theirs["number"] = "" if number is None else serial_of(f"{number:x}")
        ours["number"] = serial_of(ours["number"]) if ours["number"] else ""
    except (asn1.Damaged, ValueError, IndexError):
        pass
    return compared(one, "list", theirs, ours)


def private_key(one, program):
    opened = peer.private_key(one)
    task = {"do": "privateKey", "path": str(one.path), "pem": one.form == "PEM"}
    if opened is None:
        for passphrase in peer.PASSPHRASES if one.encrypted else [""]:
            ours = program.ask({**task, "passphrase": passphrase})
            if "failed" not in ours and ours["key"] != UNENCODABLE:
                return Result(one, "private key", "differs", [("accepts", False, True)])
        return Result(one, "private key", "refused")
    passphrase, key = opened
    ours = program.ask({**task, "passphrase": passphrase})
    if result := accepts(one, "private key", key, ours.get("failed")):
        return result
    expected = {"key": key}
    # The prescribed reader of DER knows no encrypted keys: it has no parameter for a passphrase.
    if "plainly" in ours and not (one.form == "DER" and passphrase):
        expected["plainly"] = key
    return compared(one, "private key", expected, ours)


def public_key(one, program):
    theirs = peer.public_key(one)
    ours = program.ask({"do": "publicKey", "path": str(one.path), "pem": one.form == "PEM"})
    failed = ours.get("failed") or ours["key"] == UNENCODABLE
    return accepts(one, "public key", theirs, failed) or compared(one, "public key", {"key": theirs}, ours)


def pkcs12(one, program):
    theirs = peer.pkcs12(one)
    ask = {"do": "pkcs12", "path": str(one.path)}
    if theirs is None or theirs["passphrase"] is None:
        for passphrase in peer.PASSPHRASES if theirs else ["", "password"]:
            if "failed" not in program.ask({**ask, "passphrase": passphrase}):
                return Result(one, "PKCS#12", "differs", [("accepts", False, True)])
        return Result(one, "PKCS#12", "refused")
    # Made without any password, or under the empty one: openssl tries both.
    asked = [{**ask, "passphrase": theirs["passphrase"]}, *([ask] if theirs["passphrase"] == "" else [])]
    answers = [program.ask(task) for task in asked]
    ours = next((answer for answer in answers if "failed" not in answer), answers[0])
    if result := accepts(one, "PKCS#12", theirs, ours.get("failed")):
        return result
    key = theirs["keys"][0] if theirs["keys"] else None
    owned = [name for name, public in theirs["certificates"].items() if key is not None and public == key]
    differences = []
    if ours["key"] != key:
        differences.append(("key", key, ours["key"]))
    if ours["certificate"] not in (owned or [None]):
        differences.append(("certificate", owned, ours["certificate"]))
    return Result(one, "PKCS#12", "differs" if differences else "read", differences)


SIGNED, ENVELOPED, AUTHENTICATED = "1.2.840.113549.1.7.2", "1.2.840.113549.1.7.3", "1.2.840.113549.1.9.16.1.23"


def message(one, program, content=None, stored=None):
    theirs = peer.message(one, content)
    task = {"path": str(stored or one.path)}
    if content:
        task["content"] = str(content)
    signed = program.ask({**task, "do": "signedData"})
    reader, views = signed.get("reader", signed), signed.get("views", signed)
    if theirs is None:
        if "failed" not in reader or "failed" not in views:
            return Result(one, "CMS", "differs", [("accepts", False, signed)])
        return Result(one, "CMS", "refused")
    if theirs["type"] in (ENVELOPED, AUTHENTICATED):
        ours = program.ask({**task, "do": "envelopedData"})
        return accepts(one, "CMS", theirs, ours.get("failed")) or Result(one, "CMS", "read")
    if theirs["type"] != SIGNED:
        return Result(one, "CMS", "refused" if "failed" in reader else "differs", [("accepts", theirs["type"], True)])
    if reader.get("failed") and not theirs["valid"]:
        reader = {"signers": ["failed"]}
    if failed := reader.get("failed"):
        return Result(one, "CMS", "differs", [("accepts", True, failed)])
    differences = []
    good = bool(reader["signers"]) and all(verdict == "good" for verdict in reader["signers"])
    if good != theirs["valid"]:
        differences.append(("valid", theirs["valid"], reader["signers"]))
    if good and theirs["valid"] and reader["content"] != theirs["content"]:
        differences.append(("content", theirs["content"], reader["content"]))
    seen = views.get("failed") or views.get("signers")
    if not views.get("failed") and (bool(seen) and all(verdict == "good" for verdict in seen)) != theirs["valid"]:
        differences.append(("views", theirs["valid"], seen))
    if views.get("failed"):
        differences.append(("views", "read", seen))
    return Result(one, "CMS", "differs" if differences else "read", differences)


def mail(one, program):
    theirs = peer.mail(one)
    ours = program.ask({"do": "mail", "path": str(one.path)})
    if ours.get("failed"):
        return Result(one, "mail", "differs", [("fails", theirs["valid"], ours["failed"])])
    good = ours["verdict"] == "signature-good"
    differences = []
    if good != theirs["valid"]:
        differences.append(("valid", theirs["valid"], f"{ours['verdict']}: {ours['detail']}"))
    elif good and ours["content"] not in theirs["contents"]:
        differences.append(("content", "another", ours["content"]))
    return Result(one, "mail", "differs" if differences else "read", differences)


def results(one, program, folder):
    """Those of one input: files in DER are tried as everything, as nothing says what they are."""
    if one.kind == "certificate":
        return [certificate(one, program)]
    if one.kind == "list":
        return [revocation_list(one, program)]
    if one.kind == "private key":
        return [private_key(one, program)]
    if one.kind == "public key":
        return [public_key(one, program)]
    if one.kind == "mail":
        return [mail(one, program)]
    if one.kind == "message":
        stored = folder / (one.path.name + ".der")
        try:
            stored.write_bytes(one.der())
        except ValueError:
            stored.write_bytes(one.content)
        return [message(one, program, stored=stored)]
    tried = [certificate(one, program), revocation_list(one, program), private_key(one, program), public_key(one, program),
             pkcs12(one, program), message(one, program)]
    known = [result for result in tried if result.outcome != "refused"]
    if any(result.kind == "PKCS#12" for result in known):
        # The programs that read keys and certificates open these, too.
        known = [result for result in known if result.kind not in ("private key", "certificate")]
    return known or [Result(one, "nothing known", "refused")]
