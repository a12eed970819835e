"""Programs as processes, and what they cost, for the benchmarks beside this file."""
import os
import sys

_nowhere = os.open(os.devnull, os.O_RDWR)


def processor_seconds(command):
    """Runs a program that must end well: its own processor time and the kernel's for it, from its start to its end."""
    streams = [(os.POSIX_SPAWN_DUP2, _nowhere, descriptor) for descriptor in (0, 1, 2)]
    child = os.posix_spawnp(command[0], command, os.environ, file_actions=streams)
    _, status, used = os.wait4(child, 0)
    if status != 0:
        sys.exit(f"failed: {' '.join(command)[:300]}")
    return used.ru_utime + used.ru_stime


def openssl_cms(*arguments):
    return ["openssl", "cms", "-binary", *arguments]
