"""Many messages over many connections, while the filters are reloaded: nothing is lost, changed or there twice."""

import os
import smtplib
import threading
import time
from collections import Counter

from checks import LONG, RECIPIENT, SENDER, Case, mail
from rig.gateway import USER
from rig.people import keep

CONNECTIONS = 20
MESSAGES = 5000 if LONG else 1000
RELOADS = 100


class Load(Case):
    @classmethod
    def prepare(cls):
        cls.world.outgoing.settings.rules = [
            {"name": "some", "recipient": "friend@b.example", "sign": "must", "encrypt": "never"},
            {"name": "sealed", "recipient": "*@b.example", "sign": "must", "encrypt": "must"}]
        cls.world.incoming.settings.change("incoming", deliver="content")
        # A store of those who write to each other, which is read as often as there are messages.
        for filter_ in (cls.world.outgoing, cls.world.incoming):
            store = filter_.folder / "few"
            for address in (SENDER, RECIPIENT, "friend@b.example"):
                with_key = address.endswith("@a.example") == (filter_ is cls.world.outgoing)
                keep(store, cls.world.people[address], USER, with_key)
            store.chmod(0o750)
            filter_.settings.change("store", directory=store)

    def pour(self, name, numbers, port, make):
        """Sends a message for each of `numbers` over CONNECTIONS connections at once; answers what went wrong."""
        failures = []

        def one(connection):
            try:
                with smtplib.SMTP("127.0.0.1", port, local_hostname="client.example", timeout=120) as session:
                    for number in numbers[connection::CONNECTIONS]:
                        recipient, data = make(f"{name} {number}")
                        session.sendmail(SENDER, [recipient], data)
            except Exception as failure:
                failures.append(failure)

        threads = [threading.Thread(target=one, args=(connection,)) for connection in range(CONNECTIONS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return failures

    def check_all(self, name, count, text):
        """Each arrived once, with the text that it was sent with, and with a verdict."""
        self.assertTrue(mail.until(lambda: self.world.mailboxes.count() >= count, 180), self.world.mailboxes.count())
        self.assertTrue(self.world.settled(120))
        found = Counter()
        for data in self.world.mailboxes.all():
            subject, = mail.field(data, "Subject")
            if subject.startswith(name + " "):
                found[subject] += 1
                self.assert_verdict(data, "pass")
                self.assertIn(text(subject), data)
        self.assertEqual({f"{name} {number}": 1 for number in range(count)}, dict(found))

    @staticmethod
    def text(subject):
        return f"This is {subject}, and nothing else.\r\n".encode()

    def make(self, subject):
        recipient = "friend@b.example" if int(subject.split()[-1]) % 4 == 0 else RECIPIENT
        return recipient, mail.compose(SENDER, recipient, subject, self.text(subject))

    def test_many_messages_while_both_filters_are_reloaded(self):
        filters = (self.world.outgoing, self.world.incoming)
        reloaded = []
        ended = threading.Event()

        def reload():
            while not ended.is_set():
                self.world.incoming.reload()
                reloaded.append(self.world.outgoing.reload_and_wait())

        workers = [filter_.workers() for filter_ in filters]
        reloading = threading.Thread(target=reload)
        reloading.start()
        began = time.monotonic()
        count = MESSAGES
        try:
            failures = self.pour("load", range(MESSAGES), self.world.out_port, self.make)
            print(f"{MESSAGES} messages taken in {time.monotonic() - began:.1f} s, {len(reloaded)} reloads meanwhile")
            while not failures and len(reloaded) < RELOADS:
                time.sleep(0.2)
                failures = self.pour("load", range(count, count + CONNECTIONS), self.world.out_port, self.make)
                count += CONNECTIONS
        finally:
            ended.set()
            reloading.join()
        self.assertEqual([], failures)
        print(f"{count} messages and {len(reloaded)} reloads in {time.monotonic() - began:.1f} s")
        self.assertGreaterEqual(len(reloaded), RELOADS)
        self.assertTrue(all(reloaded))
        self.check_all("load", count, self.text)
        print(f"delivered after {time.monotonic() - began:.1f} s")
        # The same processes did all of it, and left nothing behind.
        self.assertEqual(workers, [filter_.workers() for filter_ in filters])
        for filter_ in filters:
            self.assertEqual([], os.listdir(filter_.spool))
