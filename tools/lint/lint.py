#!/usr/bin/env python3
# tools/lint/lint.py: every check of the sources; ./run lint
# SPDX-License-Identifier: GPL-2.0-only
"""Prints 'path:line: check: what is wrong' for each fault; exit status 1 where there is one.

A fault that is meant to stay is listed in tools/lint/exceptions.txt with its reason. An exception
that no fault needs any more is a fault itself.
"""
import argparse
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

import build_checks  # noqa: E402
import layers  # noqa: E402
import module_checks  # noqa: E402
import text_checks  # noqa: E402
import tool_checks  # noqa: E402
from sources import Fault, Tree  # noqa: E402

EXCEPTIONS = "tools/lint/exceptions.txt"

FAST = (
    text_checks.check_heads,
    text_checks.check_lengths,
    text_checks.check_words,
    text_checks.check_test_lists,
    layers.check_layers,
    tool_checks.check_format,
    tool_checks.check_shell,
    tool_checks.check_man_pages,
    tool_checks.check_python,
)
COMPILING = (
    build_checks.check_kernel_flags,
    module_checks.check_module,
    build_checks.check_tidy,
)


def read_exceptions(tree):
    """{(check, path): (line, reason)} from lines 'check path: reason'."""
    found = {}
    for number, line in enumerate(tree.lines(EXCEPTIONS) if EXCEPTIONS in tree.paths else [], 1):
        if line.strip() and not line.startswith("#"):
            key, _, reason = line.partition(": ")
            check, _, path = key.partition(" ")
            found[check, path.strip()] = (number, reason.strip())
    return found


def without_exceptions(tree, faults, checks_run):
    """The faults that no exception covers, and the exceptions that cover none or have no reason."""
    exceptions = read_exceptions(tree)
    used = set()
    for fault in faults:
        key = (fault.check, fault.path)
        if key in exceptions:
            used.add(key)
        else:
            yield fault
    for key, (number, reason) in exceptions.items():
        if len(reason) < 15:
            yield Fault(EXCEPTIONS, number, "exceptions", "say why")
        elif key not in used and key[0] in checks_run:
            yield Fault(EXCEPTIONS, number, "exceptions", f"no longer needed: {' '.join(key)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--fast", action="store_true", help="only what compiles nothing")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--root", default=Path(__file__).resolve().parents[2])
    args = parser.parse_args()
    tree = Tree(args.root)
    tree.jobs = args.jobs
    faults, names = [], set()
    for check in FAST if args.fast else FAST + COMPILING:
        start = time.monotonic()
        faults += check(tree)
        names.add(check.__name__)
        print(f"lint: {check.__name__[6:]:<14} {time.monotonic() - start:5.1f} s", flush=True)
    text_names = {"head", "columns", "file-length", "function-length", "words", "layers",
                  "test-lists"}
    left = sorted(set(without_exceptions(tree, faults, text_names)))
    for fault in left:
        print(fault)
    print(f"lint: {len(tree.paths)} files, {len(left)} faults")
    return 1 if left else 0


if __name__ == "__main__":
    sys.exit(main())
