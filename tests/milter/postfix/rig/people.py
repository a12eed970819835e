"""A small certificate authority and folders of identities, made by the openssl program."""

import os
import pwd
import shutil
import subprocess
from pathlib import Path

OPENSSL_SETTINGS = """
[req]
distinguished_name = name
[name]
[root]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[person]
basicConstraints = CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = emailProtection
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = {names}
"""


def openssl(*arguments, given=None):
    done = subprocess.run(["openssl", *map(str, arguments)], input=given, capture_output=True,
                          stdin=None if given is not None else subprocess.DEVNULL)
    if done.returncode:
        raise RuntimeError(f"openssl {' '.join(map(str, arguments))}: {done.stderr.decode(errors='replace')}")
    return done.stdout


class Authority:
    def __init__(self, folder, name):
        self.folder = Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.name = name
        self.certificate = self.folder / "root.pem"
        self.key = self.folder / "root.key"
        self.serial = 0x1000
        openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", self.key, "-out", self.certificate, "-days", 3650,
                "-subj", f"/O=Rig/CN={name}", "-config", self.settings("root@example"), "-extensions", "root")
        self.database = self.folder / "index.txt"
        self.database.touch()

    def settings(self, *addresses):
        path = self.folder / "openssl.cnf"
        path.write_text(OPENSSL_SETTINGS.format(names=", ".join(f"email:{address}" for address in addresses)))
        return path

    def issue(self, address, others=(), days=365, begins=None, ends=None):
        """A person with a key and a certificate for an address and `others`; `begins` and `ends` (YYYYMMDDHHMMSSZ) for one
        whose time is over."""
        person = Person(self.folder / address, [address, *others], self)
        person.folder.mkdir(exist_ok=True)
        request = person.folder / "request.pem"
        openssl("req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", person.key, "-out", request, "-subj",
                f"/O=Rig/CN={address}", "-config", self.settings(address, *others))
        self.serial += 1
        settings = self.folder / "ca.cnf"
        settings.write_text(self.settings(address, *others).read_text() + f"""
[ca]
default_ca = this
[this]
database = {self.database}
new_certs_dir = {self.folder}
certificate = {self.certificate}
private_key = {self.key}
serial = {self.folder}/serial
default_md = sha256
default_days = {days}
default_crl_days = 30
policy = anything
unique_subject = no
[anything]
organizationName = optional
commonName = supplied
""")
        (self.folder / "serial").write_text(f"{self.serial:04X}\n")
        period = ["-startdate", begins, "-enddate", ends] if ends else []
        openssl("ca", "-batch", "-notext", "-config", settings, "-extensions", "person", "-in", request, "-out",
                person.certificate, *period)
        person.serial = self.serial
        return person

    def revoke(self, person):
        openssl("ca", "-config", self.folder / "ca.cnf", "-revoke", person.certificate)

    def revocation_list(self):
        path = self.folder / "root.crl"
        openssl("ca", "-config", self.folder / "ca.cnf", "-gencrl", "-out", path)
        return path


class Person:
    def __init__(self, folder, addresses, authority):
        self.folder = folder
        self.address = addresses[0]
        self.addresses = addresses
        self.authority = authority
        self.certificate = folder / "cert.pem"
        self.key = folder / "key.pem"


def keep(store, person, owner, with_key, name=None):
    """Puts somebody into a folder of identities as docs/keystore.md has it."""
    folder = Path(store) / (name or person.address)
    folder.mkdir(parents=True, exist_ok=True)
    shutil.copy(person.certificate, folder / "cert.pem")
    shutil.copy(person.authority.certificate, folder / "chain.pem")
    (folder / "owners.txt").write_text("".join(f"{address}\n" for address in person.addresses))
    if with_key:
        shutil.copy(person.key, folder / "key.pem")
        (folder / "key.pem").chmod(0o600)
    hand_over(store, owner)
    return folder


def hand_over(path, owner):
    """Gives a file, or a folder and what is in it, to a user of the system."""
    entry = pwd.getpwnam(owner)
    os.chown(path, entry.pw_uid, entry.pw_gid)
    for base, folders, files in os.walk(path):
        for name in [*folders, *files]:
            os.chown(os.path.join(base, name), entry.pw_uid, entry.pw_gid)
