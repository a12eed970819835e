#!/usr/bin/env python3
"""gateway.py PROGRAMS RESULT [--quick]: the mail filter on a real Postfix, beside a filter that does nothing, no filter and the
library alone, in turns in one run; writes a table in Markdown. PROGRAMS is the folder of norvcrypt-milter, idle_milter and
smime_alone. Run as root: Postfix's master process must be.

One Postfix takes mail on a port for each contestant, over CONNECTIONS connections at once, and discards it: what is measured is the
way of a message until Postfix has taken it. In each round every contestant has its turn, beginning with another one each time; medians
of the rounds count."""

import os
import smtplib
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests/milter/postfix"))
from rig import mail, postfix
from rig.gateway import USER, Filter, Settings
from rig.guard import Guard
from rig.people import Authority, keep
from rig.postfix import Listener, Postfix, free_ports, wait_for_port

SENDER, RECIPIENT = "sender@a.example", "recipient@b.example"
CONNECTIONS = 8
SIZES = {"4 KB": 4 << 10, "1 MB": 1 << 20}
COUNTS = {"4 KB": (200, 60), "1 MB": (48, 16)}  # messages in a round; fewer with --quick
TASKS = ("sign", "sign-encrypt", "read")
NAMES = {"none": "no filter", "idle": "a filter that does nothing", "port": "a filter that does nothing, over a port",
         "sign": "signs", "sign-encrypt": "signs and encrypts",
         "read": "decrypts and verifies"}


class Sampler:
    """The most memory that a filter held while something ran."""

    def __init__(self, filter_):
        self.filter = filter_
        self.most = 0
        self.done = threading.Event()
        self.thread = threading.Thread(target=self.watch)

    def watch(self):
        while not self.done.wait(0.05):
            self.most = max(self.most, self.filter.memory()[0])

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.done.set()
        self.thread.join()


def processor_seconds_of(host):
    """Of a Postfix: its master's, with those of processes that ended, and of all processes that it started."""
    total = 0
    children = Path(f"/proc/{host.master.pid}/task/{host.master.pid}/children").read_text().split()
    for process, columns in [(str(host.master.pid), (11, 12, 13, 14)), *((child, (11, 12)) for child in children)]:
        try:
            fields = Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()
        except FileNotFoundError:
            continue
        total += sum(int(fields[column]) for column in columns)
    return total / os.sysconf("SC_CLK_TCK")


def pour(port, data, count):
    """Sends `count` messages over all connections; the seconds that it took, and of each message."""
    waits, failures = [], []
    numbers = iter(range(count))
    lock = threading.Lock()

    def one():
        try:
            with smtplib.SMTP("127.0.0.1", port, local_hostname="client.example", timeout=300) as session:
                while True:
                    with lock:
                        if next(numbers, None) is None:
                            return
                    began = time.monotonic()
                    session.sendmail(SENDER, [RECIPIENT], data)
                    waits.append(time.monotonic() - began)
        except Exception as failure:
            failures.append(failure)

    threads = [threading.Thread(target=one) for _ in range(CONNECTIONS)]
    began = time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]
    return time.monotonic() - began, waits


class Bench:
    def __init__(self, programs, folder, quick):
        self.programs, self.folder, self.quick = programs, folder, quick
        self.rounds = 2 if quick else 7
        self.idle = {}
        self.host = None
        self.guard = Guard()
        self.guard.folder(folder)
        authority = Authority(folder / "authority", "Bench Root")
        people = {address: authority.issue(address) for address in (SENDER, RECIPIENT)}
        self.filters = {}
        for task in TASKS:
            settings = Settings(milter={"authserv_id": "mx.example", "socket_mode": "0666",
                                        "socket": f"unix:{folder / task}/run/milter.sock"}, outgoing={})
            settings.direction = [{"listener": "OUT", "direction": "outgoing"}]
            settings.rules = [{"name": "all", "sign": "must", "encrypt": "must" if task == "sign-encrypt" else "never"}]
            filter_ = Filter(programs / "norvcrypt-milter", folder / task, settings)
            filter_.trust(authority)
            for address, person in people.items():
                keep(filter_.store, person, USER, with_key=address == (RECIPIENT if task == "read" else SENDER))
            self.filters[task] = filter_
        # The library reads as root: what the filters' user owns is refused to nobody.
        self.store, self.roots = folder / "store", authority.certificate
        for person in people.values():
            keep(self.store, person, "root", with_key=True)
        self.clear, self.sealed = {}, {}
        for name, size in SIZES.items():
            line = b"Sixty-four characters to a line, so that nothing has to be encoded.\r\n"
            data = mail.compose(SENDER, RECIPIENT, f"bench {size}", line * (size // len(line)), ["Content-Type: text/plain"])
            self.clear[name] = folder / f"clear-{size}.eml"
            self.clear[name].write_bytes(data)
            self.sealed[name] = folder / f"sealed-{size}.eml"
            self.alone("sign-encrypt", name, seconds=0.01, written=self.sealed[name])

    def alone(self, task, size, seconds, written=None):
        """Messages a second of the library on both cores, and processor milliseconds of each."""
        given = (self.sealed if task == "read" else self.clear)[size]
        done = subprocess.run([self.programs / "smime_alone", self.store, self.roots, task, str(os.cpu_count()), str(seconds),
                               given, RECIPIENT, *([written] if written else [])], check=True, capture_output=True, text=True)
        messages, passed, used = map(float, done.stdout.split())
        return messages / passed, 1000 * used / messages

    def start(self):
        port, = free_ports(1)
        addresses = {"none": "", "idle": f"unix:{self.folder}/idle.sock", "port": f"inet:127.0.0.1:{port}",
                     **{task: self.filters[task].address for task in self.filters}}
        os.umask(0)  # Postfix may use the socket
        for who, name in (("idle", addresses["idle"]), ("port", f"inet:{port}@127.0.0.1")):
            self.idle[who] = subprocess.Popen([self.programs / "idle_milter", name], stdin=subprocess.DEVNULL,
                                              start_new_session=True)
            self.guard.session(self.idle[who])
        os.umask(0o022)
        if not wait_for_port(port) or not mail.until(lambda: (self.folder / "idle.sock").exists(), 10):
            raise RuntimeError("the filter that does nothing did not start")
        for filter_ in self.filters.values():
            filter_.guard = self.guard
            filter_.start()
        self.ports = dict(zip(NAMES, free_ports(len(NAMES))))
        self.host = Postfix(self.folder / "host", "a.example", [
            Listener(self.ports[who], smtpd_milters=addresses[who], milter_macro_daemon_name="IN" if who == "read" else "OUT")
            for who in NAMES], relay="1", milter_default_action="tempfail", default_transport="discard", relay_transport="discard",
            relayhost="")
        self.host.guard = self.guard
        self.host.start()

    def stop(self):
        if self.host:
            self.host.stop()
        for idle in self.idle.values():
            idle.terminate()
            idle.wait()
            self.guard.session_ended(idle)
        for filter_ in self.filters.values():
            filter_.stop()
        self.guard.close()

    def measure(self, size):
        data = {who: (self.sealed if who == "read" else self.clear)[size].read_bytes() for who in NAMES}
        count = COUNTS[size][self.quick]
        found = {who: [] for who in NAMES}
        alone = {task: [] for task in TASKS}
        for turn in range(self.rounds):
            names = list(NAMES)[turn % len(NAMES):] + list(NAMES)[:turn % len(NAMES)]
            for who in names:
                filter_ = self.filters.get(who)
                before = self.used_by(who)
                host_before = processor_seconds_of(self.host)
                if filter_:
                    with Sampler(filter_) as sampler:
                        seconds, waits = pour(self.ports[who], data[who], count)
                else:
                    seconds, waits = pour(self.ports[who], data[who], count)
                used = self.used_by(who) - before
                found[who].append({
                    "rate": count / seconds, "wait": 1000 * statistics.median(waits),
                    "used": 1000 * used / count,
                    "host": 1000 * (processor_seconds_of(self.host) - host_before) / count,
                    "memory": sampler.most / 1024 if filter_ else 0})
                mail.until(lambda: not self.host.queue(), 30)
            for task in TASKS:
                rate, used = self.alone(task, size, 0.5 if self.quick else 2)
                alone[task].append({"rate": rate, "used": used})
        return ({who: self.medians(rounds) for who, rounds in found.items()},
                {task: self.medians(rounds) for task, rounds in alone.items()})

    def used_by(self, who):
        """Processor seconds of a filter up to now."""
        if who in self.filters:
            return self.filters[who].processor_seconds()
        if who not in self.idle:
            return 0
        fields = Path(f"/proc/{self.idle[who].pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    @staticmethod
    def medians(rounds):
        return {key: statistics.median(entry[key] for entry in rounds) for key in rounds[0]}


def report(results, rounds, quick):
    load = os.getloadavg()[0]
    text = f"""# The mail filter on a Postfix

Made by `scripts/bench --gateway`: medians of {rounds} rounds in one run on {os.cpu_count()} cores, {CONNECTIONS} connections at once, RSA-2048,
SHA-256, AES-256-CBC; the load of the machine at the end was {load:.1f}. Postfix {postfix.default_setting('mail_version')} takes messages and discards them;
client, Postfix and filter share the cores. Filters are asked over a Unix socket where nothing else is said. "beside nothing" is the
rate divided by that of the filter that does nothing. Processor time of other processes is told in steps of
{1000 / os.sysconf('SC_CLK_TCK'):.0f} ms, which are shared by the {COUNTS['4 KB'][quick]} messages of 4 KB and {COUNTS['1 MB'][quick]} of 1 MB in a round.
"""
    for size, (found, alone) in results.items():
        text += f"""
## Messages of {size}

| | messages a second | beside nothing | ms for a message (median) | ms of the processor: Postfix | the filter |
|---|---|---|---|---|---|
"""
        for who, entry in found.items():
            text += (f"| {NAMES[who]} | {entry['rate']:.1f} | {entry['rate'] / found['idle']['rate']:.2f} | {entry['wait']:.1f} | "
                     f"{entry['host']:.2f} | {entry['used']:.2f} |\n")
        text += f"""
The library alone, in a loop on all cores, and where the filter's time goes (milliseconds of the processor for a message): the
protocol is what the filter that does nothing takes, the rest is what is left.

| | messages a second, library alone | filter | of which library | protocol | rest | memory under load, MB |
|---|---|---|---|---|---|---|
"""
        for task, entry in alone.items():
            used = found[task]["used"]
            rest = used - entry["used"] - found["idle"]["used"]
            text += (f"| {NAMES[task]} | {entry['rate']:.1f} | {used:.2f} | {entry['used']:.2f} | {found['idle']['used']:.2f} | "
                     f"{rest:.2f} | {found[task]['memory']:.0f} |\n")
    return text


def main():
    programs, result = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
    quick = "--quick" in sys.argv
    problem = postfix.missing()
    if problem:
        raise SystemExit(f"gateway.py: {problem}")
    folder = Path(tempfile.mkdtemp(prefix="mail-bench-"))
    folder.chmod(0o755)
    bench = Bench(programs, folder, quick)
    try:
        bench.start()
        results = {size: bench.measure(size) for size in SIZES}
    finally:
        bench.stop()
    result.parent.mkdir(parents=True, exist_ok=True)
    result.write_text(report(results, bench.rounds, quick))


if __name__ == "__main__":
    main()
