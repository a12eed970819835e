"""A Postfix instance of its own on loopback: own configuration, queue and data folders, own ports, own log file."""

import os
import pwd
import random
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

MAILBOX_USER = "nobody"


def missing():
    """Why no Postfix can be started here, or None."""
    if os.geteuid() != 0:
        return "Postfix's master process must be started by root"
    if not program("postconf"):
        return "Postfix is not installed"
    try:
        pwd.getpwnam("postfix")
    except KeyError:
        return "there is no user named postfix"
    return None


def program(name):
    return shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin:/usr/local/sbin")


def default_setting(name):
    return subprocess.run([program("postconf"), "-d", "-h", name], check=True, capture_output=True, text=True).stdout.strip()


def free_ports(count):
    """Ports that nobody has at this moment, all different. None of those that the system gives to connections and to whoever asks
    for any: other tests that run meanwhile would have it before Postfix has."""
    first = int(Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
    ports = []
    for port in random.sample(range(min(10000, first // 2), first), first - min(10000, first // 2)):
        with socket.socket() as holder:
            try:
                holder.bind(("127.0.0.1", port))
            except OSError:
                continue
        ports.append(port)
        if len(ports) == count:
            return ports
    raise OSError("there are no free ports")


def wait_for_port(port, seconds=20, alive=lambda: True):
    """Whether somebody listens there before the time is over or `alive` says no."""
    until = time.monotonic() + seconds
    while time.monotonic() < until and alive():
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return True
        except OSError:
            time.sleep(0.02)
    return False


class Listener:
    """A port on which Postfix takes mail; `settings` go behind -o in master.cf."""

    def __init__(self, port, **settings):
        self.port = port
        self.settings = settings

    def lines(self):
        yield f"127.0.0.1:{self.port} inet n - n - - smtpd"
        for name, value in self.settings.items():
            yield f"  -o {{ {name} = {value} }}"


class Postfix:
    """`domain` is delivered into a Maildir in `mailboxes`; everything else goes to `relay`, a port."""

    SERVICES = """
cleanup    unix       n - n - 0 cleanup
qmgr       unix       n - n 1 1 qmgr
tlsmgr     unix       - - n 1000? 1 tlsmgr
rewrite    unix       - - n - - trivial-rewrite
bounce     unix       - - n - 0 bounce
defer      unix       - - n - 0 bounce
trace      unix       - - n - 0 bounce
verify     unix       - - n - 1 verify
flush      unix       n - n 1000? 0 flush
proxymap   unix       - - n - - proxymap
proxywrite unix       - - n - 1 proxymap
smtp       unix       - - n - - smtp
relay      unix       - - n - - smtp
showq      unix       n - n - - showq
error      unix       - - n - - error
retry      unix       - - n - - error
discard    unix       - - n - - discard
virtual    unix       - n n - - virtual
anvil      unix       - - n - 1 anvil
scache     unix       - - n - 1 scache
postlog    unix-dgram n - n - 1 postlogd
"""

    def __init__(self, folder, domain, listeners, relay=None, **settings):
        self.folder = Path(folder)
        self.domain = domain
        self.listeners = listeners
        self.mailboxes = self.folder / "mailboxes"
        self.log = self.folder / "mail.log"
        self.master = None
        self.guard = None
        owner = pwd.getpwnam(MAILBOX_USER)
        self.settings = {
            "compatibility_level": "3.6",
            "queue_directory": self.folder / "queue",
            "data_directory": self.folder / "data",
            "maillog_file": self.log,
            "maillog_file_prefixes": self.folder,
            "syslog_name": f"postfix-{domain}",
            "myhostname": f"mx.{domain}",
            "mydestination": "",
            "local_recipient_maps": "",
            "alias_maps": "",
            "alias_database": "",
            "inet_interfaces": "127.0.0.1",
            "inet_protocols": "ipv4",
            "mynetworks": "127.0.0.0/8",
            "smtpd_relay_restrictions": "permit_mynetworks, reject",
            "smtpd_peername_lookup": "no",
            "smtp_tls_security_level": "none",
            "smtpd_tls_security_level": "none",
            "virtual_transport": "virtual",
            "virtual_mailbox_domains": domain,
            "virtual_mailbox_base": self.mailboxes,
            # One Maildir for every address of the domain; each mail says in Delivered-To whose it is.
            "virtual_mailbox_maps": "static:all/",
            "virtual_uid_maps": f"static:{owner.pw_uid}",
            "virtual_gid_maps": f"static:{owner.pw_gid}",
            "virtual_minimum_uid": "1",
            "virtual_mailbox_limit": "0",
            "mailbox_size_limit": "0",
            "message_size_limit": str(200 << 20),
            "relayhost": f"[127.0.0.1]:{relay}" if relay else "",
            "default_transport": "smtp" if relay else "error:no way to other domains",
            # Or it would make blanks of CRs that stand alone, on its own.
            "cleanup_replace_stray_cr_lf": "no",
            "in_flow_delay": "0",
            "queue_run_delay": "2s",
            "minimal_backoff_time": "2s",
            "maximal_backoff_time": "4s",
            "default_destination_concurrency_failed_cohort_limit": "0",
            "smtpd_error_sleep_time": "0",
            "smtpd_hard_error_limit": "1000",
            "smtpd_recipient_limit": "5000",
            "smtpd_client_connection_count_limit": "0",
        }
        self.settings.update(settings)

    def write_settings(self):
        main = "".join(f"{name} = {value}\n" for name, value in self.settings.items())
        (self.config / "main.cf").write_text(main)

    @property
    def config(self):
        return self.folder / "config"

    def start(self):
        for folder in (self.folder, self.config, self.folder / "queue", self.folder / "data", self.mailboxes):
            folder.mkdir(parents=True, exist_ok=True)
            folder.chmod(0o755)
        postfix = pwd.getpwnam("postfix")
        os.chown(self.folder / "data", postfix.pw_uid, postfix.pw_gid)
        owner = pwd.getpwnam(MAILBOX_USER)
        os.chown(self.mailboxes, owner.pw_uid, owner.pw_gid)
        master = "\n".join(line for listener in self.listeners for line in listener.lines())
        (self.config / "master.cf").write_text(master + self.SERVICES)
        self.write_settings()
        # Makes the folders of the queue, and tells what is wrong with the configuration.
        self.command("postfix", "check")
        # The master itself, in a session of its own: it ends when it is told to, with all that it started.
        self.master = subprocess.Popen([f"{default_setting('daemon_directory')}/master", "-c", self.config, "-d"],
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                       start_new_session=True)
        if self.guard:
            self.guard.session(self.master)
        for listener in self.listeners:
            if not wait_for_port(listener.port, alive=lambda: self.master.poll() is None):
                raise RuntimeError(f"Postfix for {self.domain} did not start:\n{self.log_text()}")
        return self

    def command(self, name, *arguments):
        done = subprocess.run([program(name), "-c", self.config, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True)
        if done.returncode:
            raise RuntimeError(f"{name} {' '.join(arguments)}: {done.stdout}{done.stderr}{self.log_text()}")
        return done.stdout

    def change(self, **settings):
        """Changes main.cf. Processes that run already have read the old one: the master is told, and ends those that idle."""
        self.settings.update(settings)
        self.write_settings()
        self.master.send_signal(signal.SIGHUP)
        time.sleep(0.3)

    def log_text(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def queue(self):
        """Identifiers of the messages that wait."""
        identifiers = set()
        for name in ("incoming", "active", "deferred", "hold", "maildrop"):
            for _, _, files in os.walk(self.folder / "queue" / name):
                identifiers.update(files)
        return identifiers

    def flush(self):
        self.command("postqueue", "-f")

    def stop(self):
        if self.master is None:
            return
        try:
            self.master.terminate()
            self.master.wait(timeout=10)
        except subprocess.TimeoutExpired:
            pass
        # Whatever is left of the session that was started above, and of nothing else.
        try:
            os.killpg(self.master.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.master.wait()
        if self.guard:
            self.guard.session_ended(self.master)
        self.master = None
