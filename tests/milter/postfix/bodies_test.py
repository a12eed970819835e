"""Bodies of every kind on their whole way: signed and encrypted by the first host's filter, opened by the second's."""

import base64
import email
import email.policy
import random

from checks import RECIPIENT, SENDER, Case, mail


class Bodies(Case):
    @classmethod
    def prepare(cls):
        # friend@ gets mail signed alone, everybody else signed and encrypted.
        cls.world.outgoing.settings.rules = [
            {"name": "clear", "recipient": "friend@b.example", "sign": "must", "encrypt": "never"},
            {"name": "opaque", "recipient": "third@b.example", "sign": "must", "encrypt": "never", "form": "opaque"},
            {"name": "sealed", "recipient": "*@b.example", "sign": "must", "encrypt": "must"}]
        cls.world.incoming.settings.change("incoming", deliver="content")

    RECIPIENTS = ("friend@b.example", "third@b.example", RECIPIENT)

    def journey(self, subject, body, extra=(), recipients=RECIPIENTS, seconds=60):
        """What arrives for each of the recipients, as (recipient, mail), with opaque signatures taken away; the verdicts and what
        passed the wire were looked at."""
        for recipient in recipients:
            data = mail.compose(SENDER, recipient, subject, body, extra)
            self.world.send(recipient, data, options=["BODY=8BITMIME"])
        found = []
        kinds = {"friend@b.example": "signed", "third@b.example": "opaque", RECIPIENT: "encrypted"}
        for recipient in recipients:
            arrived = self.arrived(recipient, subject, seconds)
            passed, = self.wire(subject, recipient)
            self.assertEqual(kinds[recipient], mail.kind(passed.data), recipient)
            self.assert_verdict(arrived, "pass")
            if mail.kind(arrived) == "opaque":
                head = arrived.partition(b"\r\n\r\n")[0]
                outside = mail.re.sub(rb"(?im)^(content-[^:]*|mime-version):.*\r\n([ \t].*\r\n)*", b"", head + b"\r\n")
                arrived = outside + b"MIME-Version: 1.0\r\n" + mail.verified(self.world.authority, arrived)
            found.append((recipient, arrived))
        return found

    @staticmethod
    def content(data):
        """The octets of a mail's text, transfer encodings and a signature around it taken away."""
        message = email.message_from_bytes(data, policy=email.policy.SMTP)
        if message.get_content_type() == "multipart/signed":
            message = message.get_payload(0)
        return message.get_payload(decode=True)

    def same(self, subject, body, extra=("Content-Type: text/plain; charset=utf-8", "Content-Transfer-Encoding: 8bit"), **others):
        for recipient, arrived in self.journey(subject, body, extra, **others):
            self.assertEqual(body, self.content(arrived), f"{subject} for {recipient}")

    def test_text(self):
        self.same("text", b"One line.\r\n.a dot\r\n..\r\nFrom here on\r\n-- \r\ntrailing blanks  \t\r\n\r\n\r\n",
                  ["Content-Type: text/plain"])

    def test_eight_bits(self):
        self.same("eight bits", "Grüße aus Köln, 日本語\r\n".encode() * 20)

    def test_octets_that_are_no_text(self):
        self.same("octets", bytes(range(1, 10)) + bytes(range(14, 256)) + b"\r\n",
                  ["Content-Type: text/plain", "Content-Transfer-Encoding: 8bit"])

    def test_binary_body_as_base64(self):
        octets = random.Random(7).randbytes(100_000)
        body = mail.crlf(base64.encodebytes(octets))
        extra = ["Content-Type: application/octet-stream", "Content-Transfer-Encoding: base64"]
        for recipient, arrived in self.journey("base64", body, extra):
            self.assertEqual(octets, self.content(arrived), recipient)

    def test_nul_octets(self):
        self.same("nuls", b"a\x00b\x00\x00c\r\n", ["Content-Type: application/octet-stream", "Content-Transfer-Encoding: 8bit"])

    def test_lines_longer_than_smtp_takes(self):
        self.same("long lines", b"x" * 5000 + b"\r\n" + b"y z " * 3000 + b"\r\n", ["Content-Type: text/plain"])

    def test_no_body(self):
        for recipient, arrived in self.journey("no body", b""):
            self.assertIn(self.content(arrived), (b"", b"\r\n"), recipient)

    def test_a_line_without_content(self):
        self.same("one line end", b"\r\n")

    def test_a_multipart(self):
        body = (b"--b1\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
                + "Grüße\r\n".encode() + b"--b1\r\nContent-Type: image/png\r\nContent-Transfer-Encoding: base64\r\n\r\niVBORw0KGgo=\r\n--b1--\r\n")
        for recipient, arrived in self.journey("multipart", body, ['Content-Type: multipart/mixed; boundary="b1"']):
            message = email.message_from_bytes(arrived, policy=email.policy.SMTP)
            if message.get_content_type() == "multipart/signed":
                message = message.get_payload(0)
            parts = message.get_payload()
            self.assertEqual("Grüße\r\n".encode().rstrip(), parts[0].get_payload(decode=True).rstrip(), recipient)
            self.assertEqual(b"\x89PNG\r\n\x1a\n", parts[1].get_payload(decode=True), recipient)

    def test_header_fields_stay(self):
        extra = ["X-Folded: one\r\n\ttwo", "List-Id: <list.a.example>", "Reply-To: =?utf-8?q?Gr=C3=BC=C3=9Fe?= <sender@a.example>",
                 "X-Same: 1", "X-Same: 2", "Content-Type: text/plain"]
        for recipient, arrived in self.journey("fields", b"text\r\n", extra):
            for text in (b"X-Folded: one\r\n\ttwo\r\n", b"List-Id: <list.a.example>\r\n", b"X-Same: 1\r\nX-Same: 2\r\n",
                         b"Reply-To: =?utf-8?q?Gr=C3=BC=C3=9Fe?= <sender@a.example>\r\n"):
                self.assertIn(text, arrived, recipient)
            self.assertEqual(1, len(mail.field(arrived, "MIME-Version")), recipient)
            self.assertEqual(1, len(mail.field(arrived, "Content-Type")), recipient)

    def test_a_next_host_without_eight_bits(self):
        self.world.tap.hide.add(b"8BITMIME")
        try:
            self.same("seven bits", "Grüße\r\n".encode())
        finally:
            self.world.tap.hide.discard(b"8BITMIME")

    def test_large(self):
        # Eight megabytes are far beyond what is kept in memory, and larger by half when they are encrypted.
        megabytes = 40
        lines = [b"%08d %s\r\n" % (number, b"x" * 60) for number in range(1000)]
        body = b"".join(lines) * (megabytes * 1_000_000 // sum(map(len, lines)))
        self.same("large", body, ["Content-Type: text/plain"], recipients=(RECIPIENT,), seconds=120)
