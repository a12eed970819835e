"""Test vectors of algorithms: tasks, and what their makers say comes out.

Yields (kind, origin, task, expected). `expected` is a dictionary of facts, or False where the task has to fail."""

import json
import pathlib
import re

import asn1

HASHES = {"SHA1": "sha1", "SHA-1": "sha1", "SHA224": "sha224", "SHA256": "sha256", "SHA384": "sha384", "SHA512": "sha512",
          "SHA-224": "sha224", "SHA-256": "sha256", "SHA-384": "sha384", "SHA-512": "sha512"}
SHORT = {"sha1": "SHA1", "sha224": "SHA224", "sha256": "SHA256", "sha384": "SHA384", "sha512": "SHA512"}
DIGESTS = {"sha1": "2b0e03021a", "sha224": "608648016503040204", "sha256": "608648016503040201", "sha384": "608648016503040202",
           "sha512": "608648016503040203"}


WHAT_IS_TRIED = b"What the key that was transported is tried on.".hex()


def element(tag, *parts):
    content = b"".join(parts)
    length = len(content)
    if length < 128:
        return bytes([tag, length]) + content
    size = (length.bit_length() + 7) // 8
    return bytes([tag, 0x80 | size]) + length.to_bytes(size, "big") + content


def integer(number):
    return element(2, number.to_bytes(number.bit_length() // 8 + 1, "big"))


def sequence(*parts):
    return element(0x30, *parts)


def oid(dotted):
    numbers = [int(one) for one in dotted.split(".")]
    octets = b""
    for number in [numbers[0] * 40 + numbers[1], *numbers[2:]]:
        groups = [number & 0x7F]
        while number := number >> 7:
            groups.append(0x80 | number & 0x7F)
        octets += bytes(reversed(groups))
    return element(6, octets)


def tagged(number_, *parts):
    return element(0xA0 | number_, *parts)


def digest_oid(name):
    return oid({"sha1": "1.3.14.3.2.26", "sha224": "2.16.840.1.101.3.4.2.4", "sha256": "2.16.840.1.101.3.4.2.1",
                "sha384": "2.16.840.1.101.3.4.2.2", "sha512": "2.16.840.1.101.3.4.2.3"}[name])


NULL = element(5)
RSA = sequence(oid("1.2.840.113549.1.1.1"), NULL)


def mask_algorithm(name):
    return sequence(oid("1.2.840.113549.1.1.8"), sequence(digest_oid(name), NULL))


def pss_algorithm(digest, mask, salt):
    return sequence(oid("1.2.840.113549.1.1.10"), sequence(tagged(0, sequence(digest_oid(digest), NULL)), tagged(1, mask_algorithm(mask)),
                                                           tagged(2, integer(salt))))


def oaep_algorithm(digest, mask):
    return sequence(oid("1.2.840.113549.1.1.7"), sequence(tagged(0, sequence(digest_oid(digest), NULL)), tagged(1, mask_algorithm(mask))))


def public(algorithm, key):
    return sequence(algorithm, element(3, b"\0", key))


def rsa_public(modulus, exponent):
    return public(RSA, sequence(integer(modulus), integer(exponent)))


def rsa_private(modulus, public_exponent, exponent, prime1, prime2):
    """RSAPrivateKey (RFC 8017, A.1.2)."""
    return sequence(*(integer(one) for one in (0, modulus, public_exponent, exponent, prime1, prime2, exponent % (prime1 - 1),
                                               exponent % (prime2 - 1), pow(prime2, -1, prime1))))


def dsa_public(p, q, g, y):
    return public(sequence(oid("1.2.840.10040.4.1"), sequence(integer(p), integer(q), integer(g))), integer(y))


CURVES = {"P-192": ("1.2.840.10045.3.1.1", 24), "P-224": ("1.3.132.0.33", 28), "P-256": ("1.2.840.10045.3.1.7", 32),
          "P-384": ("1.3.132.0.34", 48), "P-521": ("1.3.132.0.35", 66), "K-163": ("1.3.132.0.1", 21), "K-233": ("1.3.132.0.26", 30),
          "K-283": ("1.3.132.0.16", 36), "K-409": ("1.3.132.0.36", 52), "K-571": ("1.3.132.0.38", 72), "B-163": ("1.3.132.0.15", 21),
          "B-233": ("1.3.132.0.27", 30), "B-283": ("1.3.132.0.17", 36), "B-409": ("1.3.132.0.37", 52), "B-571": ("1.3.132.0.39", 72)}


def ec_public(curve, x, y):
    name, size = CURVES[curve]
    return public(sequence(oid("1.2.840.10045.2.1"), oid(name)), b"\4" + x.to_bytes(size, "big") + y.to_bytes(size, "big"))


def records(path):
    """(section lines, fields) of NIST's files: NAME = value, a record ends with a blank line."""
    sections, fields, in_header = {}, {}, False
    for line in [*path.read_text("latin-1").splitlines(), ""]:
        line = line.strip()
        if line.startswith("#"):
            continue
        if line.startswith("["):
            if not in_header:
                sections = {}
            in_header = True
            name, _, value = line.strip("[]").partition("=")
            sections[name.strip()] = value.strip()
            continue
        if not line:
            if fields:
                yield sections, fields
            fields = {}
            continue
        in_header = False
        name, _, value = line.partition("=")
        fields[name.strip()] = value.strip()


OTHER_HASHES = {"blake2b.txt": "BLAKE2b512", "blake2s.txt": "BLAKE2s256", "oscca.txt": "SM3", "ripevectors.txt": "RIPEMD160",
                "rfc-1321.txt": "MD5"}


def hashes(folder):
    for path in sorted(folder.rglob("*")):
        name = re.match(r"(SHA3_\d+|SHA512_\d+|SHA\d+)(?:Short|Long)Msg\.rsp", path.name)
        if not name and path.name not in OTHER_HASHES:
            continue
        short = OTHER_HASHES.get(path.name) or name.group(1).replace("SHA3_", "SHA3-").replace("SHA512_", "SHA512-")
        for _, fields in records(path):
            if "MD" in fields and "Key" not in fields:
                message = fields["Msg"] if int(fields.get("Len", "1")) else ""
                yield "digest", path, {"do": "digest", "digest": short, "message": message}, {"digest": fields["MD"].lower()}


def both_ways(path, kind, task, algorithm, digest, valid):
    """By the verifier, and in a signed message."""
    expected = {"valid": True} if valid else False
    if digest is not None:
        yield kind, path, {**task, "do": "signature", "digest": SHORT[digest]}, expected
    yield (kind + " in a message", path,
           {**task, "do": "messageSignature", "digest": SHORT[digest or "sha512"], "algorithm": algorithm.hex()}, expected)


ECDSA_WITH = {"sha1": "1.2.840.10045.4.1", "sha224": "1.2.840.10045.4.3.1", "sha256": "1.2.840.10045.4.3.2",
              "sha384": "1.2.840.10045.4.3.3", "sha512": "1.2.840.10045.4.3.4"}
DSA_WITH = {"sha1": "1.2.840.10040.4.3", "sha224": "2.16.840.1.101.3.4.3.1", "sha256": "2.16.840.1.101.3.4.3.2",
            "sha384": "2.16.840.1.101.3.4.3.3", "sha512": "2.16.840.1.101.3.4.3.4"}


def number(text):
    return int(text, 16)


def nist_rsa(path):
    key = {}
    for _, fields in records(path):
        key = {name: number(fields[name]) if name in fields else key.get(name) for name in "npqed"}
        if "S" not in fields:
            continue
        digest = HASHES[fields["SHAAlg"]]
        valid = fields.get("Result", "P").startswith("P")
        task = {"key": rsa_public(key["n"], key["e"]).hex(), "message": fields["Msg"], "signature": fields["S"]}
        yield from both_ways(path, "RSA PKCS#1 1.5", task, RSA, digest, valid)
        if valid and key["d"]:
            private = rsa_private(key["n"], key["e"], key["d"], key["p"], key["q"])
            yield signing(path, private, digest, fields["Msg"], fields["S"])


def signing(path, private, digest, message, signature):
    """What PKCS#1 1.5 signs is always the same."""
    return ("RSA PKCS#1 1.5, signing", path,
            {"do": "signing", "digest": SHORT[digest], "key": private.hex(), "message": message}, {"signature": signature.lower()})


def nist_pss(path, salt):
    key = {}
    for _, fields in records(path):
        key = {name: number(fields[name]) if name in fields else key.get(name) for name in "ne"}
        if "S" in fields:
            yield pss(path, rsa_public(key["n"], key["e"]), HASHES[fields["SHAAlg"]], salt, fields["Msg"], fields["S"],
                      fields.get("Result", "P").startswith("P"))


def pss(path, key, digest, salt, message, signature, valid):
    return ("RSASSA-PSS in a message", path,
            {"do": "messageSignature", "digest": SHORT[digest], "key": key.hex(), "message": message, "signature": signature,
             "algorithm": pss_algorithm(digest, digest, salt).hex()}, {"valid": True} if valid else False)


def labelled(path):
    """(public key, private key, fields) of each example in RSA Laboratories' files: "# Name:" and lines of digits below it."""
    names, key, fields = [], None, {}
    for line in [*path.read_text("latin-1").splitlines(), "# Message:"]:
        found = re.match(r"#\s*([A-Z][A-Za-z0-9 ]*):\s*$", line)
        if found:
            name = found.group(1).removesuffix(" to be signed")
            if name == "Message" and "Coefficient" in fields:
                values = [number(fields[one]) for one in ("Modulus", "Public exponent", "Exponent", "Prime 1", "Prime 2")]
                key = rsa_public(*values[:2]), rsa_private(*values)
            elif {"Encryption", "Signature"} & fields.keys():
                yield *key, fields
            if name == "Message" or {"Encryption", "Signature"} & fields.keys():
                fields = {}
            fields[name] = ""
            names = [name]
        elif line.startswith(("#", "=")):
            names = []
        elif names and re.fullmatch(r"[0-9a-fA-F ]+", line.strip()):
            fields[names[0]] += line.replace(" ", "").strip()


def rsa_laboratories(folder):
    for path, kind in ((folder / "pkcs1v15sign-vectors.txt", "sign"), (folder / "pkcs-1v2-1d2-vec/pss-vect.txt", "pss")):
        for key, private, fields in labelled(path):
            if kind == "pss":
                yield pss(path, key, "sha1", 20, fields["Message"], fields["Signature"], True)
                continue
            task = {"key": key.hex(), "message": fields["Message"], "signature": fields["Signature"]}
            yield from both_ways(path, "RSA PKCS#1 1.5", task, RSA, "sha1", True)
            yield signing(path, private, "sha1", fields["Message"], fields["Signature"])
    transports = [(folder / "pkcs1v15crypt-vectors.txt", RSA), (folder / "pkcs-1v2-1d2-vec/oaep-vect.txt", oaep_algorithm("sha1", "sha1"))]
    for path in sorted((folder / "oaep-custom").glob("oaep-*.txt")):
        _, mask, digest = path.stem.split("-")
        transports.append((path, oaep_algorithm(digest, mask)))
    for path, algorithm in transports:
        for key, private, fields in labelled(path):
            yield from transport(path, key, private, algorithm, fields["Message"], fields["Encryption"])


def transport(path, key, private, algorithm, clear, secret):
    """Where the message has the length of a key for AES: it is taken for one."""
    if len(clear) in (32, 48, 64):
        yield ("RSA PKCS#1 1.5 decryption in a message" if algorithm == RSA else "RSAES-OAEP in a message", path,
               {"do": "keyTransport", "key": private.hex(), "publicKey": key.hex(), "algorithm": algorithm.hex(), "secret": secret,
                "clear": clear}, {"content": WHAT_IS_TRIED})


def nist_dsa(path):
    group = {}
    for sections, fields in records(path):
        group = {name: fields.get(name, group.get(name)) for name in "PQG"}
        if "R" not in fields:
            continue
        digest = HASHES[next(iter(sections.values())).split(",")[-1].strip()]
        signature = sequence(integer(number(fields["R"])), integer(number(fields["S"])))
        task = {"key": dsa_public(*(number(group[name]) for name in "PQG"), number(fields["Y"])).hex(), "message": fields["Msg"],
                "signature": signature.hex()}
        yield from both_ways(path, "DSA", task, sequence(oid(DSA_WITH[digest])), digest, fields["Result"].startswith("P"))


def nist_ecdsa(path):
    for sections, fields in records(path):
        if "R" not in fields:
            continue
        curve, _, hashed = next(iter(sections)).partition(",")
        if hashed not in HASHES:
            continue
        digest = HASHES[hashed]
        signature = sequence(integer(number(fields["R"])), integer(number(fields["S"])))
        task = {"key": ec_public(curve, number(fields["Qx"]), number(fields["Qy"])).hex(), "message": fields["Msg"],
                "signature": signature.hex()}
        yield from both_ways(path, "ECDSA", task, sequence(oid(ECDSA_WITH[digest])), digest, fields["Result"].startswith("P"))


def ed25519(path):
    algorithm = sequence(oid("1.3.101.112"))
    for line in path.read_text().splitlines():
        _, key, message, signed, _ = line.split(":")
        task = {"key": public(algorithm, bytes.fromhex(key)).hex(), "message": message, "signature": signed[:128]}
        yield from both_ways(path, "Ed25519", task, algorithm, None, True)
        wrong = f"{int(signed[0], 16) ^ 1:x}" + signed[1:128]
        yield from both_ways(path, "Ed25519", {**task, "signature": wrong}, algorithm, None, False)


def cbc(path, cipher_of):
    for _, fields in records(path):
        if not {"PLAINTEXT", "CIPHERTEXT", "IV"} <= fields.keys():
            continue
        key = fields.get("KEY") or fields.get("KEYs", "") * 3 or fields["KEY1"] + fields["KEY2"] + fields["KEY3"]
        task = {"do": "blockCipher", "cipher": cipher_of(key), "key": key, "iv": fields["IV"], "clear": fields["PLAINTEXT"]}
        # The library pads: the vector, and one block more.
        yield "CBC", path, task, {"clear": fields["PLAINTEXT"].lower(), "secret": fields["CIPHERTEXT"].lower()}


def gcm(path):
    for _, fields in records(path):
        if "Tag" not in fields or fields.get("AAD"):
            continue
        clear = fields.get("PT")
        task = {"do": "authenticatedCipher", "key": fields["Key"], "iv": fields["IV"], "secret": fields["CT"], "tag": fields["Tag"]}
        yield "AES-GCM in a message", path, task, {"content": clear.lower()} if clear is not None else False


def key_wrap(path):
    for _, fields in records(path):
        # Keys of AES alone. Where unwrapping has to fail there is nothing to see: a key that does not come out and one that is
        # another fail alike in a message.
        clear = fields.get("P", "")
        if len(clear) in (32, 48, 64):
            task = {"do": "keyTransport", "wrappingKey": fields["K"], "secret": fields["C"], "clear": clear}
            yield "AES key wrap in a message", path, task, {"content": WHAT_IS_TRIED}


def json_vectors(path):
    """Project Wycheproof's. "acceptable" is up to whoever verifies, and left out."""
    read = json.loads(path.read_text())
    for group in read["testGroups"]:
        for test in group["tests"]:
            if test["result"] == "acceptable":
                continue
            valid = test["result"] == "valid"
            kind = group["type"]
            if kind in ("DsaVerify", "DSAVer", "DsaVer"):
                task = {"key": group["keyDer"], "message": test["msg"], "signature": test["sig"]}
                digest = HASHES[group["sha"]]
                yield from both_ways(path, "DSA", task, sequence(oid(DSA_WITH[digest])), digest, valid)
            elif kind.startswith("RsassaPss") and group["sha"] in HASHES and group["mgfSha"] in HASHES:
                digest = HASHES[group["sha"]]
                key = rsa_public(number(group["n"]), number(group["e"]))
                yield ("RSASSA-PSS in a message", path,
                       {"do": "messageSignature", "digest": SHORT[digest], "key": key.hex(), "message": test["msg"],
                        "signature": test["sig"], "algorithm": pss_algorithm(digest, HASHES[group["mgfSha"]], group["sLen"]).hex()},
                       {"valid": True} if valid else False)
            elif path.name.startswith("aes_cbc"):
                task = {"do": "blockCipher", "cipher": f"AES-{group['keySize']}-CBC", "key": test["key"], "iv": test["iv"],
                        "secret": test["ct"]}
                yield "CBC", path, task, {"clear": test["msg"]} if valid else False
            elif path.name.startswith("aes_gcm") and not test["aad"]:
                task = {"do": "authenticatedCipher", "key": test["key"], "iv": test["iv"], "secret": test["ct"], "tag": test["tag"]}
                yield "AES-GCM in a message", path, task, {"content": test["msg"]} if valid else False


def structures(path):
    """(words, octet strings) of each test vector in a header of NSS: the braces of C++, and names of strings above or, for the keys
    of OAEP, in the header of the same digest with SHA-1 beside it."""
    text = re.sub(r"//.*|/\*.*?\*/", "", path.read_text(), flags=re.M)
    beside = path.with_name(re.sub(r"mgf1sha\d+", "mgf1sha1", path.name)).read_text()
    named = {name: bytes(int(one, 16) for one in re.findall("0x([0-9a-f]{2})", octets))
             for name, octets in re.findall(r"std::vector<uint8_t> (\w+)\{([^}]*)\}", beside + text)}
    table = text[text.index("Vectors[] = {"):] if "Vectors[] = {" in text else ""
    for entry in re.findall(r"\{((?:[^{}]|\{[^{}]*\})+?(?:true|false))\s*\}", table):
        parts = re.findall(r"\{([^{}]*)\}|(\w+)", entry)
        strings, words = [], []
        for octets, word in parts:
            if word in named:
                strings.append(named[word])
            elif word:
                words.append(word)
            else:
                strings.append(bytes(int(one, 16) for one in re.findall("0x([0-9a-f]{2})", octets)))
        yield words, strings


def public_half(private):
    """(modulus, public exponent) of a PrivateKeyInfo."""
    key = asn1.children(asn1.first(asn1.children(asn1.first(private)[1])[2][1])[1])
    return tuple(int.from_bytes(content, "big") for _, content, _ in key[1:3])


def wrapped_keys(path):
    strings_ = r"\{([^{}]*)\},\s*" * 3
    for entry in re.finditer(r"\{\d+,\s*" + strings_ + r"\{\{Action::WRAP.*?\{Action::UNWRAP, \{(\w+), (\w+)\}\}", path.read_text(), re.S):
        key, clear, secret = ("".join(re.findall("0x([0-9a-f]{2})", octets)) for octets in entry.groups()[:3])
        if entry.group(4, 5) == ("SECSuccess", "true") and len(clear) in (32, 48, 64):
            yield ("AES key wrap in a message", path, {"do": "keyTransport", "wrappingKey": key, "secret": secret, "clear": clear},
                   {"content": WHAT_IS_TRIED})


def headers(path):
    for words, strings in structures(path):
        valid = words[-1] == "true"
        if re.match(r"rsa_(oaep|pkcs1)_", path.name) and valid:
            clear, secret, *label, private = strings
            if any(label):
                continue  # oaep_algorithm writes none
            algorithm = RSA
            if "oaep" in path.name:
                algorithm = oaep_algorithm(*(f"sha{one}" for one in re.search(r"sha(\d+)_mgf1sha(\d+)", path.name).groups()))
            yield from transport(path, rsa_public(*public_half(private)), private, algorithm, clear.hex(), secret.hex())
        if "ecdsa" in path.name or "rsa_signature" in path.name:
            digest = words[0].rpartition("_")[2].lower()
            if digest not in SHORT or len(strings) != 3:
                continue
            signature, key, message = strings
            kind = "ECDSA" if "ecdsa" in path.name else "RSA PKCS#1 1.5"
            algorithm = sequence(oid(ECDSA_WITH[digest])) if kind == "ECDSA" else RSA
            task = {"key": key.hex(), "message": message.hex(), "signature": signature.hex()}
            yield from both_ways(path, kind, task, algorithm, digest, valid)


def of_package(package, folder):
    folder = pathlib.Path(folder)
    if package == "python3-cryptography-vectors":
        base = next(folder.rglob("cryptography_vectors"))
        yield from hashes(base / "hashes")
        rsa = base / "asymmetric/RSA/FIPS_186-2"
        for name in ("SigVer15_186-3.rsp", "SigGen15_186-2.rsp", "SigGen15_186-3.rsp"):
            yield from nist_rsa(rsa / name)
        for name in ("SigVerPSS_186-3.rsp", "SigGenPSS_186-2.rsp", "SigGenPSS_186-3.rsp"):
            salt = re.search(r"# Salt len: *(\d+)", (rsa / name).read_text("latin-1"))
            if salt:
                yield from nist_pss(rsa / name, int(salt.group(1)))
        yield from rsa_laboratories(base / "asymmetric/RSA")
        yield from nist_dsa(base / "asymmetric/DSA/FIPS_186-3/SigVer.rsp")
        yield from nist_ecdsa(base / "asymmetric/ECDSA/FIPS_186-3/SigVer.rsp")
        yield from ed25519(base / "asymmetric/Ed25519/sign.input")
        for path in sorted((base / "ciphers/AES/CBC").glob("*.rsp")):
            yield from cbc(path, lambda key: f"AES-{len(key) * 4}-CBC")
        for path in sorted((base / "ciphers/3DES/CBC").glob("TCBC[MV]*.rsp")):
            yield from cbc(path, lambda key: "DES-EDE3-CBC")
        for name, cipher in (("Blowfish/bf-cbc.txt", "BF-CBC"), ("CAST5/cast5-cbc.txt", "CAST5-CBC"), ("IDEA/idea-cbc.txt", "IDEA-CBC")):
            yield from cbc(base / "ciphers" / name, lambda _, cipher=cipher: cipher)
        for path in sorted((base / "ciphers/AES/GCM").glob("gcmDecrypt*.rsp")):
            yield from gcm(path)
        for path in sorted((base / "keywrap/kwtestvectors").glob("KW_AD_???.txt")):
            yield from key_wrap(path)
    if package == "nss":
        for path in sorted((folder / "gtests/common/wycheproof/source_vectors").glob("*.json")):
            yield from json_vectors(path)
        for path in sorted((folder / "gtests/common/testvectors").glob("*.h")):
            yield from headers(path)
        yield from wrapped_keys(folder / "gtests/common/testvectors/kw-vectors.h")


def agrees(task, expected, answer):
    """Whether that is what was expected. An octet string that is padded begins with the one expected."""
    if answer.get("died"):
        return False
    if expected is False:
        return "failed" in answer or answer.get("valid") is False
    if "failed" in answer:
        return False
    for name, value in expected.items():
        got = answer.get(name)
        if name == "secret":
            if not (got or "").startswith(value):
                return False
        elif got != value:
            return False
    return True
