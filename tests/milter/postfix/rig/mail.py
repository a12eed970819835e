"""Sending mails, waiting for what arrives, and the openssl program as the one that judges and makes S/MIME."""

import email
import email.policy
import re
import smtplib
import tempfile
import time
from pathlib import Path

from .people import openssl


class Refused(Exception):
    def __init__(self, code, text):
        super().__init__(f"{code} {text}")
        self.code = code
        self.text = text


def compose(sender, to, subject, body=b"Hello.\r\n", extra=()):
    """The bytes of a mail; `extra` are whole header fields."""
    lines = [f"From: {sender}", f"To: {', '.join(to) if isinstance(to, (list, tuple)) else to}", f"Subject: {subject}",
             "Date: Sun, 22 Nov 2026 12:00:00 +0000", f"Message-ID: <{re.sub('[^a-z0-9]+', '.', subject.lower())}@rig.example>",
             "MIME-Version: 1.0", *extra]
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


def send(port, sender, recipients, data, options=(), before=(), refused=None, notices=()):
    """Over SMTP, as bytes; raises Refused. `options` and `notices` are parameters of MAIL and of each RCPT, `before` commands that are
    sent first (XCLIENT); recipients that are refused end it unless `refused`, a list, takes them."""
    if isinstance(recipients, str):
        recipients = [recipients]
    try:
        return converse(port, sender, recipients, data, options, before, refused, notices)
    except smtplib.SMTPConnectError as failure:
        raise Refused(failure.smtp_code, failure.smtp_error.decode(errors="replace")) from None


def converse(port, sender, recipients, data, options, before, refused, notices):
    with smtplib.SMTP("127.0.0.1", port, local_hostname="client.example", timeout=120) as session:
        session.ehlo()
        for command in before:
            code, text = session.docmd(command)
            if code != 220:
                raise Refused(code, text.decode(errors="replace"))
            session.ehlo()
        code, text = session.mail(sender, list(options))
        if code != 250:
            raise Refused(code, text.decode(errors="replace"))
        for recipient in recipients:
            code, text = session.rcpt(recipient, list(notices))
            if code == 550 and refused is not None:
                refused.append(recipient)
            elif code != 250:
                raise Refused(code, text.decode(errors="replace"))
        # Not session.data(): it would change bare CRs and LFs.
        code, text = session.docmd("DATA")
        if code != 354:
            raise Refused(code, text.decode(errors="replace"))
        if not data.endswith(b"\r\n"):
            data += b"\r\n"
        session.send(re.sub(rb"(?m)^\.", b"..", data) + b".\r\n")
        code, text = session.getreply()
        if code != 250:
            raise Refused(code, text.decode(errors="replace"))
        return text.decode(errors="replace")


def until(condition, seconds=30, every=0.05):
    """What `condition` answers as soon as that is true of it; its last answer when the time is over."""
    end = time.monotonic() + seconds
    while True:
        answer = condition()
        if answer or time.monotonic() > end:
            return answer
        time.sleep(every)


def parse(data):
    return email.message_from_bytes(data, policy=email.policy.SMTP)


def split(data):
    """The header fields, as (name, value unfolded), and the body."""
    head, _, body = data.partition(b"\r\n\r\n")
    fields = []
    for line in head.split(b"\r\n"):
        if line[:1] in b" \t" and fields:
            fields[-1][1] += b" " + line.strip()
        else:
            name, _, value = line.partition(b":")
            fields.append([name, value.strip()])
    return [(name.decode("latin-1"), value.decode("latin-1")) for name, value in fields], body


def field(data, name):
    """The values of all fields of that name."""
    return [value for known, value in split(data[:data.find(b"\r\n\r\n") + 4])[0] if known.lower() == name.lower()]


class Mailboxes:
    """What Postfix delivered. Lines end in CRLF in what is answered, as they did when they were sent."""

    # What a host puts in front when it takes a mail and when it delivers one.
    TRACE = {"return-path", "x-original-to", "delivered-to", "received"}

    def __init__(self, folder):
        self.folder = Path(folder) / "all" / "new"
        self.read = {}  # by file: whose it is and what it says

    def refresh(self):
        if self.folder.exists():
            for path in sorted(self.folder.iterdir(), key=lambda path: path.stat().st_mtime_ns):
                if path.name not in self.read:
                    data = path.read_bytes()
                    whose = re.search(rb"(?m)^Delivered-To: (.*)$", data).group(1).decode()
                    self.read[path.name] = whose, self.without_trace(data)

    def count(self):
        return len(list(self.folder.iterdir())) if self.folder.exists() else 0

    def all(self, address=None):
        self.refresh()
        return [data for whose, data in self.read.values() if address in (None, whose)]

    def one(self, address, subject=None, seconds=30):
        """The mail for somebody, waited for, with a subject where one is given; None when none came."""
        def found():
            return next((data for data in self.all(address) if subject is None or subject in field(data, "Subject")), None)
        return until(found, seconds)

    def clear(self):
        for path in self.folder.iterdir() if self.folder.exists() else ():
            path.unlink()
        self.read.clear()

    @classmethod
    def without_trace(cls, data):
        data = data.replace(b"\n", b"\r\n")
        while True:
            name = data.split(b":", 1)[0].lower().decode("latin-1")
            if name not in cls.TRACE:
                return data
            end = re.search(rb"\r\n(?![ \t])", data).end()
            data = data[end:]


# The openssl program, as sender and as reader

def signed(person, entity, detached=True):
    """An S/MIME entity (its own header fields and body): `entity` with a signature."""
    options = [] if detached else ["-nodetach"]
    return crlf(openssl("cms", "-sign", "-signer", person.certificate, "-inkey", person.key, "-md", "sha256", "-crlfeol",
                        *options, "-certfile", person.authority.certificate, given=entity))


def encrypted(people, entity, cipher="-aes256"):
    return crlf(openssl("cms", "-encrypt", "-binary", cipher, *[person.certificate for person in people], given=entity))


def crlf(data):
    return re.sub(rb"\r?\n", b"\r\n", data)


def mail_of(entity, sender, to, subject):
    """A whole mail around an S/MIME entity."""
    head = compose(sender, to, subject).partition(b"\r\n\r\n")[0]
    entity = re.sub(rb"(?i)^MIME-Version:[^\r\n]*\r\n", b"", entity)
    return head + b"\r\n" + entity


def opened(person, data):
    """What is in an encrypted mail, by openssl; raises RuntimeError when the person cannot open it."""
    with tempfile.NamedTemporaryFile() as file:
        file.write(data)
        file.flush()
        return openssl("cms", "-decrypt", "-binary", "-in", file.name, "-recip", person.certificate, "-inkey", person.key)


def verified(authority, data):
    """What is signed in a mail, by openssl; raises RuntimeError when the signature or the signer is no good."""
    with tempfile.NamedTemporaryFile() as file:
        file.write(data)
        file.flush()
        return openssl("cms", "-verify", "-binary" if b"multipart/signed" not in data[:4000] else "-crlfeol", "-in", file.name,
                       "-CAfile", authority.certificate, "-purpose", "smimesign")


def kind(data):
    """What the header of a mail or of an entity says it is: clear, signed, opaque or encrypted."""
    message = parse(data)
    content = message.get_content_type()
    if content == "multipart/signed":
        return "signed"
    if content in ("application/pkcs7-mime", "application/x-pkcs7-mime"):
        kind = message.get_param("smime-type") or ""
        return "opaque" if kind == "signed-data" else "encrypted"
    return "clear"


def recipients_of(data):
    """The serial numbers of the recipients of an encrypted mail, by openssl."""
    printed = openssl("cms", "-cmsout", "-print", "-noout", given=data).decode()
    return sorted(int(number, 16) if number.startswith("0x") else int(number)
                  for number in re.findall(r"serialNumber: (0x[0-9A-Fa-f]+|\d+)", printed))
