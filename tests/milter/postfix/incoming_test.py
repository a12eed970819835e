"""What becomes of mail that comes in: made by the openssl program, sent straight to the receiving host."""

import os
import subprocess

from checks import RECIPIENT, SENDER, Case, mail
from rig.gateway import USER

TEXT = b"Content-Type: text/plain; charset=utf-8\r\n\r\nThe price is 100 euros.\r\n"


class Incoming(Case):
    def deliver(self, data, subject, recipient=RECIPIENT, sender=SENDER):
        mail.send(self.world.in_port, sender, recipient, data, options=["BODY=8BITMIME"])
        return self.arrived(recipient, subject)

    def person(self, address=SENDER):
        return self.world.people[address]

    def made(self, entity, subject, sender=SENDER, extra=()):
        data = mail.mail_of(entity, sender, RECIPIENT, subject)
        return "".join(f"{field}\r\n" for field in extra).encode() + data

    def test_plain_mail_is_not_touched(self):
        extra = ["X-Folded: one\r\n\ttwo\r\n   three", "X-Empty:", "X-Wide:no blank", "X-Octets: äöü",
                 "Authentication-Results: mx.elsewhere.example; spf=pass smtp.mailfrom=a.example",
                 "DKIM-Signature: v=1; a=rsa-sha256; d=a.example;\r\n\tb=abc=", "X-Folded: again"]
        body = b"\r\n\r\n.dots\r\n..\r\n trailing  \r\nbare \r return\r\n\xff\xfe\r\n\r\n"
        data = mail.compose(SENDER, RECIPIENT, "plain", body, extra)
        self.assertEqual(data, self.deliver(data, "plain"))

    def test_a_body_that_is_empty_or_absent_is_not_touched(self):
        data = mail.compose(SENDER, RECIPIENT, "empty", b"")
        self.assertEqual(data, self.deliver(data, "empty"))

    def test_forged_results_in_our_name_go_and_others_stay(self):
        ours = ["Authentication-Results: mx.b.example; smime=pass body.smime-serial=1",
                "Authentication-Results: MX.B.EXAMPLE 1; smime=pass",
                "Authentication-Results: (comment) mx.b.example; none",
                'Authentication-Results: "mx.b.example"; smime=pass',
                "Authentication-Results:\r\n mx.b.example ;\r\n smime=pass",
                # What some mail programs take for the field, too.
                "Authentication-Results : mx.b.example; smime=pass", "AUTHENTICATION-RESULTS:mx.b.example;smime=pass",
                "X-Norvcrypt-Verdict: accepted", "x-norvcrypt-signer : somebody"]
        others = ["Authentication-Results: mx.bb.example; smime=pass", "Authentication-Results: mx.b.example.net; smime=pass",
                  "X-Other: mx.b.example; smime=pass"]
        clean = mail.compose(SENDER, RECIPIENT, "forged", b"x\r\n", others)
        forged = mail.compose(SENDER, RECIPIENT, "forged", b"x\r\n", [ours[0], others[0], *ours[1:], *others[1:]])
        self.assertEqual(clean, self.deliver(forged, "forged"))

    def test_signed(self):
        for subject, detached in (("signed", True), ("opaque", False)):
            with self.subTest(subject):
                data = self.made(mail.signed(self.person(), TEXT, detached), subject)
                arrived = self.deliver(data, subject)
                self.assert_verdict(arrived, "pass")
                verdict = self.verdict(arrived)
                self.assertIn("body.smime-identifier=sender@a.example", verdict.replace('"', ""))
                self.assertRegex(verdict.lower().replace('"', ""), rf"body\.smime-serial=0*{self.person().serial:x}\b")
                self.assertIn("Rig Root", verdict)
                self.assertIn(b"The price is 100 euros.", arrived if detached else mail.verified(self.world.authority, arrived))

    def test_changed_after_signing(self):
        data = self.made(mail.signed(self.person(), TEXT), "changed").replace(b"100 euros", b"900 euros")
        arrived = self.deliver(data, "changed")
        self.assert_verdict(arrived, "fail")
        self.assertEqual(mail.split(data)[1], mail.split(arrived)[1])

    def test_signed_by_somebody_who_is_not_trusted(self):
        data = self.made(mail.signed(self.person("stranger@a.example"), TEXT), "stranger", sender="stranger@a.example")
        self.assert_verdict(self.deliver(data, "stranger", sender="stranger@a.example"), "(policy|fail)")

    def test_signed_by_somebody_else_than_the_sender(self):
        data = self.made(mail.signed(self.person("second@a.example"), TEXT), "another")
        self.assert_verdict(self.deliver(data, "another"), "(policy|fail)")

    def test_encrypted_and_signed(self):
        inner = mail.signed(self.person(), TEXT)
        arrived = self.deliver(self.made(mail.encrypted([self.person(RECIPIENT)], inner), "both"), "both")
        self.assert_verdict(arrived, "pass")
        self.assertIn(b"The price is 100 euros.", arrived)
        self.assertEqual("signed", mail.kind(arrived))
        self.assertIn(b"100 euros", mail.verified(self.world.authority, arrived))

    def test_encrypted_alone(self):
        arrived = self.deliver(self.made(mail.encrypted([self.person(RECIPIENT)], TEXT), "sealed"), "sealed")
        self.assertEqual("clear", mail.kind(arrived))
        self.assertTrue(arrived.endswith(b"\r\n\r\nThe price is 100 euros.\r\n"), arrived)
        self.assertNotIn("smime=pass", self.verdict(arrived) or "")

    def test_encrypted_for_another_of_several_recipients(self):
        people = [self.person("stranger@a.example"), self.person(RECIPIENT)]
        arrived = self.deliver(self.made(mail.encrypted(people, TEXT), "several"), "several")
        self.assertTrue(arrived.endswith(b"The price is 100 euros.\r\n"), arrived)

    def test_no_key_here(self):
        data = self.made(mail.encrypted([self.person(SENDER)], TEXT), "no key")
        arrived = self.deliver(data, "no key")
        self.assertIsNotNone(self.verdict(arrived))
        self.assertNotIn("smime=pass", self.verdict(arrived))
        self.assertEqual(mail.split(data)[1], mail.split(arrived)[1])
        self.assertEqual("encrypted", mail.kind(arrived))

    def test_damaged(self):
        whole = self.made(mail.encrypted([self.person(RECIPIENT)], TEXT), "damaged")
        head, body = whole.split(b"\r\n\r\n", 1)
        for subject, broken in (("damaged cut", body[:len(body) // 8 * 4]), ("damaged none", b""),
                                ("damaged text", b"!!!\r\n" * 5)):
            with self.subTest(subject):
                data = head.replace(b"Subject: damaged", f"Subject: {subject}".encode()) + b"\r\n\r\n" + broken
                if not data.endswith(b"\r\n"):
                    data += b"\r\n"
                arrived = self.deliver(data, subject)
                self.assertNotIn("smime=pass", self.verdict(arrived) or "")
                self.assertEqual(mail.split(data)[1], mail.split(arrived)[1])

    def test_parts_that_no_signature_covers(self):
        signed = mail.signed(self.person(), TEXT)
        entity = (b'Content-Type: multipart/mixed; boundary="outer"\r\n\r\n--outer\r\n'
                  b'Content-Type: text/plain\r\n\r\nThe price is 1 euro.\r\n'
                  b"--outer\r\n" + mail.re.sub(rb"(?i)^MIME-Version:[^\r\n]*\r\n", b"", signed) + b"\r\n--outer--\r\n")
        data = self.made(entity, "uncovered")
        arrived = self.deliver(data, "uncovered")
        self.assertNotIn("smime=pass", self.verdict(arrived) or "")
        self.assertEqual(mail.split(data)[1], mail.split(arrived)[1])

    def test_bounces_come_through(self):
        data = mail.compose("MAILER-DAEMON@a.example", RECIPIENT, "bounce")
        self.assertEqual(data, self.deliver(data, "bounce", sender=""))

    def test_a_verdict_that_is_refused(self):
        filter_ = self.world.incoming
        filter_.settings.change("incoming", refuse=["fail"])
        self.world.reconfigure(filter_)
        try:
            data = self.made(mail.signed(self.person(), TEXT), "refused").replace(b"100 euros", b"900 euros")
            self.assert_refused(550, "5.7.", lambda: mail.send(self.world.in_port, SENDER, RECIPIENT, data))
        finally:
            filter_.settings.change("incoming", refuse=[])
            self.world.reconfigure(filter_)

    def test_headers_for_clients(self):
        filter_ = self.world.incoming
        filter_.settings.change("incoming", client_headers=True)
        self.world.reconfigure(filter_)
        try:
            data = self.made(mail.signed(self.person(), TEXT), "for clients", extra=["X-Norvcrypt-Verdict: forged"])
            arrived = self.deliver(data, "for clients")
            fields = [(name, value) for name, value in mail.split(arrived)[0] if name.lower().startswith("x-norvcrypt-")]
            self.assertTrue(fields)
            self.assertNotIn("forged", [value for _, value in fields])
        finally:
            filter_.settings.change("incoming", client_headers=False)
            self.world.reconfigure(filter_)

    def test_a_revoked_signer(self):
        revoked = self.world.authority.issue("revoked@a.example")
        self.world.authority.revoke(revoked)
        filter_ = self.world.incoming
        (filter_.lists / "root.crl").write_bytes(self.world.authority.revocation_list().read_bytes())
        filter_.own()
        filter_.settings.change("trust", lists=[str(filter_.lists)], revocation="required")
        self.world.reconfigure(filter_)
        try:
            data = self.made(mail.signed(revoked, TEXT), "revoked", sender="revoked@a.example")
            arrived = self.deliver(data, "revoked", sender="revoked@a.example")
            self.assertNotIn("smime=pass", self.verdict(arrived))
            self.assertIn("revoked", self.verdict(arrived))
            self.assert_verdict(self.deliver(self.made(mail.signed(self.person(), TEXT), "not revoked"), "not revoked"), "pass")
        finally:
            filter_.settings.change("trust", lists=[], revocation="none")
            self.world.reconfigure(filter_)


class Learning(Case):
    """A certificate that came with a mail is encrypted to, until it is taken back."""

    NEWCOMER = "newcomer@b.example"

    @classmethod
    def prepare(cls):
        filter_ = cls.world.outgoing
        filter_.settings.change("learn", enabled=True, folder=filter_.learned)
        filter_.settings.rules = [{"name": "all", "sign": "never", "encrypt": "must"}]

    def command(self, *arguments):
        """What `learnt` of the program says, as the filter's user."""
        filter_ = self.world.outgoing
        program, libraries = filter_.runnable()
        done = subprocess.run([program, "learnt", "--config", filter_.config, *arguments], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, user=USER, extra_groups=[], env={**os.environ, **libraries})
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        return done.stdout

    def test_from_the_first_mail_to_taking_it_back(self):
        newcomer = self.world.authority.issue(self.NEWCOMER)
        send = lambda subject: self.world.send(self.NEWCOMER, mail.compose(SENDER, self.NEWCOMER, subject))
        self.assert_refused(550, "no certificate to encrypt to", lambda: send("too early"))
        # In at a listener that nothing says to be outgoing.
        entity = mail.signed(newcomer, TEXT)
        mail.send(self.world.login_port, self.NEWCOMER, SENDER, mail.mail_of(entity, self.NEWCOMER, SENDER, "hello"))
        self.assertIsNotNone(self.world.bounces.one(SENDER, "hello"))
        listed = self.command("list")
        self.assertIn(self.NEWCOMER, listed)
        send("learnt")
        self.assertTrue(self.world.settled())
        passed, = self.wire("learnt")
        self.assertEqual([newcomer.serial], mail.recipients_of(passed.data))
        name = next(entry.name for entry in self.world.outgoing.learned.iterdir() if not entry.name.startswith("."))
        self.command("revoke", name)
        self.assertTrue(self.world.outgoing.reload_and_wait())
        self.assert_refused(550, "no certificate to encrypt to", lambda: send("taken back"))
