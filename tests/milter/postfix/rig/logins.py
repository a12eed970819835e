"""Users with passwords for SMTP AUTH, in a database of Cyrus SASL of the rig's own."""

import os
import pwd
import subprocess
from pathlib import Path

from .postfix import program

REALM = "a.example"


def missing():
    """Why nobody can log in here, or None."""
    if not program("saslpasswd2"):
        return "saslpasswd2 is not installed"
    if not list(Path("/usr/lib").glob("*/sasl2/libplain.so")):
        return "Cyrus SASL has no mechanism PLAIN (libsasl2-modules)"
    return None


def settings(config, user, password):
    """Makes a database with one user. The settings of a host whose listeners are told smtpd_sasl_auth_enable=yes; `config` is
    the folder of its configuration, below which Debian's Postfix looks."""
    folder = config / "sasl"
    folder.mkdir(parents=True)
    folder.chmod(0o755)
    database = folder / "users"
    (folder / "smtpd.conf").write_text("pwcheck_method: auxprop\nauxprop_plugin: sasldb\nmech_list: PLAIN LOGIN\n"
                                       f"sasldb_path: {database}\n")
    subprocess.run([program("saslpasswd2"), "-c", "-p", "-f", database, "-u", REALM, user], check=True, input=password,
                   text=True, stdout=subprocess.DEVNULL)
    os.chown(database, -1, pwd.getpwnam("postfix").pw_gid)
    return {"smtpd_sasl_type": "cyrus", "smtpd_sasl_path": "smtpd", "smtpd_sasl_local_domain": REALM,
            "smtpd_sasl_security_options": "noanonymous"}
