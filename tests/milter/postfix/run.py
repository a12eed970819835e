#!/usr/bin/env python3
"""The tests of the mail filter between two Postfix hosts, all in one process:

    NORV_MILTER=build/asan/bin/norvcrypt-milter python3 tests/milter/postfix/run.py [policy_test | policy_test.Cells ...]

NORV_MILTER_LONG=1 makes the load larger: 5,000 messages. Exit code 77, which ctest shows as skipped, where no Postfix can be started."""

import os
import signal
import sys
import unittest

from checks import Case, finish
from rig import postfix

SKIPPED = 77
SUITES = ("policy_test", "incoming_test", "bodies_test", "faults_test", "load_test")


def main():
    if not os.environ.get("NORV_MILTER"):
        raise SystemExit("NORV_MILTER says which program to test")
    problem = postfix.missing()
    if problem:
        print(f"SKIPPED: {problem}")
        raise SystemExit(SKIPPED)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what runs is stopped then, too
    sys.stdout.reconfigure(line_buffering=True)
    try:
        tests = unittest.defaultTestLoader.loadTestsFromNames(sys.argv[1:] or SUITES)
        is_good = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(tests).wasSuccessful()
    finally:
        if Case.shared:
            finish(Case.shared)
    raise SystemExit(0 if is_good else 1)


if __name__ == "__main__":
    main()
