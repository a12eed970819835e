"""MIME for those who have none of their own: by Python's email package, as scripts around such programs do it."""

import base64
import email
import email.policy
import re
from email.message import Message
from email.mime.application import MIMEApplication
from email.mime.multipart import MIMEMultipart

# A line that mail systems change unless it is encoded, one that they take for the end, letters beyond ASCII, a blank at
# the end of a line.
TEXT = (
    "Dear Bob,\n"
    "please pay 100 euro to Anna Müller, today. \n"
    "From now on she keeps the books.\n"
    ".\n"
    "\n"
    "Alice\n"
)
SUBJECT = "Books and payments"

_exact = email.policy.compat32.clone(linesep="\r\n", max_line_length=None)


def header(sender):
    """The fields outside, for a mail of the sender's to Bob."""
    return (
        f"From: {sender}@example.org\r\nTo: bob@example.org\r\nSubject: {SUBJECT}\r\n"
        "Date: Mon, 02 Mar 2026 10:00:00 +0000\r\nMessage-ID: <books@example.org>\r\nMIME-Version: 1.0\r\n"
    ).encode()


def plain_mail(sender):
    """The mail before anything is done to it, with its text in 8 bits."""
    fields = b"Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n"
    return header(sender) + fields + b"\r\n" + TEXT.replace("\n", "\r\n").encode()


def entity():
    """The same text as a MIME part that survives its way."""
    coded = b"".join(
        line.replace(b"From ", b"=46rom ") + b"\r\n"
        for line in TEXT.replace("Müller", "M=C3=BCller").replace("today. ", "today.=20").encode().split(b"\n")[:-1]
    ).replace(b"\r\n.\r\n", b"\r\n=2E\r\n")
    fields = b"Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n"
    return fields + b"\r\n" + coded


def with_header(sender, part):
    """A part as a mail."""
    fields = re.sub(rb"(?i)\Amime-version:[^\n]*\n", b"", part)
    return header(sender) + fields


def crlf(octets):
    return re.sub(rb"\r?\n", b"\r\n", octets)


def part_of(mail):
    """A mail without the fields that do not describe its content."""
    head, blank, body = crlf(mail).partition(b"\r\n\r\n")
    fields = re.split(rb"\r\n(?![ \t])", head)
    kept = [field for field in fields if field.lower().startswith(b"content-")]
    return b"\r\n".join(kept) + blank + body


def text_in(octets):
    """The first text in a part or mail, decoded, its lines ended by LF. None without one."""
    for part in email.message_from_bytes(octets).walk():
        if part.get_content_type() == "text/plain":
            text = part.get_payload(decode=True).decode(part.get_content_charset("utf-8"))
            return text.replace("\r\n", "\n")
    return None


def opaque(cms, kind):
    """An application/pkcs7-mime part around a structure. kind: its parameter smime-type."""
    part = MIMEApplication(cms, "pkcs7-mime", name="smime.p7m", **{"smime-type": kind})
    del part["MIME-Version"]
    part.add_header("Content-Disposition", "attachment", filename="smime.p7m")
    return part.as_bytes(policy=_exact)


def flat(part):
    """A part as the email package writes it, which is what has to be signed."""
    return email.message_from_bytes(part).as_bytes(policy=_exact)


def signed(part, cms, micalg):
    """A multipart/signed part."""
    outer = MIMEMultipart("signed", protocol="application/pkcs7-signature", micalg=micalg)
    del outer["MIME-Version"]
    outer.attach(email.message_from_bytes(part))
    signature = MIMEApplication(cms, "pkcs7-signature", name="smime.p7s")
    del signature["MIME-Version"]
    outer.attach(signature)
    return outer.as_bytes(policy=_exact)


def taken_apart(mail):
    """(what is signed, the signature) of a multipart/signed mail, (None, the structure) of another one."""
    message = email.message_from_bytes(crlf(mail))
    if message.get_content_type() == "multipart/signed":
        first, second = message.get_payload()
        return first.as_bytes(policy=_exact), second.get_payload(decode=True)
    return None, message.get_payload(decode=True)


def structures(mail):
    """All CMS structures of a mail that are not inside another one, as one string of octets."""
    found = b""
    for part in email.message_from_bytes(mail).walk():
        if "pkcs7" in part.get_content_type():
            found += part.get_payload(decode=True)
    return found


def _recoded(mail, change):
    """A mail of one part with its structure changed."""
    message: Message = email.message_from_bytes(mail)
    message.set_payload(base64.encodebytes(change(message.get_payload(decode=True))).decode())
    return message.as_bytes()


def altered(mail):
    """The mail with another sum, or with another authentication tag where its text is encrypted."""
    if b"100 euro" in mail:
        return mail.replace(b"100 euro", b"900 euro")
    if email.message_from_bytes(mail).get_content_type() == "multipart/signed":
        # What is signed is itself a structure: another octet in its middle.
        middle = mail.index(b"MII") + 800
        other = b"A" if mail[middle : middle + 1] != b"A" else b"B"
        return mail[:middle] + other + mail[middle + 1 :]

    def change(cms):
        if b"100 euro" in cms:
            return cms.replace(b"100 euro", b"900 euro")
        tag = max(cms.rfind(b"\x04\x10"), cms.rfind(b"\x04\x0c")) + 2
        return cms[:tag] + bytes([cms[tag] ^ 1]) + cms[tag + 1 :]

    return _recoded(mail, change)
