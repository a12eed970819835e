#!/usr/bin/env python3
"""Shows the filter at work between two Postfix hosts; scripts/demo-mail installs, builds and calls it."""

import os
import subprocess
import sys
import textwrap

from rig import mail, postfix
from rig.gateway import USER
from rig.world import RECIPIENT, SENDER, World

FRIEND = "friend@b.example"
NOBODY = "newcomer@b.example"


def headline(text):
    print(f"\n== {text}\n", flush=True)


def indented(text, most=40):
    lines = text.replace("\r", "").rstrip("\n").split("\n")
    for line in lines[:most]:
        print("    " + line)
    if len(lines) > most:
        print(f"    ... {len(lines) - most} more lines")


def swaks(world, recipient, subject, body):
    command = ["swaks", "--server", "127.0.0.1", "--port", str(world.out_port), "--from", SENDER, "--to", recipient,
               "--header", f"Subject: {subject}", "--body", body, "--hide-informational"]
    print("$ " + " ".join(word if word.isalnum() or not set(word) & set(" :") else f"'{word}'" for word in command))
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    answers = [line for line in done.stdout.splitlines() if line.startswith(("<-", "<~", "<*"))]
    print(f"  what Postfix answered to the whole message: {answers[-2][3:].strip() if len(answers) > 1 else done.stdout}")
    return done


def header_of(data, *names):
    for name, value in mail.split(data)[0]:
        if name.lower() in names:
            indented("\n  ".join(textwrap.wrap(f"{name}: {value}", 110)))


def must(condition, text):
    if not condition:
        raise SystemExit(f"demo-mail: {text}")
    return condition


def show(world):
    headline(f"1. {SENDER} sends to {RECIPIENT}: the filter of a.example signs and encrypts")
    swaks(world, RECIPIENT, "Contract", "The price is 100 euros.")
    arrived = must(world.mailboxes.one(RECIPIENT, "Contract"), "the message did not arrive")
    wire = world.tap.messages()[-1].data
    must(mail.kind(wire) == "encrypted" and b"100 euros" not in wire, "the message was not encrypted on the wire")
    print("\n  What passed between the hosts, as the tap on the wire kept it:\n")
    indented(wire.decode("latin-1"), 22)

    headline("2. What is in there, by another program: openssl with the recipient's key, then with the sender's root")
    inner = mail.opened(world.people[RECIPIENT], wire)
    signed = mail.verified(world.authority, inner)
    print("$ openssl cms -decrypt -recip recipient.pem -inkey recipient.key | openssl cms -verify -CAfile root.pem")
    indented(signed.decode("latin-1"), 12)

    headline(f"3. What lies in the mailbox of {RECIPIENT}: clear, with the verdict of b.example's filter in the header")
    indented(arrived.decode("latin-1"), 32)
    verdict = mail.field(arrived, "Authentication-Results")
    must(verdict and "smime=pass" in verdict[0] and b"100 euros" in arrived, "the verdict is missing")

    headline("4. Somebody on the wire changes a signed message: 100 euros become 900")
    world.tap.change = lambda passed: passed.data.replace(b"100 euros", b"900 euros")
    swaks(world, FRIEND, "Offer", "The price is 100 euros.")
    bounce = must(world.bounces.one(SENDER), "nothing came back to the sender")
    world.tap.change = None
    print("\n  b.example's Postfix refused it, since its filter says so; the host of a.example told the sender:\n")
    indented("\n".join(line for line in bounce.decode("latin-1").replace("\r", "").split("\n")
                       if line.startswith(("<", "    ", "Diagnostic-Code", "Status", "Action")))[:1200])
    must(not world.mailboxes.all(FRIEND), "the changed message was delivered")
    print(f"\n  messages in the mailbox of {FRIEND}: {len(world.mailboxes.all(FRIEND))}")

    headline(f"5. Encryption is a must for {NOBODY}, who has no certificate: refused while the sender is connected")
    refused = swaks(world, NOBODY, "Secret", "For your eyes alone.")
    must("550" in refused.stdout and "no certificate" in refused.stdout, "it was not refused")
    must(all(NOBODY not in passed.recipients for passed in world.tap.messages()), "it went over the wire")
    print("  nothing of it went over the wire")

    headline("6. What the operator of a.example is told about that")
    arguments = ["explain", "--config", str(world.outgoing.config), "--from", SENDER, "--to", NOBODY, "--listener", "OUT"]
    print("$ norvcrypt-milter " + " ".join(arguments))
    program, libraries = world.outgoing.runnable()
    explained = subprocess.run([program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, user=USER,
                               extra_groups=[], env={**os.environ, **libraries})
    indented(explained.stdout + explained.stderr)
    must("rule newcomers" in explained.stdout, "the rule is not named")

    headline("7. What the filters logged")
    for name, filter_ in (("a.example", world.outgoing), ("b.example", world.incoming)):
        print(f"  {name}:")
        indented("\n".join(line for line in filter_.log_text().splitlines() if "queue" in line)[-1600:], 8)


def main():
    problem = postfix.missing() or (None if postfix.program("swaks") else "swaks is not installed")
    if problem:
        raise SystemExit(f"demo-mail: {problem}")
    print("Two mail hosts on loopback, a.example and b.example: a Postfix and a filter each, in a temporary folder.", flush=True)
    world = World(sys.argv[1])
    world.outgoing.settings.rules = [
        {"name": "newcomers", "recipient": NOBODY, "sign": "must", "encrypt": "must"},
        {"name": "friends", "recipient": FRIEND, "sign": "must", "encrypt": "never"},
        {"name": "partners", "recipient": "*@b.example", "sign": "must", "encrypt": "must"}]
    world.incoming.settings.change("incoming", refuse=["fail"])
    with world:
        show(world)
        headline("8. Everything is stopped and removed")
    print("Done.")


if __name__ == "__main__":
    main()
