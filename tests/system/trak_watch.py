# tests/system/trak_watch.py: a second process that ends a test which hangs
# SPDX-License-Identifier: GPL-2.0-only
"""A test that waits inside the kernel for a trakd that does not answer can't help itself: no signal
and no exception reaches it. So each test has a watcher, a process that touches nothing of trakd's.
Told a name, it gives that test LIMIT seconds (or the number behind a "|" in the name); then it
prints where every thread of trakd and of the test waits, and the end of the log, and aborts the
FUSE connections, which ends the waiting with an error in the test. When the test's process is gone,
however it went, the watcher takes down what it left.
"""
import os
import select
import subprocess
import sys
import time

import trak_sweep

LIMIT = 110


def read(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read().strip()
    except OSError as error:
        return f"({error.strerror})"


def print_threads(pid):
    print(f"process {pid}: {read(f'/proc/{pid}/cmdline')}".replace("\0", " "))
    try:
        tasks = sorted(os.listdir(f"/proc/{pid}/task"), key=int)
    except OSError:
        return
    for tid in tasks:
        base = f"/proc/{pid}/task/{tid}"
        state = read(f"{base}/stat").rpartition(")")[2].split()[:1]
        print(f"  {tid} {read(f'{base}/comm')} {''.join(state)} {read(f'{base}/wchan')}")
        for line in read(f"{base}/stack").splitlines()[:12]:
            print(f"      {line}")


def print_stacks(pid):
    """User-space stacks, where a debugger is there; it may not hang either."""
    try:
        done = subprocess.run(["gdb", "-p", str(pid), "-batch", "-ex", "thread apply all bt 12"],
                              capture_output=True, text=True, timeout=20, check=False)
    except (OSError, subprocess.TimeoutExpired):
        return
    print("\n".join(line for line in done.stdout.splitlines()
                    if line.startswith(("Thread", "#")))[:20000])


def explain(directory, pid, what, limit):
    print(f"\n{what}: took longer than {limit} s; where everybody waits:", flush=True)
    print_threads(pid)
    for daemon in trak_sweep.daemons(directory):
        print_threads(daemon)
        print_stacks(daemon)
    for name in sorted(os.listdir(directory)):
        if name.startswith("trakd") and name.endswith(".log"):
            print(f"--- the end of {name}")
            print("\n".join(read(f"{directory}/{name}").splitlines()[-60:]))
    sys.stdout.flush()


def watch(directory, pid):
    name, deadline, limit = "", None, LIMIT
    while True:
        left = None if deadline is None else max(0.0, deadline - time.monotonic())
        ready, _, _ = select.select([0], [], [], left)
        if ready:
            told = os.read(0, 4096)
            if not told:
                break
            name, _, seconds = told.decode().splitlines()[-1].partition("|")
            limit = int(seconds or LIMIT)
            deadline = time.monotonic() + limit
        else:
            explain(directory, pid, name, limit)
            trak_sweep.abort(directory)
            # The test gets as long again to fail by itself; then its world goes away.
            deadline = time.monotonic() + LIMIT
            if name.startswith("again: "):
                break
            name = f"again: {name}"
    for left in trak_sweep.sweep(directory):
        print(f"can't take down: {left}", flush=True)


if __name__ == "__main__":
    watch(sys.argv[1], int(sys.argv[2]))
