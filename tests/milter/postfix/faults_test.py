"""What becomes of mail when the filter is killed, restarted or stopped, and when its store, its disk or its way back to Postfix
are out of order."""

import os
import signal
import smtplib
import subprocess
import threading
import time

from checks import RECIPIENT, SENDER, Case, World, finish, mail
from rig.postfix import free_ports

BODY = b"For your eyes alone.\r\n"


class Faults(Case):
    @classmethod
    def prepare(cls):
        cls.world.outgoing.settings.rules = [{"name": "sealed", "recipient": "*@b.example", "sign": "must", "encrypt": "must"}]

    def message(self, subject, body=BODY):
        return mail.compose(SENDER, RECIPIENT, subject, body)

    def check_sealed(self, subject):
        """It arrived once, and was encrypted on its way."""
        self.assert_verdict(self.arrived(RECIPIENT, subject), "pass")
        self.assertTrue(self.world.settled())
        passed, = self.wire(subject)
        self.assertEqual("encrypted", mail.kind(passed.data))
        self.assertEqual(1, len([m for m in self.world.mailboxes.all(RECIPIENT) if subject in mail.field(m, "Subject")]))

    def until_sent(self, subject, body=BODY, seconds=30):
        """Tries again as a mail host does while it is told to; what is not temporary is raised."""
        def attempt():
            try:
                self.world.send(RECIPIENT, self.message(subject, body))
                return True
            except mail.Refused as refused:
                if not 400 <= refused.code < 500:
                    raise
                return False
        self.assertTrue(mail.until(attempt, seconds, every=0.3), self.world.outgoing.log_text()[-3000:])
        self.check_sealed(subject)

    def killed_in_the_middle(self, port, subject):
        """Postfix's answer to a message that the filter has in its hand when it is killed."""
        filter_ = self.world.outgoing
        before = filter_.workers()
        with smtplib.SMTP("127.0.0.1", port, timeout=60) as session:
            session.ehlo()
            self.assertEqual(250, session.mail(SENDER)[0])
            self.assertEqual(250, session.rcpt(RECIPIENT)[0])
            # It is held from here on, so that it cannot have answered when it is killed.
            for worker in before:
                os.kill(worker, signal.SIGSTOP)
            self.assertEqual(354, session.docmd("DATA")[0])
            session.send(self.message(subject) + b".\r\n")
            time.sleep(0.5)
            for worker in before:
                os.kill(worker, signal.SIGKILL)
            code, text = session.getreply()
        # Another one takes its place.
        self.assertTrue(mail.until(lambda: filter_.workers() and filter_.workers() != before, 20), filter_.log_text()[-2000:])
        return code, text

    def test_killed_in_the_middle_where_that_is_a_temporary_failure(self):
        code, text = self.killed_in_the_middle(self.world.out_port, "killed tempfail")
        self.assertEqual(451, code, text)
        self.assertTrue(self.world.settled())
        self.assertEqual([], self.wire("killed tempfail"))
        self.until_sent("killed tempfail")

    def test_killed_in_the_middle_where_that_is_accepted(self):
        # Postfix does as it is told: the message leaves in clear, whatever the filter's policy says.
        code, text = self.killed_in_the_middle(self.world.careless_port, "killed accept")
        self.assertEqual(250, code, text)
        self.assertTrue(self.world.settled())
        passed, = self.wire("killed accept")
        self.assertEqual("clear", mail.kind(passed.data))
        self.assertIn(BODY, passed.data)
        self.until_sent("after accept")

    def test_not_there_and_started_again(self):
        filter_ = self.world.outgoing
        filter_.kill()
        with self.assertRaises(mail.Refused) as refused:
            self.world.send(RECIPIENT, self.message("not there"))
        self.assertEqual(4, refused.exception.code // 100, refused.exception)
        filter_.start()
        self.until_sent("not there")

    def test_stopped_with_a_message_in_hand(self):
        filter_ = self.world.outgoing
        body = b"".join(b"%08d %s\r\n" % (number, b"y" * 60) for number in range(100_000))
        outcome = []

        def go():
            try:
                outcome.append(self.world.send(RECIPIENT, self.message("in hand", body)))
            except Exception as failure:
                outcome.append(failure)

        idle = filter_.processor_seconds()
        sending = threading.Thread(target=go)
        sending.start()
        self.assertTrue(mail.until(lambda: filter_.processor_seconds() > idle + 0.05, 30, every=0.005))
        code = filter_.stop(60)
        sending.join()
        try:
            self.assertEqual(0, code, filter_.log_text()[-2000:])
            self.assertEqual(1, len(outcome))
            self.assertIsInstance(outcome[0], str, outcome[0])
        finally:
            filter_.start()
        self.check_sealed("in hand")

    def test_a_store_that_is_gone_when_it_is_reloaded(self):
        filter_ = self.world.outgoing
        hidden = filter_.store.with_name("hidden")
        filter_.store.rename(hidden)
        try:
            size = filter_.log_size()
            filter_.reload()
            self.assertTrue(mail.until(lambda: str(filter_.store) in filter_.logged_since(size), 20), filter_.logged_since(size))
            # What was read before is used on.
            self.until_sent("store gone")
        finally:
            hidden.rename(filter_.store)
        self.world.reconfigure(filter_)

    def test_a_certificate_that_came_with_a_reload(self):
        from rig.gateway import USER
        from rig.people import keep
        address = "later@b.example"
        send = lambda: self.world.send(address, mail.compose(SENDER, address, "later"))
        self.assert_refused(550, f"no certificate to encrypt to for {address}", send)
        keep(self.world.outgoing.store, self.world.authority.issue(address), USER, with_key=False)
        self.world.reconfigure(self.world.outgoing)
        send()
        self.assertTrue(self.world.settled())
        self.assertEqual("encrypted", mail.kind(self.wire("later")[0].data))

    def test_anchors_that_are_gone_when_it_starts(self):
        filter_ = self.world.outgoing
        hidden = filter_.anchors.with_name("hidden-anchors")
        filter_.stop()
        filter_.anchors.rename(hidden)
        filter_.anchors.mkdir()
        try:
            try:
                filter_.start()
            except RuntimeError:
                pass  # that it does not start is as good: nothing goes out either
            with self.assertRaises(mail.Refused):
                self.world.send(RECIPIENT, self.message("no anchors"))
            self.assertTrue(self.world.settled())
            self.assertEqual([], self.wire("no anchors"))
        finally:
            filter_.stop()
            filter_.anchors.rmdir()
            hidden.rename(filter_.anchors)
            filter_.start()
        self.until_sent("anchors back")

    def test_a_configuration_that_is_wrong_when_it_is_reloaded(self):
        filter_ = self.world.outgoing
        good = filter_.config.read_text()
        filter_.config.write_text(good + "\n[nonsense]\nkey = 1\n")
        size = filter_.log_size()
        filter_.reload()
        self.assertTrue(mail.until(lambda: "nonsense" in filter_.logged_since(size), 20), filter_.logged_since(size))
        self.until_sent("wrong configuration")
        filter_.config.write_text(good)
        self.world.reconfigure(filter_)

    def test_no_room_for_what_waits(self):
        filter_ = self.world.outgoing
        self.world.guard.mount(filter_.spool)
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=777", "none", filter_.spool], stderr=subprocess.PIPE)
        if mounted.returncode:
            self.skipTest(f"no file system of its own for the spool: {mounted.stderr.decode().strip()}")
        body = b"z" * 76 + b"\r\n"
        try:
            with self.assertRaises(mail.Refused) as refused:
                self.world.send(RECIPIENT, self.message("no room", body * 50_000))
            self.assertEqual(451, refused.exception.code, refused.exception.text)
            self.until_sent("little room")
        finally:
            subprocess.run(["umount", "-l", filter_.spool], check=True)
        self.until_sent("no room", body * 50_000)

    def test_no_folder_for_what_waits(self):
        filter_ = self.world.outgoing
        filter_.spool.rmdir()
        body = b"z" * 76 + b"\r\n"
        try:
            with self.assertRaises(mail.Refused) as refused:
                self.world.send(RECIPIENT, self.message("no spool", body * 50_000))
            self.assertEqual(451, refused.exception.code, refused.exception.text)
        finally:
            filter_.spool.mkdir(mode=0o750)
            filter_.own()
        self.until_sent("no spool", body * 50_000)

    def test_nobody_takes_what_it_submits(self):
        filter_ = self.world.outgoing
        submit = filter_.settings.tables["outgoing"]["submit"]
        closed, = free_ports(1)
        filter_.settings.change("outgoing", submit=f"smtp://127.0.0.1:{closed}")
        self.world.reconfigure(filter_)
        recipients = [RECIPIENT, "friend@b.example"]  # friend@ is in no header field: a message of its own
        try:
            with self.assertRaises(mail.Refused) as refused:
                self.world.send(recipients, self.message("not submitted"))
            self.assertEqual(451, refused.exception.code, refused.exception.text)
            self.assertTrue(self.world.settled())
            self.assertEqual([], self.wire("not submitted"))
        finally:
            filter_.settings.change("outgoing", submit=submit)
            self.world.reconfigure(filter_)
        self.world.send(recipients, self.message("not submitted"))
        self.check_sealed_for_both("not submitted")

    def check_sealed_for_both(self, subject):
        self.assertTrue(self.world.settled())
        self.assertEqual([[RECIPIENT], ["friend@b.example"]],
                         sorted((passed.recipients for passed in self.wire(subject)), reverse=True))

    def test_too_large(self):
        filter_ = self.world.outgoing
        filter_.settings.change("limits", message_bytes=100_000)
        self.world.reconfigure(filter_)
        try:
            with self.assertRaises(mail.Refused) as refused:
                self.world.send(RECIPIENT, self.message("too large", (b"w" * 76 + b"\r\n") * 3000))
            self.assertEqual(5, refused.exception.code // 100, refused.exception.text)
        finally:
            filter_.settings.tables["limits"].pop("message_bytes")
            self.world.reconfigure(filter_)

    def test_more_connections_than_it_takes(self):
        filter_ = self.world.outgoing
        filter_.settings.change("limits", connections=3)
        self.world.reconfigure(filter_)
        held = []
        try:
            answers = []
            for _ in range(8):
                try:
                    session = smtplib.SMTP("127.0.0.1", self.world.out_port, timeout=30)
                except smtplib.SMTPConnectError as refused:
                    answers.append(refused.smtp_code)
                    continue
                held.append(session)
                session.ehlo()
                answers.append(session.mail(SENDER)[0])
            self.assertTrue(all(code == 250 or 400 <= code < 500 for code in answers), answers)
            self.assertTrue(any(code == 250 for code in answers), answers)
            self.assertTrue(any(code != 250 for code in answers), answers)
        finally:
            for session in held:
                session.close()
            filter_.settings.tables["limits"].pop("connections")
            self.world.reconfigure(filter_)
        self.until_sent("connections again")

    def test_numbers_over_its_socket(self):
        before = self.world.outgoing.metrics()
        self.until_sent("counted")
        after = self.world.outgoing.metrics()
        grown = {name for name, value in after.items() if value > before.get(name, 0)}
        self.assertTrue(any("messages" in name for name in grown), sorted(after))


class OverAUnixSocket(Case):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.world = World(cls.world.program, people=cls.world)
        for filter_ in (cls.world.outgoing, cls.world.incoming):
            filter_.settings.change("milter", socket=f"unix:{filter_.run}/milter.sock", socket_mode="0666")
        cls.world.a.listeners[0].settings["smtpd_milters"] = cls.world.outgoing.address
        cls.world.b.listeners[0].settings["smtpd_milters"] = cls.world.incoming.address
        cls.world.start()

    @classmethod
    def tearDownClass(cls):
        finish(cls.world)

    def test_it_goes_as_over_ports(self):
        for attempt in ("first", "after a crash"):
            self.world.send(RECIPIENT, mail.compose(SENDER, RECIPIENT, attempt))
            self.assert_verdict(self.arrived(RECIPIENT, attempt), "pass")
            # A file that was left behind is no obstacle.
            self.world.incoming.kill()
            self.world.incoming.start()
