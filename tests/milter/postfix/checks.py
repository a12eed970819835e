"""What the tests of this folder have in common: a rig for each class, and how a program of tests ends.

    NORV_MILTER=build/asan/bin/norvcrypt-milter python3 tests/milter/postfix/policy_test.py [Class.test]

NORV_MILTER_LONG=1 makes the load larger. Exit code 77, which ctest shows as skipped, where no Postfix can be started."""

import os
import signal
import sys
import unittest

from rig import mail, postfix
from rig.world import RECIPIENT, SENDER, World

SKIPPED = 77
LONG = bool(os.environ.get("NORV_MILTER_LONG"))


class Case(unittest.TestCase):
    """One world for all tests of a class."""

    world = None
    world_options = {}

    @classmethod
    def setUpClass(cls):
        cls.world = World(os.environ["NORV_MILTER"], **cls.world_options)
        cls.prepare()
        try:
            cls.world.start()
        except BaseException:
            cls.world.stop()
            raise

    @classmethod
    def prepare(cls):
        """Settings before the filters start."""

    @classmethod
    def tearDownClass(cls):
        keep = os.environ.get("NORV_MILTER_LOGS")  # a folder for the logs, to look at what went wrong
        if keep:
            for filter_ in (cls.world.outgoing, cls.world.incoming):
                with open(os.path.join(keep, f"{cls.__name__}-{filter_.folder.name}.log"), "w") as log:
                    log.write(filter_.log_text())
            for host in (cls.world.a, cls.world.b):
                with open(os.path.join(keep, f"{cls.__name__}-postfix-{host.domain}.log"), "w") as log:
                    log.write(host.log_text())
        try:
            for filter_ in (cls.world.outgoing, cls.world.incoming):
                cls.check_log(filter_)
        finally:
            cls.world.stop()

    @classmethod
    def check_log(cls, filter_):
        text = filter_.log_text()
        for sign in ("AddressSanitizer", "LeakSanitizer", "runtime error:", "terminate called"):
            if sign in text:
                raise AssertionError(f"{filter_.folder.name}: {text[-6000:]}")

    def arrived(self, address, subject, seconds=40):
        data = self.world.mailboxes.one(address, subject, seconds)
        if data is None:
            self.fail(f"{subject} for {address} did not arrive: {self.world.a.log_text()[-3000:]}"
                      f"{self.world.outgoing.log_text()[-3000:]}{self.world.incoming.log_text()[-3000:]}")
        return data

    def wire(self, subject, recipient=None):
        """All messages that passed the tap with this subject."""
        return [passed for passed in self.world.tap.messages()
                if subject in mail.field(passed.data, "Subject") and (recipient is None or recipient in passed.recipients)]

    def verdict(self, data, authserv="mx.b.example"):
        """The result and the properties that our own filter wrote, as one text; None where it wrote none."""
        own = [value for value in mail.field(data, "Authentication-Results") if value.split(";")[0].split()[0] == authserv]
        self.assertLessEqual(len(own), 1, own)
        return own[0] if own else None

    def assert_verdict(self, data, result):
        verdict = self.verdict(data)
        self.assertIsNotNone(verdict, data[:2000])
        self.assertRegex(verdict, rf"^mx\.b\.example; smime={result}\b")

    def assert_refused(self, code, text, send):
        with self.assertRaises(mail.Refused) as refused:
            send()
        self.assertEqual(code, refused.exception.code, refused.exception.text)
        self.assertIn(text, refused.exception.text)
        return refused.exception


def main():
    problem = postfix.missing()
    if not os.environ.get("NORV_MILTER"):
        raise SystemExit("NORV_MILTER says which program to test")
    if problem:
        print(f"SKIPPED: {problem}")
        raise SystemExit(SKIPPED)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what runs is stopped then, too
    sys.stdout.reconfigure(line_buffering=True)
    unittest.main(module="__main__", verbosity=2)


__all__ = ["Case", "LONG", "RECIPIENT", "SENDER", "World", "mail", "main"]
