# packaging/steps.py: trials of the packages, one step after the other
# SPDX-License-Identifier: GPL-2.0-only
"""A trial is a class whose public methods are its steps, in the order in which they stand there. Each
step is one line of output, and may rely on those before: the first that fails ends the run."""
import os
import subprocess
import time


class Failed(Exception):
    """What a step found wrong."""


def check(holds, text):
    if not holds:
        raise Failed(text)


def run(words, limit, expect=0, **options):
    """What a command wrote, both streams; ended after `limit` seconds with all of its children."""
    with subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, start_new_session=True,
                          **options) as process:
        try:
            out, _ = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, 9)
            out, _ = process.communicate()
            raise Failed(f"took longer than {limit} s: {' '.join(words)}\n{out[-3000:]}") from None
    if expect is not None and process.returncode != expect:
        raise Failed(f"status {process.returncode} of: {' '.join(words)}\n{out[-3000:]}")
    return out


def all_steps(trial, but=()):
    """Runs them: 0, or 1 after one that failed."""
    for name, step in vars(type(trial)).items():
        if name.startswith("_") or name in but:
            continue
        start = time.monotonic()
        try:
            step(trial)
        except Failed as what:
            print(f"not ok {name}: {what}", flush=True)
            return 1
        print(f"ok {name} ({time.monotonic() - start:.0f} s)", flush=True)
    return 0
