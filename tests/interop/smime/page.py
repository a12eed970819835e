#!/usr/bin/env python3
"""Makes docs/interoperability.md of the results of matrix.py, given on standard input."""

import json
import sys

# What is known about a refusal beyond the program's own words: (peer, part of the reason), text.
REMARKS = [
    ("gmime", "import the key", "gpgsm 2.2 takes in no private keys on elliptic curves"),
    ("gpgsm", "import the key", "gpgsm 2.2 takes in no private keys on elliptic curves"),
    ("neomutt", "import the key", "gpgsm 2.2 takes in no private keys on elliptic curves"),
    ("neomutt", "application/pkcs7-mime is unsupported", "it does not know `smime-type=authEnveloped-data`"),
    ("pkijs", "operation-specific", "it takes user keying material that is absent, RFC 5753, for some that is empty"),
    (
        "pkijs",
        "GCM",
        "it puts AES-GCM into EnvelopedData, with its nonce alone for parameters; RFC 5083 and 5084 have "
        "AuthEnvelopedData and a sequence",
    ),
    ("pkijs", "Unrecognized algorithm", "WebCrypto, on which it stands, has no RSA PKCS#1 1.5 encryption"),
]
TEXT = """# Who reads whose S/MIME messages

Whole messages, exchanged with other programs in both directions. `scripts/interoperability` makes this page from what the
programs did; do not edit it.

- **yes**: the text comes out as it went in, and the signer is believed under the same root. Where the outermost layer is
  signed or authenticated, the same message with another text was tried, too, and refused.
- **no**: it does not; the number leads to the reason, in the words of the program that refuses.
  "Nor does it read what openssl cms writes" says what became of a message of the same kind that is not ours.
- **cannot**: the program does not know the algorithm or the form, or has no way to be asked for it.

The text has letters beyond ASCII, a blank at the end of a line, a line that begins with "From " and one that is a dot.
"""


def reason_of(result):
    remarks = [text for peer, part, text in REMARKS if peer == result["peer"] and part in result["reason"]]
    return result["reason"] + (f" ({remarks[0]})" if remarks else "")


def escaped(text):
    return text.replace("|", "\\|").replace("<", "&lt;").replace("*", "\\*").replace("_", "\\_")


def table(results, direction, reasons):
    peers = results["peers"]
    answers = {(one["job"], one["peer"]): one for one in results["results"] if one["direction"] == direction}
    lines = ["| message | " + " | ".join(peer["name"] for peer in peers.values()) + " |"]
    lines.append("|---" * (len(peers) + 1) + "|")
    for job in results["jobs"]:
        cells = []
        for peer in peers:
            result = answers.get((job["id"], peer))
            if result is None:
                cells.append("")
                continue
            cell = "cannot" if result["answer"] == "not written" else result["answer"]
            if result["reason"] and result["answer"] != "yes":
                cell += f" [{reasons.setdefault(reason_of(result), len(reasons) + 1)}]"
            cells.append(cell)
        if any(cells):
            text = job["text"] if job["group"] == "Both" else f"{job['group'].lower()}: {job['text']}"
            lines.append(f"| {text} | " + " | ".join(cells) + " |")
    return lines


def main():
    results = json.load(sys.stdin)
    reasons = {}
    lines = [TEXT, "| program | version | how |", "|---|---|---|", f"| norvcrypt | {results['ours']} | `norvcrypt smime` |"]
    for peer in results["peers"].values():
        lines.append(f"| {peer['name']} | {peer['version']} | {peer['note']} |")
    for absent in results["absent"].values():
        lines.append(f"| {absent['name']} | | left out: {absent['reason']} |")
    lines += ["", "## They read what we write", "", *table(results, "reads ours", reasons)]
    lines += ["", "## We read what they write", "", *table(results, "ours reads", reasons)]
    lines += ["", "## Reasons", ""]
    lines += [f"{number}. {escaped(reason)}" for reason, number in reasons.items()]
    print("\n".join(lines))


if __name__ == "__main__":
    main()
