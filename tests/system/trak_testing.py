# tests/system/trak_testing.py: what every test in Python shares: how one skips, how one fails
# SPDX-License-Identifier: GPL-2.0-only
"""A test that can't run on this machine calls skip(reason): exit code 77, which ctest reports as
skipped, with the reason in its output. With CI=true in the environment it fails instead, so that
nothing is left out there in silence.

Tests of trakd are unittest cases derived from SystemTest; their file ends with main(). Each test
gets a Machine of its own (trak_machine.py), watched from a second process (trak_watch.py).
"""
import os
import subprocess
import sys
import time
import unittest

SKIPPED = 77
WAIT = 60  # seconds for something that is bound to happen, on a machine ten times slower than yours


class Failed(Exception):
    """What the test says does not hold."""


class CannotRun(unittest.SkipTest):
    """Something that the test needs is not on this machine."""


def in_ci():
    return os.environ.get("CI") == "true"


def skip(reason):
    raise CannotRun(reason)


def check(holds, text):
    if not holds:
        raise Failed(text)


def eventually(holds, what, seconds=WAIT):
    """Waits until holds() is true, and returns what it returned."""
    deadline = time.monotonic() + seconds
    while True:
        value = holds()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failed(f"not within {seconds} s: {what}")
        time.sleep(0.02)


def run(*command, timeout=WAIT, expect=0, text=None, **options):
    """Runs a command with a limit; its output is returned. expect: exit status, None for any.

    One that does not end when it is killed (it waits in the kernel) is left behind: the watcher
    tells where it waits, and its waiting ends with the FUSE connection."""
    with_input = subprocess.PIPE if text is not None else subprocess.DEVNULL
    process = subprocess.Popen(command, stdin=with_input, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True, **options)
    try:
        out, err = process.communicate(text, timeout=timeout)
    except subprocess.TimeoutExpired:
        process.kill()
        raise Failed(f"took longer than {timeout} s: {' '.join(command)}") from None
    if expect is not None and process.returncode != expect:
        raise Failed(f"status {process.returncode} of: {' '.join(command)}\n{out[-2000:]}"
                     f"{err[-2000:]}")
    return Output(process.returncode, out, err)


class Output:
    """What a command left."""

    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err


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


def main():
    """Runs the tests of the calling file: 0, 1, or 77 when one was skipped and none failed."""
    sys.stdout.reconfigure(line_buffering=True)
    runner = unittest.TextTestRunner(stream=sys.stdout, verbosity=2)
    result = unittest.main(module="__main__", testRunner=runner, exit=False).result
    if not result.wasSuccessful() or result.testsRun == 0:
        sys.exit(1)
    for test, reason in result.skipped:
        print(f"{'FAILED: CI=true, and ' if in_ci() else 'SKIPPED: '}{test.id()}: {reason}")
    sys.exit(0 if not result.skipped else 1 if in_ci() else SKIPPED)
