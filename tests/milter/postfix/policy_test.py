"""What becomes of outgoing mail, by rule, sender and recipient: every cell, and several recipients in one message."""

import itertools
import shutil
import subprocess
import unittest

from checks import SENDER, Case, mail
from rig import logins, postfix
from rig.gateway import USER
from rig.people import keep

WISHES = ("never", "possible", "must")
KEYLESS = "keyless@a.example"  # of whom there is no identity

# What holds for a recipient's certificate -> whether it can be encrypted to.
CERTIFICATES = {"good": True, "none": False, "expired": False, "stranger": False}

CLEAR, SIGNED, ENCRYPTED, BOTH = "clear", "signed", "encrypted", "signed and encrypted"
NO_CERTIFICATE, NO_KEY = "no certificate to encrypt to for", "no "

# (sign, encrypt) -> sender with a key: recipient with, without a usable certificate; sender without a key: with, without.
EXPECTED = {
    ("never", "never"): (CLEAR, CLEAR, CLEAR, CLEAR),
    ("never", "possible"): (ENCRYPTED, CLEAR, ENCRYPTED, CLEAR),
    ("never", "must"): (ENCRYPTED, NO_CERTIFICATE, ENCRYPTED, NO_CERTIFICATE),
    ("possible", "never"): (SIGNED, SIGNED, CLEAR, CLEAR),
    ("possible", "possible"): (BOTH, SIGNED, ENCRYPTED, CLEAR),
    ("possible", "must"): (BOTH, NO_CERTIFICATE, ENCRYPTED, NO_CERTIFICATE),
    ("must", "never"): (SIGNED, SIGNED, NO_KEY, NO_KEY),
    ("must", "possible"): (BOTH, SIGNED, NO_KEY, NO_KEY),
    ("must", "must"): (BOTH, NO_CERTIFICATE, NO_KEY, NO_KEY),
}


def address(sign, encrypt, certificate):
    return f"{certificate}-{sign}-{encrypt}@b.example"


class Cells(Case):
    @classmethod
    def prepare(cls):
        world = cls.world
        cells = list(itertools.product(WISHES, WISHES))
        for name, authority, period in (("good", world.authority, {}), ("stranger", world.stranger, {}),
                                        ("expired", world.authority, {"begins": "20200101000000Z", "ends": "20210101000000Z"})):
            addresses = [address(sign, encrypt, name) for sign, encrypt in cells]
            person = authority.issue(addresses[0], addresses[1:], **period)
            keep(world.outgoing.store, person, USER, with_key=False, name=name)
            if name == "good":
                cls.good = person
        world.outgoing.settings.rules = [
            {"name": f"{sign}-{encrypt}", "recipient": f"*-{sign}-{encrypt}@b.example", "sign": sign, "encrypt": encrypt}
            for sign, encrypt in cells]

    def test_every_cell(self):
        sent = []
        for (sign, encrypt), outcomes in EXPECTED.items():
            for sender, certificate in itertools.product((SENDER, KEYLESS), CERTIFICATES):
                recipient = address(sign, encrypt, certificate)
                subject = f"{sender.split('@')[0]} {recipient.split('@')[0]}"
                expected = outcomes[(0 if sender == SENDER else 2) + (0 if CERTIFICATES[certificate] else 1)]
                data = mail.compose(sender, recipient, subject, f"This is {subject}.\r\n".encode())
                with self.subTest(subject):
                    if expected in (NO_CERTIFICATE, NO_KEY):
                        refused = self.assert_refused(550, expected, lambda: self.world.send(recipient, data, sender=sender))
                        self.assertTrue(refused.text.startswith("5.7."), refused.text)
                        if expected == NO_CERTIFICATE:
                            self.assertIn(recipient, refused.text)
                        sent.append((subject, recipient, None, data))
                    else:
                        self.world.send(recipient, data, sender=sender)
                        sent.append((subject, recipient, expected, data))
        self.assertEqual(72, len(sent))
        self.assertTrue(self.world.settled())
        for subject, recipient, expected, data in sent:
            with self.subTest(subject):
                passed = self.wire(subject)
                if expected is None:
                    self.assertEqual([], passed)
                    continue
                self.assertEqual(1, len(passed))
                self.check_wire(passed[0].data, expected, data)
                self.assertEqual(1, len([m for m in self.world.mailboxes.all(recipient)
                                         if subject in mail.field(m, "Subject")]))

    def check_wire(self, data, expected, original):
        text = mail.split(original)[1]
        if expected == CLEAR:
            self.assertEqual(original, self.world.mailboxes.without_trace(data.replace(b"\r\n", b"\n")))
            return
        if expected in (ENCRYPTED, BOTH):
            self.assertEqual("encrypted", mail.kind(data))
            self.assertNotIn(text.strip(), data)
            self.assertEqual([self.good.serial], mail.recipients_of(data))
            data = mail.opened(self.good, data)
        if expected in (SIGNED, BOTH):
            self.assertEqual("signed", mail.kind(data))
            data = mail.verified(self.world.authority, data)
        else:
            self.assertEqual("clear", mail.kind(data))
        self.assertTrue(data.endswith(text), data)


class SeveralRecipients(Case):
    @classmethod
    def prepare(cls):
        cls.world.outgoing.settings.rules = [
            {"name": "must", "recipient": "friend@b.example", "encrypt": "must"},
            {"name": "refuses", "recipient": "*.strict@b.example", "encrypt": "possible", "mixed": "reject"},
            {"name": "others", "recipient": "*@b.example", "encrypt": "possible"}]
        world = cls.world
        strict = world.authority.issue("a.strict@b.example")
        world.people["a.strict@b.example"] = strict
        keep(world.outgoing.store, strict, USER, with_key=False)
        keep(world.incoming.store, strict, USER, with_key=True)

    def send(self, subject, to, hidden=(), extra=()):
        data = mail.compose(SENDER, to, subject, f"For {subject}.\r\n".encode(), extra)
        self.world.send([*to, *hidden], data)
        self.assertTrue(self.world.settled())
        return self.wire(subject)

    def serials(self, *addresses):
        return sorted(self.world.people[address].serial for address in addresses)

    def test_all_of_them_get_one_encrypted_message(self):
        people = ["recipient@b.example", "friend@b.example", "third@b.example"]
        passed = self.send("all three", people)
        self.assertEqual(sorted(people), sorted(recipient for message in passed for recipient in message.recipients))
        for message in passed:
            self.assertEqual(self.serials(*people), mail.recipients_of(message.data))
        for person in people:
            self.assert_verdict(self.arrived(person, "all three"), "pass")

    def test_who_has_no_certificate_gets_a_clear_message_of_their_own(self):
        people = ["recipient@b.example", "friend@b.example", "nobody@b.example", "expired@b.example"]
        passed = self.send("mixed", people)
        self.assertEqual(sorted(people), sorted(recipient for message in passed for recipient in message.recipients))
        for message in passed:
            for recipient in message.recipients:
                if recipient in ("nobody@b.example", "expired@b.example"):
                    self.assertEqual("signed", mail.kind(message.data), recipient)
                else:
                    self.assertEqual("encrypted", mail.kind(message.data), recipient)
                    self.assertEqual(self.serials("recipient@b.example", "friend@b.example"), mail.recipients_of(message.data))
        for person in people:
            self.assertEqual(1, len([m for m in self.world.mailboxes.all(person) if "mixed" in mail.field(m, "Subject")]), person)

    def test_or_the_message_is_refused_where_policy_says_so(self):
        data = mail.compose(SENDER, "x", "strict")
        self.assert_refused(550, "5.7.1", lambda: self.world.send(["a.strict@b.example", "b.strict@b.example"], data))
        self.assertEqual([], self.wire("strict"))

    def test_one_without_a_certificate_under_must_refuses_the_message_for_all(self):
        self.world.policy({"name": "all", "encrypt": "must"})
        try:
            data = mail.compose(SENDER, "x", "under must")
            refused = self.assert_refused(550, "no certificate to encrypt to for", lambda: self.world.send(
                ["recipient@b.example", "nobody@b.example", "expired@b.example", "stranger@b.example"], data))
            for address in ("nobody@b.example", "expired@b.example", "stranger@b.example"):
                self.assertIn(address, refused.text)
            self.assertNotIn("recipient@b.example", refused.text)
            self.assertTrue(self.world.settled())
            self.assertEqual([], self.wire("under must"))
        finally:
            self.prepare_rules()

    def prepare_rules(self):
        self.world.policy(
            {"name": "must", "recipient": "friend@b.example", "encrypt": "must"},
            {"name": "refuses", "recipient": "*.strict@b.example", "encrypt": "possible", "mixed": "reject"},
            {"name": "others", "recipient": "*@b.example", "encrypt": "possible"})

    def test_hidden_recipients_get_messages_of_their_own(self):
        passed = self.send("hidden", ["recipient@b.example"], ["friend@b.example", "third@b.example"],
                           ["Bcc: friend@b.example, third@b.example"])
        found = {recipient: message for message in passed for recipient in message.recipients}
        self.assertEqual({"recipient@b.example", "friend@b.example", "third@b.example"}, set(found))
        for recipient, message in found.items():
            self.assertEqual([recipient], message.recipients)
            self.assertEqual(self.serials(recipient), mail.recipients_of(message.data))
            self.assertEqual([], mail.field(message.data, "Bcc"))
            self.assertEqual([], mail.field(self.arrived(recipient, "hidden"), "Bcc"))
            self.assert_verdict(self.arrived(recipient, "hidden"), "pass")

    def test_split_messages_ask_for_the_notices_that_were_asked_for(self):
        data = mail.compose(SENDER, ["recipient@b.example", "nobody@b.example"], "notices")
        self.world.send(["recipient@b.example", "nobody@b.example"], data, options=["RET=HDRS", "ENVID=A1"],
                        notices=["NOTIFY=FAILURE,DELAY"])
        self.assertTrue(self.world.settled())
        passed = self.wire("notices")
        self.assertEqual([["nobody@b.example"], ["recipient@b.example"]], sorted(message.recipients for message in passed))
        for message in passed:
            from_, to = message.commands
            self.assertLessEqual({"RET=HDRS", "ENVID=A1"}, set(from_.split()))
            self.assertIn("NOTIFY=FAILURE,DELAY", to.split())

    def test_more_hidden_recipients_than_one_connection_takes(self):
        # Postfix hangs up on who begins and gives up too many messages over one connection.
        addresses = [f"crowd{number}@b.example" for number in range(120)]
        crowd = self.world.authority.issue(addresses[0], addresses[1:])
        keep(self.world.outgoing.store, crowd, USER, with_key=False, name="crowd")
        self.world.outgoing.settings.change("outgoing", separate_messages=200)
        self.world.reconfigure(self.world.outgoing)
        passed = self.send("crowd", ["recipient@b.example"], addresses)
        self.assertEqual(sorted([["recipient@b.example"], *([address] for address in addresses)]),
                         sorted(message.recipients for message in passed))
        for message in passed:
            self.assertEqual("encrypted", mail.kind(message.data))
        for message in passed[:5] + passed[-5:]:
            self.assertEqual(1, len(mail.recipients_of(message.data)))

    def test_recipients_in_other_letters_quoted_and_named_twice(self):
        data = mail.compose(SENDER, 'recipient@B.EXAMPLE, "no body"@b.example', "letters", b"For letters.\r\n")
        self.world.send(["recipient@B.EXAMPLE", '"no body"@b.example', '"no body"@b.example', "nobody@b.example"], data)
        self.assertTrue(self.world.settled())
        found = {}
        for message in self.wire("letters"):
            for recipient in message.recipients:
                self.assertNotIn(recipient.lower(), found)
                found[recipient.lower()] = mail.kind(message.data)
        self.assertEqual({"recipient@b.example": "encrypted", '"no body"@b.example': "signed", "nobody@b.example": "signed"}, found)

    def test_no_spelling_of_a_mailbox_gets_around_must(self):
        # Whom the rule for friend@b.example means, and for whom, spelled so, the store has no certificate.
        data = mail.compose(SENDER, "x", "spelled")
        for address in ("FRIEND@b.example", "Friend@B.EXAMPLE"):
            with self.subTest(address):
                self.assert_refused(550, "no certificate to encrypt to for", lambda: self.world.send([address], data))
        self.assertTrue(self.world.settled())
        self.assertEqual([], self.wire("spelled"))

    def test_what_postfix_makes_of_an_address_counts(self):
        # It completes addresses with $myorigin, which is $myhostname here, and says so.
        self.world.policy({"name": "of the host", "recipient": "friend@mx.a.example", "encrypt": "must"},
                          {"name": "others", "encrypt": "possible"})
        try:
            data = mail.compose(SENDER, "x", "completed")
            for address in ("friend", "Friend", '"friend"'):
                with self.subTest(address):
                    refused = self.assert_refused(550, "no certificate to encrypt to for",
                                                  lambda: self.world.send([address], data))
                    self.assertIn(address.strip('"'), refused.text)
            self.assertTrue(self.world.settled())
            self.assertEqual([], self.wire("completed"))
            # Nor does an address without a domain that becomes another one fall under the rule.
            self.world.send(["friends"], data)
            self.assertTrue(self.world.settled())
        finally:
            self.prepare_rules()

    def test_aliases_count_where_they_are_looked_up_before_the_filter(self):
        for address in ("alias@c.example", "canonical@c.example"):
            for port, kind in ((self.world.out_port, "signed"), (self.world.mapping_port, "encrypted")):
                with self.subTest(address, kind=kind):
                    subject = f"{address.partition('@')[0]} {kind}"
                    mail.send(port, SENDER, address, mail.compose(SENDER, address, subject))
                    self.assertTrue(self.world.settled())
                    passed, = self.wire(subject)
                    self.assertEqual(["friend@b.example"], passed.recipients)
                    self.assertEqual(kind, mail.kind(passed.data))

    def send_past(self, port, subject, *to):
        """What passed the wire of a message one of whose recipients is refused."""
        refused = []
        data = mail.compose(SENDER, list(to), subject, f"For {subject}.\r\n".encode())
        mail.send(port, SENDER, list(to), data, refused=refused)
        self.assertEqual(["picky@b.example"], refused)
        self.assertTrue(self.world.settled())
        return self.wire(subject)

    def test_recipients_who_are_refused_before_the_filter_sees_them_are_none(self):
        for name, port in (("a milter in front", self.world.picky_first_port), ("Postfix itself", self.world.choosy_port)):
            for certificate in (False, True):
                with self.subTest(name, certificate=certificate):
                    self.set_certificate_of_the_picky(certificate)
                    passed, = self.send_past(port, f"{name} {certificate}", "recipient@b.example", "picky@b.example")
                    self.assertEqual(["recipient@b.example"], passed.recipients)
                    self.assertEqual(self.serials("recipient@b.example"), mail.recipients_of(passed.data))

    def test_recipients_whom_a_later_milter_refuses_are_still_recipients_for_the_filter(self):
        # The protocol tells nobody of what later ones say. Whoever has to know is told to put this filter last.
        self.set_certificate_of_the_picky(True)
        passed, = self.send_past(self.world.picky_last_port, "refused later", "recipient@b.example", "picky@b.example")
        self.assertEqual(["recipient@b.example"], passed.recipients)
        self.assertEqual(2, len(mail.recipients_of(passed.data)), "one more who could read it, and does not get it")
        self.set_certificate_of_the_picky(False)
        passed = self.send_past(self.world.picky_last_port, "split later", "recipient@b.example", "picky@b.example")
        self.assertEqual([["picky@b.example"], ["recipient@b.example"]], sorted(message.recipients for message in passed),
                         "what is handed over beside the message goes past the milter that refused it")

    def set_certificate_of_the_picky(self, wanted):
        world = self.world
        if wanted:
            keep(world.outgoing.store, world.authority.issue("picky@b.example"), USER, with_key=False, name="picky")
        else:
            shutil.rmtree(world.outgoing.store / "picky", ignore_errors=True)
        world.reconfigure(world.outgoing)

    def test_a_bounce_of_the_host_itself_is_not_signed(self):
        self.world.send("unknown@elsewhere.example", mail.compose(SENDER, "unknown@elsewhere.example", "to come back"))
        self.assertTrue(self.world.settled())


class Direction(Case):
    """By listener, login and network; never by From."""

    @classmethod
    def prepare(cls):
        cls.world.outgoing.settings.direction = [
            {"listener": "OUT", "direction": "outgoing"},
            {"listener": "LOGIN", "networks": ["192.0.2.0/24", "198.51.100.128/25"], "direction": "outgoing"},
            {"listener": "LOGIN", "networks": ["203.0.113.0/24"], "direction": "ignore"},
            {"authenticated": "*", "direction": "outgoing"}]
        cls.world.outgoing.settings.rules = [{"name": "all", "sign": "possible", "encrypt": "never"}]

    def go(self, subject, *client):
        """As what the message passed the wire, for a client with these attributes."""
        data = mail.compose(SENDER, "nobody@b.example", subject)
        mail.send(self.world.login_port, SENDER, "nobody@b.example", data, before=[f"XCLIENT {' '.join(client)}"] if client else ())
        self.assertTrue(self.world.settled())
        passed, = self.wire(subject)
        return mail.kind(passed.data)

    def test_the_listener(self):
        self.world.send("nobody@b.example", mail.compose(SENDER, "nobody@b.example", "by listener"))
        self.assertTrue(self.world.settled())
        self.assertEqual("signed", mail.kind(self.wire("by listener")[0].data))

    def test_nothing_says_so(self):
        self.assertEqual("clear", self.go("from alone"))

    def test_the_network(self):
        self.assertEqual("signed", self.go("by network", "ADDR=192.0.2.7"))
        self.assertEqual("clear", self.go("by no network", "ADDR=198.51.100.7"))
        self.assertEqual("signed", self.go("by another network", "ADDR=198.51.100.135"))
        self.assertEqual("clear", self.go("ignored", "ADDR=203.0.113.7"))

    def test_the_user(self):
        self.assertEqual("signed", self.go("by user", "LOGIN=sender"))

    @unittest.skipIf(logins.missing() or not postfix.program("swaks"), logins.missing() or "swaks is not installed")
    def test_a_user_who_logs_in(self):
        def swaks(subject, *login):
            return subprocess.run(["swaks", "--server", "127.0.0.1", "--port", str(self.world.auth_port), "--from", SENDER,
                                   "--to", "nobody@b.example", "--header", f"From: {SENDER}", "--header", f"Subject: {subject}",
                                   "--body", "Hello.", *login], stdin=subprocess.DEVNULL, capture_output=True, text=True)

        refused = swaks("nobody logs in")
        self.assertEqual(24, refused.returncode, refused.stdout)  # of swaks: no recipient was accepted
        for mechanism in ("PLAIN", "LOGIN"):
            wrong = swaks(f"wrong by {mechanism}", "--auth", mechanism, "--auth-user", "sender", "--auth-password", "wrong")
            self.assertEqual(28, wrong.returncode, wrong.stdout)  # the login was refused
            right = swaks(f"right by {mechanism}", "--auth", mechanism, "--auth-user", "sender", "--auth-password", "right")
            self.assertEqual(0, right.returncode, right.stdout + self.world.a.log_text()[-2000:])
        self.assertTrue(self.world.settled())
        for mechanism in ("PLAIN", "LOGIN"):
            passed, = self.wire(f"right by {mechanism}")
            self.assertEqual("signed", mail.kind(passed.data))
            self.assertEqual([], self.wire(f"wrong by {mechanism}"))
        self.assertEqual([], self.wire("nobody logs in"))
        self.assertIn("authenticated=sender@a.example sender=sender@a.example", self.world.outgoing.log_text())

    def test_a_from_address_of_somebody_else_is_not_signed_for(self):
        data = mail.compose("second@a.example", "nobody@b.example", "not mine")
        self.assert_refused(550, "5.7.", lambda: self.world.send("nobody@b.example", data, sender=SENDER))
        self.assertEqual([], self.wire("not mine"))

    def test_mail_that_comes_in_with_a_from_of_ours_is_not_signed(self):
        data = mail.compose(SENDER, "recipient@b.example", "forged from")
        mail.send(self.world.in_port, SENDER, "recipient@b.example", data)
        self.assertEqual(data, self.arrived("recipient@b.example", "forged from"))


class Ways(Case):
    """How it is signed and encrypted, and what becomes of senders without a key or with another's address."""

    def journey(self, subject, **rule):
        """The mail on the wire and the one that arrived, with a verdict that was looked at."""
        self.world.policy({"name": subject, "sign": "must", "encrypt": "must", **rule})
        self.world.send("recipient@b.example", mail.compose(SENDER, "recipient@b.example", subject))
        self.assertTrue(self.world.settled())
        passed = next(p for p in self.world.tap.messages() if subject in mail.field(p.data, "Message-ID")[0])
        arrived = next(m for m in self.world.mailboxes.all() if subject in mail.field(m, "Message-ID")[0])
        self.assert_verdict(arrived, "pass")
        return passed.data, arrived

    def test_algorithms(self):
        person = self.world.people["recipient@b.example"]
        for subject, rule, sign in (("gcm", {"cipher": "aes-256-gcm"}, "aes-256-gcm"),
                                    ("cbc128", {"cipher": "aes-128-cbc"}, "aes-128-cbc"), ("oaep", {"oaep": True}, "rsaesOaep")):
            with self.subTest(subject):
                sealed, _ = self.journey(subject, **rule)
                self.assertIn(sign.lower(), mail.openssl("cms", "-cmsout", "-print", "-noout", given=sealed).decode().lower())
                self.assertIn(b"Hello.", mail.verified(self.world.authority, mail.opened(person, sealed)))

    def test_pss(self):
        sealed, _ = self.journey("pss", encrypt="never", form="opaque", pss=True)
        self.assertIn("rsassapss", mail.openssl("cms", "-cmsout", "-print", "-noout", given=sealed).decode().lower())
        self.assertIn(b"Hello.", mail.verified(self.world.authority, sealed))

    def test_header_protection(self):
        sealed, arrived = self.journey("hidden.subject", protect_header=True)
        self.assertEqual(["[...]"], mail.field(sealed, "Subject"))
        self.assertIn(b"Subject: hidden.subject", arrived)

    def test_senders_without_a_key(self):
        self.world.policy({"name": "all", "sign": "possible"}, no_key="reject")
        data = mail.compose(KEYLESS, "nobody@b.example", "no key")
        self.assert_refused(550, "5.7.", lambda: self.world.send("nobody@b.example", data, sender=KEYLESS))

    def test_an_address_of_somebody_else_may_pass_unsigned(self):
        self.world.policy({"name": "all", "sign": "possible"}, sender_mismatch="pass")
        self.world.send("nobody@b.example", mail.compose("second@a.example", "nobody@b.example", "mismatch"))
        self.assertTrue(self.world.settled())
        passed, = self.wire("mismatch")
        self.assertEqual("clear", mail.kind(passed.data))
