#!/usr/bin/env python3
"""What the tool's commands cost over a store, against the number of identities: processor time, elapsed time and peak memory of
each command in a process of its own. Called by scripts/store-curve.

usage: store.py TOOL FOLDER RESULTS NUMBER...

Makes the stores in FOLDER: copies of a few identities, each with an address and a domain of its own, files of its own.
"""

import os
import pathlib
import resource
import subprocess
import sys
import time

PEOPLE = 8  # different keys and certificates


def run(*command, **options):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, **options)


def people(folder):
    """Keys and self-signed certificates, as (key, certificate) texts."""
    made = []
    for number in range(PEOPLE):
        key, certificate = folder / f"{number}.key", folder / f"{number}.crt"
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate, "-days", "3650",
            "-subj", f"/CN=Person {number}", stderr=subprocess.DEVNULL)
        made.append((key.read_text(), certificate.read_text()))
    return made


def make_store(path, number, made):
    """A store of identities; the last one alone has the first certificate."""
    os.mkdir(path, 0o700)
    for i in range(number):
        key, certificate = made[0 if i == number - 1 else 1 + i % (PEOPLE - 1)]
        folder = path / f"{i:06}"
        os.mkdir(folder, 0o700)
        for name, text in (("key.pem", key), ("cert.pem", certificate),
                           ("owners.txt", f"person-{i}@example.com\n*@domain-{i}.example.org\n")):
            with open(os.open(folder / name, os.O_WRONLY | os.O_CREAT, 0o600), "w") as file:
                file.write(text)


def measure(command, rounds=3):
    """The least processor time and elapsed time of some rounds, in seconds, and the peak memory in KiB."""
    best = None
    for _ in range(rounds):
        before = time.monotonic()
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        errors = process.stderr.read()
        _, status, usage = os.wait4(process.pid, 0)
        if os.waitstatus_to_exitcode(status) not in (0, 1):
            sys.exit(f"{' '.join(map(str, command))}: {errors.decode()}")
        cpu = usage.ru_utime + usage.ru_stime
        if best is None or cpu < best[0]:
            best = (cpu, time.monotonic() - before, usage.ru_maxrss)
        if cpu > 10:
            break
    return best


def read_owners(path):
    """What opening, reading and closing the owners' files costs, and nothing else: the floor of any look-up by address."""
    program = "import os,sys\np=sys.argv[1]\nfor n in sorted(os.listdir(p)):\n" \
              "  f=os.open(p+'/'+n+'/owners.txt',os.O_RDONLY);os.read(f,4096);os.close(f)\n"
    return [sys.executable, "-S", "-c", program, path]


def main():
    tool, folder, results, *numbers = sys.argv[1:]
    folder = pathlib.Path(folder)
    made = people(folder)
    body, envelope = folder / "body", folder / "envelope"
    body.write_text("A body.\n")
    run(tool, "encrypt", "--to", folder / "0.crt", "--in", body, "--out", envelope)
    load = ", ".join(f"{one:.1f}" for one in os.getloadavg())
    lines = ["# Stores of identities", "",
             f"{time.strftime('%Y-%m-%d')}, {os.cpu_count()} cores; load at the start {load}. The stores lie in memory. Each person has "
             "a key, a certificate and two patterns.", "",
             "| identities | command | processor time, s | elapsed, s | peak memory, MiB |", "|---|---|---|---|---|"]
    for number in map(int, numbers):
        store = folder / str(number)
        make_store(store, number, made)
        address = f"person-{number // 2}@example.com"
        commands = {
            "reading the owners' files (Python)": read_owners(store),
            "`sign --from`": [tool, "sign", "--store", store, "--from", address, "--in", body, "--out", folder / "out"],
            "`encrypt --to-address`": [tool, "encrypt", "--store", store, "--to-address", address, "--in", body, "--out",
                                       folder / "out"],
            "`decrypt`": [tool, "decrypt", "--store", store, "--in", envelope, "--out", folder / "out"],
            "`bindings find`": [tool, "bindings", "find", address, "--store", store],
            "`bindings check`": [tool, "bindings", "check", "--store", store],
        }
        for name, command in commands.items():
            (folder / "out").unlink(missing_ok=True)
            if number > 10000 and name == "`bindings check`":
                continue  # it reads all keys: minutes, in proportion to their number
            cpu, elapsed, memory = measure(command)
            lines.append(f"| {number:,} | {name} | {cpu:.3f} | {elapsed:.3f} | {memory / 1024:.0f} |")
            print(lines[-1], file=sys.stderr)
    pathlib.Path(results).write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
