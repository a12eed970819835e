#!/usr/bin/env python3
"""many.py FOLDER PROGRAM RESULT.md [--mails=N] [--rounds=N] [--only=TASK]: N mails of 4 KB signed, verified, encrypted and decrypted by one
process of norvcrypt, and by `openssl cms` called N times, in turns; beside both, a program that does no more than start OpenSSL,
called N times. FOLDER is one of scripts/bench-folder.

What counts is the processor time of all processes from their start to their end, their own and the kernel's for them. norvcrypt's
files appear whole and are on the disk then, and openssl's are not; openssl checks the signer's certificate, and so does norvcrypt
here. What both made is compared with what went in.
"""
import datetime
import filecmp
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile

from processes import openssl_cms, processor_seconds

folder, program, result = (os.path.abspath(word) for word in sys.argv[1:4])
options = {}
for word in sys.argv[4:]:
    name, _, value = word.partition("=")
    if name not in ("--mails", "--rounds", "--only") or not value:
        sys.exit(f"unknown argument: {word} (--mails=N, --rounds=N, --only=TASK)")
    options[name[2:]] = value
if options.get("only", "sign") not in ("sign", "verify", "encrypt", "decrypt"):
    sys.exit(f"no task: {options['only']}")
mails, rounds = int(options.get("mails", 1000)), int(options.get("rounds", 5))
certificate, key, root = (os.path.join(folder, name) for name in ("certificate.pem", "key.pem", "root.pem"))
OPENSSL, STARTS, TOOL = "`openssl cms`, a process each", "`openssl version`, as often", "norvcrypt, one process"


def tasks(work):
    """Each with the endings of what goes in and comes out, openssl's command for a mail, and the tool's for all."""
    identity = ["--cert", certificate, "--key", key]
    listed = ["--files-from", os.path.join(work, "list")]
    return [
        ("sign", "", ".p7s",
         lambda name, out: openssl_cms("-sign", "-in", name, "-signer", certificate, "-inkey", key, "-outform", "DER", "-out", out),
         lambda out: ["sign", *identity, *listed, "--out-dir", out]),
        ("verify", ".p7s", None,
         lambda name, out: openssl_cms("-verify", "-inform", "DER", "-in", name, "-content", name[:-4], "-CAfile", root, "-out",
                                   os.devnull),
         lambda out: ["verify", "--ca", root, *listed]),
        ("encrypt", "", ".p7m",
         lambda name, out: openssl_cms("-encrypt", "-aes256", "-in", name, "-recip", certificate, "-outform", "DER", "-out", out),
         lambda out: ["encrypt", "--to", certificate, *listed, "--out-dir", out]),
        ("decrypt", ".p7m", "",
         lambda name, out: openssl_cms("-decrypt", "-inform", "DER", "-in", name, "-recip", certificate, "-inkey", key, "-out", out),
         lambda out: ["decrypt", *identity, *listed, "--out-dir", out]),
    ]


def text(seconds):
    return f"{seconds:.2f} s"


def middle(values, show):
    return f"{show(statistics.median(values))} ({show(min(values))} to {show(max(values))})"


rows = []
with tempfile.TemporaryDirectory(dir=folder) as work:
    # Beside the results of the build, where the files of a user would be: not in memory.
    names = [os.path.join(work, f"{number}.eml") for number in range(mails)]
    for name in names:
        with open(name, "wb") as mail:
            mail.write(b"From: a@example.org\r\nSubject: bench\r\n\r\n" + os.urandom(3072).hex().encode()[:4056])
    for task, before, after, one, many in tasks(work):
        if options.get("only", task) != task:
            if before == "":  # what another task reads is wanted all the same
                for name in names:
                    processor_seconds(one(name, name + after))
            continue
        inputs = [name + before for name in names]
        with open(os.path.join(work, "list"), "w", encoding="utf-8") as listed:
            listed.write("\n".join(inputs))
        seconds = {OPENSSL: [], STARTS: [], TOOL: []}
        for turn in range(rounds):
            print(f"{task}, round {turn + 1}", file=sys.stderr)
            for who in (list(seconds)[turn % 3:] + list(seconds)[:turn % 3]):
                out = os.path.join(work, "out")
                shutil.rmtree(out, ignore_errors=True)
                os.mkdir(out)
                if who == OPENSSL:
                    used = sum(processor_seconds(one(name, os.path.join(out, os.path.basename(name)))) for name in inputs)
                elif who == STARTS:
                    used = sum(processor_seconds(["openssl", "version"]) for _ in inputs)
                else:
                    used = processor_seconds([program, *many(out), "--quiet"])
                    if after is not None and len(os.listdir(out)) != mails:
                        sys.exit("not all were made")
                seconds[who].append(used)
                if who == OPENSSL and task in ("sign", "encrypt"):
                    for name in names:  # what the next task reads is openssl's
                        os.replace(os.path.join(out, os.path.basename(name)), name + after)
                if who != STARTS and task == "decrypt":
                    if not all(filecmp.cmp(name, os.path.join(out, os.path.basename(name) + (before if who == OPENSSL else "")),
                                           shallow=False) for name in names):
                        sys.exit("not what was encrypted")
        ratio = [theirs / ours for theirs, ours in zip(seconds[OPENSSL], seconds[TOOL])]
        saved = [(theirs - ours) / starts for theirs, ours, starts in zip(seconds[OPENSSL], seconds[TOOL], seconds[STARTS])]
        rows.append([task, *(middle(seconds[who], text) for who in seconds), middle(ratio, "{:.1f}".format),
                     middle(saved, "{:.2f}".format)])

version = subprocess.run(["openssl", "version"], capture_output=True, text=True, check=True).stdout.strip()
load = ", ".join(f"{value:.1f}" for value in os.getloadavg())
with open(result, "w", encoding="utf-8") as page:
    print(f"""# Many mails

{datetime.date.today()}, {os.cpu_count()} cores, {platform.machine()}; load at the end {load}; {version}.

{mails:,} mails of 4 KB, RSA-3072, in files. Processor time of all processes, from their starts to their ends; {rounds} rounds in turns, the
median (least to most). The ratio is openssl's time divided by norvcrypt's of the same round; saved is what norvcrypt
takes less, divided by what {mails:,} starts of a program that does nothing cost: above 1, more than the starts are saved.

| | {OPENSSL} | {STARTS} | {TOOL} | ratio | saved, in starts |
|---|---|---|---|---|---|""", file=page)
    for row in rows:
        print("| " + " | ".join(row) + " |", file=page)
