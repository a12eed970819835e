#!/usr/bin/env python3
"""Exchanges S/MIME messages between the tool and other programs, in both directions; what became of each comes out as JSON.

A message counts as read when the text in its middle comes out as it went in and, where it is signed or authenticated on
the outside, the same message with another text is refused. Exit code 0 whatever the programs answered."""

import argparse
import json
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True  # the sources may belong to somebody else

import jobs as exchange
import mail as mime
from peers.base import Cannot, Refused, Setting
from peers.gnupg import GMime, Gpgsm
from peers.neomutt import NeoMutt, NeoMuttOpenSsl
from peers.nss import Nss
from peers.openssl import OpenSsl
from peers.ours import Ours
from peers.pkijs import PkiJs

PEERS = {"openssl": OpenSsl, "gmime": GMime, "gpgsm": Gpgsm, "nss": Nss, "neomutt": NeoMutt,
         "neomutt-openssl": NeoMuttOpenSsl, "pkijs": PkiJs}


def oid(text):
    """The content octets of an object identifier."""
    numbers = [int(one) for one in text.split(".")]
    octets = []
    for number in [numbers[0] * 40 + numbers[1], *numbers[2:]]:
        base = [number & 0x7F]
        while number := number >> 7:
            base.insert(0, number & 0x7F | 0x80)
        octets += base
    return bytes([6, len(octets), *octets])


# RFC 3370, 3565, 4056, 5084, 5753, 8419.
OIDS = {
    "pss": "1.2.840.113549.1.1.10",
    "oaep": "1.2.840.113549.1.1.7",
    "ecdsa": "1.2.840.10045.4.3.2",
    "ecdsa-384": "1.2.840.10045.4.3.3",
    "ecdsa-521": "1.2.840.10045.4.3.4",
    "ed25519": "1.3.101.112",
    "des-ede3-cbc": "1.2.840.113549.3.7",
    "aes-128-cbc": "2.16.840.1.101.3.4.1.2",
    "aes-192-cbc": "2.16.840.1.101.3.4.1.22",
    "aes-256-cbc": "2.16.840.1.101.3.4.1.42",
    "aes-128-gcm": "2.16.840.1.101.3.4.1.6",
    "aes-192-gcm": "2.16.840.1.101.3.4.1.26",
    "aes-256-gcm": "2.16.840.1.101.3.4.1.46",
    "sha256": "2.16.840.1.101.3.4.2.1",
    "sha224": "2.16.840.1.101.3.4.2.4",
    "sha384": "2.16.840.1.101.3.4.2.2",
    "sha512": "2.16.840.1.101.3.4.2.3",
}


def unlike(mail, layer):
    """What the outermost layer should have and has not: a program may choose something else than it was asked for."""
    named = [layer.scheme, layer.digest] if layer.signs else [layer.transport, layer.cipher]
    structures = mime.structures(mail)
    for name in named:
        if name in OIDS and oid(OIDS[name]) not in structures:
            return name
    for name in ("pss", "oaep"):
        if name not in named and oid(OIDS[name]) in structures:
            return "something else than " + name
    return None


def read(reader, mail, job):
    """("yes" | "no" | "cannot", reason). With "yes", the reason for which the altered message is refused."""
    try:
        text = mime.text_in(reader.read(mail, job.layers))
    except Cannot as cannot:
        return "cannot", str(cannot)
    except (Refused, subprocess.TimeoutExpired) as refused:
        return "no", str(refused)
    if text != mime.TEXT:
        return "no", "another text comes out" if text else "no text comes out"
    outermost = job.layers[-1]
    if not outermost.signs and not outermost.cipher.endswith("gcm"):
        return "yes", ""
    try:
        reader.read(mime.altered(mail), job.layers)
    except (Cannot, Refused, subprocess.TimeoutExpired) as refused:
        return "yes", str(refused)
    return "no", "accepts the message with another text"


def written(writer, job):
    """(the mail or None, answer, reason)."""
    try:
        mail = writer.write(job.sender, job.layers, mime.entity())
    except Cannot as cannot:
        return None, "cannot", str(cannot)
    except (Refused, subprocess.TimeoutExpired) as refused:
        return None, "no", str(refused)
    if b"\nFrom:" not in b"\n" + mail.split(b"\n\n")[0].split(b"\r\n\r\n")[0]:
        mail = mime.with_header(job.sender, mail)
    other = unlike(mail, job.layers[-1])
    if other:
        return None, "cannot", f"does not write {other} though asked"
    return mail, "yes", ""


def keep(folder, name, mail):
    if folder and mail is not None:
        folder.mkdir(parents=True, exist_ok=True)
        (folder / f"{name}.eml").write_bytes(mail)


def with_control(peer, job, answer, reason):
    """Of a message that a program does not read: whether it reads what openssl cms writes likewise."""
    if answer != "no" or peer.key == "openssl" or job.oursAlone:
        return answer, reason
    mail, written_answer, _ = written(OpenSsl(peer.setting), job)
    if written_answer != "yes":
        return answer, reason
    other = "it reads" if read(peer, mail, job)[0] == "yes" else "nor does it read"
    return answer, f"{reason}; {other} what openssl cms writes"


def exchange_with(peer, ours, jobs, ours_written, folder):
    """A result for each job and direction."""
    for job in jobs:
        if job.id not in ours_written:
            ours_written[job.id] = written(ours, job)
            keep(folder and folder / "ours", job.id, ours_written[job.id][0])
        mail, answer, reason = ours_written[job.id]
        if mail is not None:
            answer, reason = with_control(peer, job, *read(peer, mail, job))
        yield job, "reads ours", answer, reason
        if job.oursAlone:
            continue
        mail, answer, reason = written(peer, job)
        keep(folder and folder / peer.key, job.id, mail)
        if mail is None:
            yield job, "ours reads", "cannot" if answer == "cannot" else "not written", reason
        else:
            yield job, "ours reads", *read(ours, mail, job)


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("--people", required=True, type=Path, help="root.pem, and NAME.pem and NAME.key of each")
    arguments.add_argument("--programs", required=True, type=Path, help="where norvcrypt and the built peers are")
    arguments.add_argument("--pkijs", type=Path, help="a folder with node_modules")
    arguments.add_argument("--peer", choices=list(PEERS), action="append", help="the others are left out")
    arguments.add_argument("--job", action="append", help="the others are left out")
    arguments.add_argument("--keep", type=Path, help="a folder for the messages")
    arguments.add_argument("--json", type=Path, help="where the results go; standard output unless given")
    options = arguments.parse_args()
    jobs = [job for job in exchange.all_jobs() if options.job is None or job.id in options.job]

    work = Path(tempfile.mkdtemp(prefix="mails-"))
    results = {"peers": {}, "absent": {}, "jobs": [], "results": []}
    results["jobs"] = [{"id": job.id, "group": job.group, "text": job.text} for job in jobs]
    ours_written = {}
    try:
        for key in options.peer or PEERS:
            folder = work / key
            folder.mkdir()
            setting = Setting(
                options.people.resolve(),
                folder,
                options.programs.resolve() / "norvcrypt",
                options.programs.resolve(),
                options.pkijs and options.pkijs.resolve(),
            )
            peer = PEERS[key](setting)
            peer.key = key
            absent = peer.missing()
            if absent:
                results["absent"][key] = {"name": peer.name, "reason": absent}
                print(f"{peer.name} is left out: {absent}", file=sys.stderr)
                continue
            ours = Ours(setting)
            results["ours"] = ours.version()
            try:
                peer.prepare()
                results["peers"][key] = {"name": peer.name, "note": peer.note, "version": peer.version()}
                for job, direction, answer, reason in exchange_with(peer, ours, jobs, ours_written, options.keep):
                    results["results"].append(
                        {"peer": key, "job": job.id, "direction": direction, "answer": answer, "reason": reason}
                    )
                    why = "" if answer == "yes" else reason
                    print(f"{peer.name:12} {direction:11} {job.id:28} {answer} {why}".rstrip(), file=sys.stderr)
            finally:
                peer.close()
    finally:
        shutil.rmtree(work, ignore_errors=True)
    text = json.dumps(results, indent=2) + "\n"
    if options.json:
        options.json.write_text(text)
    else:
        print(text, end="")


if __name__ == "__main__":
    main()
