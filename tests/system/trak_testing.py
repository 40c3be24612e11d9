# tests/system/trak_testing.py: what every test in Python shares: how one skips, how one fails
# SPDX-License-Identifier: GPL-2.0-only
"""A test that can't run on this machine calls skip(reason): exit code 77, which ctest reports as
skipped, with the reason in its output. With CI=true in the environment it fails instead, so that
nothing is left out there in silence.
"""
import os
import sys

SKIPPED = 77


class Failed(Exception):
    """What the test says does not hold."""


class CannotRun(Exception):
    """Something that the test needs is not on this machine."""


def in_ci():
    return os.environ.get("CI") == "true"


def skip(reason):
    raise CannotRun(reason)


def check(holds, text):
    if not holds:
        raise Failed(text)


def run_test(test):
    """Calls test() and ends the process: 0, 1 with what failed, or 77 with why it can't run."""
    try:
        test()
    except CannotRun as reason:
        if in_ci():
            print(f"FAILED: can't run here, and CI=true: {reason}", flush=True)
            sys.exit(1)
        print(f"SKIPPED: {reason}", flush=True)
        sys.exit(SKIPPED)
    except Failed as what:
        print(f"FAILED: {what}", flush=True)
        sys.exit(1)
    print("passed", flush=True)
    sys.exit(0)
