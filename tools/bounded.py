#!/usr/bin/env python3
# tools/bounded.py: runs a command for so many seconds at most, and leaves no process of it behind
# SPDX-License-Identifier: GPL-2.0-only
"""bounded.py SECONDS WHAT COMMAND...

Runs COMMAND with no standard input and exits with its status. Where it takes longer than SECONDS,
or than the time of day in TRAK_DEADLINE (seconds since 1970), the table of its processes is printed
(what each runs, in which state, where in the kernel it waits), they are ended, and the status is
124.

This process is the "subreaper" of all that COMMAND starts: a daemon that it leaves behind becomes
our child, so that it is found and ended by its own number, and nobody else's process is touched.
"""
import ctypes
import os
import signal
import subprocess
import sys
import time

PR_SET_CHILD_SUBREAPER = 36


def parents():
    """pid -> parent of every process there is."""
    table = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open(f"/proc/{name}/stat", encoding="utf-8", errors="replace") as file:
                    table[int(name)] = int(file.read().rpartition(")")[2].split()[1])
            except (OSError, IndexError, ValueError):
                pass  # it has ended meanwhile
    return table


def descendants():
    """Every process below this one."""
    table = parents()
    found, level = [], [os.getpid()]
    while level:
        level = [pid for pid, parent in table.items() if parent in level]
        found += level
    return found


def field(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read().replace("\0", " ").strip()
    except OSError:
        return ""


def print_processes():
    for pid in descendants():
        print(f"  {pid}: {field(f'/proc/{pid}/cmdline')[:200] or field(f'/proc/{pid}/comm')}")
        tasks = f"/proc/{pid}/task"
        for tid in os.listdir(tasks) if os.path.isdir(tasks) else []:
            state = field(f"{tasks}/{tid}/stat").rpartition(")")[2].split()[:1]
            where = field(f"{tasks}/{tid}/wchan")
            print(f"      {tid} {field(f'{tasks}/{tid}/comm')}: {''.join(state)} {where}")
            for line in field(f"{tasks}/{tid}/stack").splitlines()[:6]:
                print(f"          {line}")
    sys.stdout.flush()


def reap():
    """Takes the status of children that have ended; the command's own is taken by its Popen."""
    while True:
        try:
            if os.waitpid(-1, os.WNOHANG)[0] == 0:
                return
        except ChildProcessError:
            return


def wait_for(child, seconds):
    """The child's status; meanwhile every orphan that ends is reaped, so that whoever waits for a
    process of its own making to be gone sees it go."""
    until = time.monotonic() + seconds
    while True:
        pid, status = os.waitpid(-1, os.WNOHANG)
        if pid == child.pid:
            child.returncode = os.waitstatus_to_exitcode(status)
            return child.returncode
        if pid == 0:
            if time.monotonic() > until:
                raise subprocess.TimeoutExpired(child.args, seconds)
            time.sleep(0.05)


def end_all(grace_seconds):
    """Asks everything below to end, then makes it."""
    for signum, seconds in ((signal.SIGTERM, grace_seconds), (signal.SIGKILL, 10)):
        until = time.monotonic() + seconds
        asked = set()
        while time.monotonic() < until:
            reap()
            left = descendants()
            if not left:
                return
            for pid in left:
                if pid not in asked:
                    asked.add(pid)
                    try:
                        os.kill(pid, signum)
                    except ProcessLookupError:
                        pass
            time.sleep(0.1)
    left = descendants()
    if left:
        print(f"bounded: can't be ended: {left}", file=sys.stderr)


def main():
    if len(sys.argv) < 4:
        print(__doc__, file=sys.stderr)
        return 2
    limit, what, command = float(sys.argv[1]), sys.argv[2], sys.argv[3:]
    deadline = float(os.environ.get("TRAK_DEADLINE", "inf"))
    limit = min(limit, max(deadline - time.time(), 1))
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)

    def stop(signum, _frame):
        raise SystemExit(128 + signum)

    for signum in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(signum, stop)
    try:
        child = subprocess.Popen(command, stdin=subprocess.DEVNULL)
    except OSError as error:
        print(f"bounded: {command[0]}: {error.strerror}", file=sys.stderr)
        return 127
    try:
        status = wait_for(child, limit)
        return status if status >= 0 else 128 - status
    except subprocess.TimeoutExpired:
        print(f"\n*** {what} has not ended within {limit:.0f} seconds; its processes:")
        print_processes()
        return 124
    finally:
        end_all(20)


if __name__ == "__main__":
    sys.exit(main())
