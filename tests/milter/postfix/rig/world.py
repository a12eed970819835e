"""Two hosts with a filter each: a.example sends through A, whose filter works for outgoing mail, over the tap to B, whose
filter works for incoming mail, and there lie the mailboxes of b.example. A keeps mailboxes too: bounces come back."""

import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from .gateway import Filter, Settings
from . import logins
from .guard import Guard
from .people import Authority, keep
from .gateway import USER
from .mail import Mailboxes, send, until
from .picky import Picky
from .postfix import Listener, Postfix, free_ports
from .tap import Tap

SENDER = "sender@a.example"
RECIPIENT = "recipient@b.example"


class World:
    def __init__(self, program=None, milters=None, people=True, default_action="tempfail", filter_environment=None):
        """`program` is the filter; `milters` instead, (for A, for B), are addresses of filters that run already. `people`: False for
        none, or another world that lends its own."""
        self.folder = Path(tempfile.mkdtemp(prefix="mail-rig-"))
        self.folder.chmod(0o755)
        self.guard = Guard()
        self.guard.folder(self.folder)
        self.program = program
        self.outgoing = self.incoming = self.a = self.b = self.tap = self.picky = None
        try:
            self.make_people(people)
            if program:
                self.make_filters(filter_environment)
            self.make_hosts(milters, default_action)
        except BaseException:
            self.stop()
            raise

    def make_people(self, wanted):
        self.people = {}
        if isinstance(wanted, World):
            self.people, self.authority, self.stranger = wanted.people, wanted.authority, wanted.stranger
        if not wanted or self.people:
            return
        self.authority = Authority(self.folder / "authority", "Rig Root")
        self.stranger = Authority(self.folder / "stranger", "Stranger Root")
        for address in (SENDER, "second@a.example", RECIPIENT, "friend@b.example", "third@b.example"):
            self.people[address] = self.authority.issue(address)
        self.people["expired@b.example"] = self.authority.issue("expired@b.example", begins="20200101000000Z",
                                                                ends="20210101000000Z")
        self.people["stranger@b.example"] = self.stranger.issue("stranger@b.example")
        self.people["stranger@a.example"] = self.stranger.issue("stranger@a.example")

    def make_filters(self, environment):
        settings = Settings(milter={"authserv_id": "mx.a.example"},
                            # Sanitizers and the memory of a test run do not fit into a limit.
                            limits={"memory_bytes": 0},
                            outgoing={})
        self.outgoing = Filter(self.program, self.folder / "filter-a", settings, environment)
        settings = Settings(milter={"authserv_id": "mx.b.example"}, limits={"memory_bytes": 0}, incoming={})
        self.incoming = Filter(self.program, self.folder / "filter-b", settings, environment)
        self.outgoing.settings.direction = [{"listener": "OUT", "direction": "outgoing"}]
        self.outgoing.settings.rules = [{"name": "everybody", "sign": "possible", "encrypt": "possible"}]
        self.outgoing.trust(self.authority)
        self.incoming.trust(self.authority)
        for address, person in self.people.items():
            domain = address.partition("@")[2]
            keep(self.outgoing.store, person, USER, with_key=domain == "a.example")
            if domain == "b.example":
                keep(self.incoming.store, person, USER, with_key=True)

    def make_hosts(self, milters, default_action):
        (self.out_port, self.back_port, self.login_port, self.careless_port, self.in_port, self.auth_port, self.picky_first_port,
         self.picky_last_port, self.choosy_port, self.mapping_port, self.mapped_port) = free_ports(11)
        for_a, for_b = milters or (self.outgoing and self.outgoing.address, self.incoming and self.incoming.address)
        milter = {"milter_default_action": default_action, "milter_protocol": "6"}
        self.b = Postfix(self.folder / "b", "b.example", [
            Listener(self.in_port, milter_macro_daemon_name="IN", smtpd_milters=for_b or "")],
            smtpd_relay_restrictions="reject_unauth_destination", **milter)
        self.tap = Tap(self.in_port)
        login, users = {}, {}
        if not logins.missing():
            users = logins.settings(self.folder / "a" / "config", "sender", "right")
            login = {"smtpd_sasl_auth_enable": "yes"}
        self.picky = Picky("picky")
        self.a = Postfix(self.folder / "a", "a.example", [
            Listener(self.out_port, milter_macro_daemon_name="OUT", smtpd_milters=for_a or ""),
            # Where the filter hands over messages that it made: past the filter, or it would see them again.
            Listener(self.back_port, syslog_name="postfix-a.example/back"),
            # Where tests say who logged in, and from where.
            Listener(self.login_port, milter_macro_daemon_name="LOGIN", smtpd_milters=for_a or "",
                     smtpd_authorized_xclient_hosts="127.0.0.1", mynetworks="0.0.0.0/0 [::]/0"),
            # Where a filter that is not there does not matter.
            Listener(self.careless_port, milter_macro_daemon_name="OUT", smtpd_milters=for_a or "",
                     milter_default_action="accept"),
            # Where nobody may send who does not log in.
            Listener(self.auth_port, smtpd_milters=for_a or "",
                     smtpd_relay_restrictions="permit_sasl_authenticated, reject", **login),
            # Where recipients are refused: by another milter in front of ours and behind it, and by Postfix itself.
            Listener(self.picky_first_port, milter_macro_daemon_name="OUT", smtpd_milters=f"{self.picky.address}, {for_a or ''}"),
            Listener(self.picky_last_port, milter_macro_daemon_name="OUT", smtpd_milters=f"{for_a or ''}, {self.picky.address}"),
            Listener(self.choosy_port, milter_macro_daemon_name="OUT", smtpd_milters=for_a or "",
                     smtpd_recipient_restrictions="check_recipient_access inline:{{ picky@b.example = 550 5.1.1 not here }}, permit"),
            # Where aliases are looked up first, and the filter sees what they stand for.
            Listener(self.mapping_port, content_filter=f"smtp:[127.0.0.1]:{self.mapped_port}"),
            Listener(self.mapped_port, milter_macro_daemon_name="OUT", smtpd_milters=for_a or "",
                     receive_override_options="no_address_mappings")],
            virtual_alias_maps="inline:{ {alias@c.example = friend@b.example} }",
            recipient_canonical_maps="inline:{ {canonical@c.example = friend@b.example} }",
            relay=self.tap.port, **milter, **users)
        if self.outgoing:
            self.outgoing.settings.change("outgoing", submit=f"smtp://127.0.0.1:{self.back_port}")
        self.mailboxes = Mailboxes(self.b.mailboxes)
        self.bounces = Mailboxes(self.a.mailboxes)

    def start(self):
        try:
            for part in (self.outgoing, self.incoming, self.b, self.a):
                if part:
                    part.guard = self.guard
            # Each waits for others most of its time.
            with ThreadPoolExecutor() as pool:
                starting = [pool.submit(part.start) for part in (self.outgoing, self.incoming, self.b, self.a) if part]
            for part in starting:
                part.result()
        except BaseException:
            self.stop()
            raise
        return self

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def send(self, recipients, data, sender=SENDER, **others):
        return send(self.out_port, sender, recipients, data, **others)

    def settled(self, seconds=60):
        """Whether no message waits in a queue any more."""
        return until(lambda: not self.a.queue() and not self.b.queue(), seconds)

    def policy(self, *rules, **outgoing):
        """Other rules for outgoing mail, in use when this returns."""
        self.outgoing.settings.rules = list(rules)
        self.outgoing.settings.change("outgoing", **outgoing)
        self.reconfigure(self.outgoing)

    @staticmethod
    def reconfigure(filter_):
        filter_.write_settings()
        if not filter_.reload_and_wait():
            raise RuntimeError(f"the filter did not reload:\n{filter_.log_text()}")

    def stop(self):
        for part in (self.a, self.b, self.tap, self.outgoing, self.incoming, self.picky):
            if part:
                try:
                    part.stop()
                except Exception as failure:  # the others must be stopped, too
                    print(f"stopping: {failure}")
        self.guard.close()
