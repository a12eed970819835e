"""Two Postfix hosts on loopback with filters beside them: what the tests, the demonstration and the benchmark stand on.

postfix.py   a Postfix instance of its own: folders, ports and log, nothing of the system's
tap.py       an SMTP proxy between the hosts that keeps what passes, and changes it when asked
people.py    a certificate authority and identities, by the openssl program
gateway.py   the filter as a process, and what its configuration says
mail.py      sending, waiting for what arrives, and the openssl program as a reader and writer of mails
guard.py     a process that cleans up when a rig was killed
world.py     all of these together
"""
