"""What can be read off an encoding without any library: a second opinion on what certificates and lists hold."""


class Damaged(Exception):
    pass


def elements(octets):
    """(tag, content, whole) of each element, one after another; DER alone, tags of one octet."""
    at = 0
    while at < len(octets):
        start = at
        if at + 2 > len(octets) or octets[at] & 0x1F == 0x1F:
            raise Damaged("header")
        tag, length = octets[at], octets[at + 1]
        at += 2
        if length & 0x80:
            count = length & 0x7F
            if not 1 <= count <= 4 or at + count > len(octets):
                raise Damaged("length")
            length = int.from_bytes(octets[at:at + count], "big")
            at += count
        if at + length > len(octets):
            raise Damaged("cut off")
        yield tag, octets[at:at + length], octets[start:at + length]
        at += length


def children(octets):
    return list(elements(octets))


def first(octets):
    for element in elements(octets):
        return element
    raise Damaged("nothing")


def identifier(octets):
    """The digits and dots of an object identifier."""
    numbers, number = [], 0
    for octet in octets:
        number = number << 7 | octet & 0x7F
        if not octet & 0x80:
            numbers.append(number)
            number = 0
    lead = min(numbers[0] // 40, 2)
    return ".".join(map(str, [lead, numbers[0] - 40 * lead, *numbers[1:]]))


def extensions(octets):
    """(identifier, critical, value) of each."""
    found = []
    for _, extension, _ in elements(first(octets)[1]):
        parts = children(extension)
        critical = parts[1][0] == 0x01 and parts[1][1] != b"\0"
        found.append((identifier(parts[0][1]), critical, parts[-1][1]))
    return found


# The bits of OpenSSL's numbers for extended key usages.
USAGES = {"1.3.6.1.5.5.7.3.1": 0x01, "1.3.6.1.5.5.7.3.2": 0x02, "1.3.6.1.5.5.7.3.4": 0x04, "1.3.6.1.5.5.7.3.3": 0x08,
          "1.3.6.1.4.1.311.10.3.3": 0x10, "2.16.840.1.113730.4.1": 0x10, "1.3.6.1.5.5.7.3.9": 0x20,
          "1.3.6.1.5.5.7.3.8": 0x40, "1.3.6.1.5.5.7.3.10": 0x80, "2.5.29.37.0": 0x100}


def usage_bits(octets):
    bits = first(octets)[1][1:]
    value = bits[0] if bits else 0
    return value | (bits[1] << 8 if len(bits) > 1 else 0)


def certificate(octets):
    """Facts in the words of the answers."""
    whole = first(octets)
    fields = children(first(whole[1])[1])
    version = 0
    if fields[0][0] == 0xA0:
        version = int.from_bytes(first(fields[0][1])[1], "big", signed=True)
        fields = fields[1:]
    issuer, subject = fields[2], fields[4]
    found = next((extensions(content) for tag, content, _ in fields[6:] if tag == 0xA3), [])
    facts = {"version": version, "extensions": [[name, critical] for name, critical, _ in found], "keyUsage": 0,
             "extendedKeyUsage": 0, "subjectKeyIdentifier": None, "alternativeNames": []}
    authority = None
    values = {}
    for name, _, value in found:
        values.setdefault(name, value)
    if "2.5.29.15" in values:
        facts["keyUsage"] = usage_bits(values["2.5.29.15"])
    if "2.5.29.37" in values:
        for _, usage, _ in elements(first(values["2.5.29.37"])[1]):
            facts["extendedKeyUsage"] |= USAGES.get(identifier(usage), 0)
    if "2.5.29.14" in values:
        facts["subjectKeyIdentifier"] = first(values["2.5.29.14"])[1].hex()
    if "2.5.29.17" in values:
        facts["alternativeNames"] = [tag & 0x1F for tag, _, _ in elements(first(values["2.5.29.17"])[1])]
    if "2.5.29.19" in values:
        parts = children(first(values["2.5.29.19"])[1])
        authority = bool(parts) and parts[0][0] == 0x01 and parts[0][1] != b"\0"
    if authority is None:
        authority = "2.5.29.15" not in values and issuer[2] == subject[2]
    facts["authority"] = authority
    return facts


def revocation_list(octets):
    fields = children(first(first(octets)[1])[1])
    found = next((extensions(content) for tag, content, _ in fields if tag == 0xA0), [])
    number = next((value for name, _, value in found if name == "2.5.29.20"), None)
    return {"extensions": [[name, critical] for name, critical, _ in found],
            "delta": any(name == "2.5.29.27" for name, _, _ in found),
            "number": None if number is None else int.from_bytes(first(number)[1], "big", signed=True)}
