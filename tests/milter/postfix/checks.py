"""What the tests of this folder have in common: one rig for all of them, and what they look at."""

import copy
import os
import time
import unittest
from pathlib import Path

from rig import mail
from rig.world import RECIPIENT, SENDER, World

LONG = bool(os.environ.get("NORV_MILTER_LONG"))


class Case(unittest.TestCase):
    """All classes share one world: starting hosts and making keys takes longer than the tests. Each begins with the settings of
    a new one and with those of its own."""

    shared = None
    pristine = None
    world = None

    @classmethod
    def setUpClass(cls):
        if Case.shared is None:
            began = time.monotonic()
            Case.shared = World(os.environ["NORV_MILTER"])
            Case.pristine = copy.deepcopy([filter_.settings for filter_ in (Case.shared.outgoing, Case.shared.incoming)])
            Case.shared.start()
            print(f"    two hosts and their filters: {time.monotonic() - began:.1f} s", flush=True)
        cls.world = Case.shared
        cls.world.outgoing.settings, cls.world.incoming.settings = copy.deepcopy(Case.pristine)
        cls.prepare()
        for filter_ in (cls.world.outgoing, cls.world.incoming):
            cls.world.reconfigure(filter_)
        cls.world.tap.clear()
        cls.world.mailboxes.clear()
        cls.world.bounces.clear()

    def run(self, result=None):
        began = time.monotonic()
        super().run(result)
        print(f"    {time.monotonic() - began:.1f} s", flush=True)

    @classmethod
    def prepare(cls):
        """Settings of the class."""

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


def finish(world):
    """Stops a world. What its filters must never write is looked for."""
    keep = os.environ.get("NORV_MILTER_LOGS")  # a folder for the logs, to look at what went wrong
    logs = {part.folder.name: part for part in (world.outgoing, world.incoming, world.a, world.b)}
    try:
        for filter_ in (world.outgoing, world.incoming):
            filter_.stop()
    finally:
        texts = {name: part.log_text() for name, part in logs.items()}
        world.stop()
    for name, text in texts.items():
        if keep:
            Path(keep, f"{name}.log").write_text(text)
        for sign in ("Sanitizer", "runtime error:", "terminate called"):
            if sign in text:
                raise AssertionError(f"{name}: {text[text.index(sign) - 200:][:6000]}")


__all__ = ["Case", "LONG", "RECIPIENT", "SENDER", "World", "finish", "mail"]
