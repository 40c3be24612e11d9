#!/usr/bin/env python3
# tests/system/demo_churn.py: a program that never stops changing files, and can say how they were
# SPDX-License-Identifier: GPL-2.0-only
"""demo_churn.py run DIR JOURNAL PACE   |   demo_churn.py check DIR JOURNAL FROM TO

run     writes, overwrites, renames and deletes files in DIR until its standard input closes, one
        system call a step, and appends each step to JOURNAL (outside DIR), before it is done and
        after, with the time. Ends with the longest time that any step took.
check   DIR is a frozen image of run's directory, taken between the times FROM and TO (clock of the
        machine's start): true when it is exactly the state after one of the steps that can have
        been the last before the freeze. Everything is compared: names, sizes and contents.

A file's whole content is one write() of up to 32 KiB, made from the step's number, so the state
after any step is known without looking at the disk.
"""
import functools
import json
import os
import random
import sys
import time
import zlib

FILES = 200


def content(step):
    """What step number `step` writes."""
    return random.Random(step).randbytes(1024 * (1 + step % 32))


def plan(step, names):
    """The operation of a step, given the names that are there now. Nothing but the step decides."""
    dice = random.Random(f"plan {step}")
    name = f"file{dice.randrange(FILES)}"
    if name not in names:
        return ("create", name)
    return dice.choice((("write", name), ("write", name), ("remove", name),
                        ("rename", name, f"file{dice.randrange(FILES)}")))


def apply(step, op, state):
    """The same in memory: {name: number of the step that wrote it, None for an empty file}."""
    if op[0] == "create":
        state[op[1]] = None
    elif op[0] == "write":
        state[op[1]] = step
    elif op[0] == "remove":
        del state[op[1]]
    elif op[1] != op[2]:
        state[op[2]] = state.pop(op[1])


def perform(step, op, directory):
    path = f"{directory}/{op[1]}"
    if op[0] == "create":
        os.close(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600))
    elif op[0] == "remove":
        os.unlink(path)
    elif op[0] == "rename":
        os.rename(path, f"{directory}/{op[2]}")


def overwrite(step, name, directory):
    """Two steps would be seen between a truncation and a write: the new content goes into a file of
    its own outside the plan's names, and takes the old one's place at once."""
    spare = f"{directory}/spare"
    fd = os.open(spare, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    try:
        data = content(step)
        if os.write(fd, data) != len(data):
            raise OSError("short write")
    finally:
        os.close(fd)
    os.rename(spare, f"{directory}/{name}")


def run(directory, journal_name, pace):
    state, step, longest = {}, 0, 0.0
    os.set_blocking(0, False)
    with open(journal_name, "w", encoding="ascii", buffering=1) as journal:
        while True:
            try:
                if os.read(0, 1) == b"":
                    break
            except BlockingIOError:
                pass
            op = plan(step, state)
            before = time.monotonic()
            if op[0] == "write":
                overwrite(step, op[1], directory)
            else:
                perform(step, op, directory)
            after = time.monotonic()
            apply(step, op, state)
            longest = max(longest, after - before)
            journal.write(json.dumps([step, before, after]) + "\n")
            step += 1
            if pace:
                time.sleep(pace)
    print(f"{step} steps, the longest took {longest * 1000:.0f} ms")


def observed(directory):
    found = {}
    for name in os.listdir(directory):
        if name == "spare":
            continue
        with open(f"{directory}/{name}", "rb") as file:
            data = file.read()
        found[name] = (len(data), zlib.crc32(data))
    return found


@functools.lru_cache(maxsize=None)
def expected(writer):
    if writer is None:
        return (0, 0)
    data = content(writer)
    return (len(data), zlib.crc32(data))


def check(directory, journal_name, begin, end):
    seen = observed(directory)
    with open(journal_name, encoding="ascii") as journal:
        steps = [json.loads(line) for line in journal if line.endswith("\n")]
    state, last = {}, 0
    for step, before, after in steps:
        if after >= begin and {n: expected(w) for n, w in state.items()} == seen:
            held = max((a - b for _, b, a in steps if a >= begin and b <= end), default=0.0)
            print(f"{len(seen)} files, as they were after step {step} of {len(steps)}; "
                  f"writers stood still for {held * 1000:.0f} ms at most")
            return 0
        if before > end:
            break
        apply(step, plan(step, state), state)
        last = step
    print(f"no step up to {last} leaves the {len(seen)} files as they are there")
    return 1


if __name__ == "__main__":
    if sys.argv[1] == "run":
        run(sys.argv[2], sys.argv[3], float(sys.argv[4]))
    else:
        sys.exit(check(sys.argv[2], sys.argv[3], float(sys.argv[4]), float(sys.argv[5])))
