#!/usr/bin/env python3
"""tool.py FOLDER PROGRAM [--quick] [--most=MB]: norvcrypt beside `openssl cms`, over sizes of the body, as processes in turns; writes
lines of task,who,x,round,seconds to standard output. FOLDER is one of scripts/bench-folder.

What counts is the processor time of a process from its start to its end, its own and the kernel's for it. Each run writes a file of
its own, since replacing one costs what taking the old one away costs. norvcrypt's files appear whole and are on the disk then, and
openssl's are not; openssl checks the signer's certificate, and norvcrypt does not.
"""
import os
import re
import shutil
import sys
import tempfile

from processes import openssl_cms, processor_seconds

folder, program = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
for word in sys.argv[3:]:
    if word != "--quick" and not re.fullmatch(r"--most=\d+", word):
        sys.exit(f"unknown argument: {word} (--quick, --most=MB)")
quick = "--quick" in sys.argv
MEGABYTE = 1 << 20
most = next((int(word[7:]) for word in sys.argv if word.startswith("--most=")), 512) * MEGABYTE
POINTS = [(MEGABYTE, 3)] if quick else [(MEGABYTE, 81), (16 * MEGABYTE, 21), (64 * MEGABYTE, 11), (512 * MEGABYTE, 5)]
POINTS = [point for point in POINTS if point[0] <= most]
FEW = 8 * MEGABYTE  # written files up to this are left until the end: removing them now and then makes making them slower


def tasks(work):
    certificate, key, root = (os.path.join(folder, name) for name in ("certificate.pem", "key.pem", "root.pem"))
    body, signature, message = (os.path.join(work, name) for name in ("body", "signature", "message"))
    identity = ["--cert", certificate, "--key", key]
    sign = openssl_cms("-sign", "-in", body, "-signer", certificate, "-inkey", key, "-outform", "DER", "-out")
    encrypt = openssl_cms("-encrypt", "-aes256", "-in", body, "-recip", certificate, "-outform", "DER", "-out")
    processor_seconds([*sign, signature])
    processor_seconds([*encrypt, message])
    return [
        ("sign", [*sign, None], [program, "sign", *identity, "--in", body, "--out", None]),
        ("verify",
         openssl_cms("-verify", "-inform", "DER", "-in", signature, "-content", body, "-CAfile", root, "-out", "/dev/null"),
         [program, "verify", "--signature", signature, "--in", body]),
        ("encrypt", [*encrypt, None], [program, "encrypt", "--to", certificate, "--in", body, "--out", None]),
        ("decrypt",
         openssl_cms("-decrypt", "-inform", "DER", "-in", message, "-recip", certificate, "-inkey", key, "-out", None),
         [program, "decrypt", *identity, "--in", message, "--out", None]),
    ]


print("task,who,x,round,seconds")
for size, rounds in POINTS:
    # Beside the results of the build, where the files of a user would be: not in memory.
    with tempfile.TemporaryDirectory(dir=folder) as work:
        with open(os.path.join(work, "body"), "wb") as body:
            for _ in range(size // MEGABYTE):
                body.write(os.urandom(MEGABYTE))
        made = os.path.join(work, "made")
        os.mkdir(made)
        number = 0
        for task, *commands in tasks(work):
            print(f"{task}, {size // MEGABYTE} MB", file=sys.stderr)
            contestants = list(zip(("openssl cms", "norvcrypt"), commands))
            for turn in range(rounds):
                for who, command in contestants[turn % 2:] + contestants[:turn % 2]:
                    number += 1
                    target = os.path.join(made, str(number))
                    seconds = processor_seconds([target if word is None else word for word in command])
                    print(f"{task},{who},{size},{turn},{seconds:.9g}", flush=True)
                    if size > FEW:
                        shutil.rmtree(made)
                        os.mkdir(made)
