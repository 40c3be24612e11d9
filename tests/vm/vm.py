#!/usr/bin/env python3
# tests/vm/vm.py: runs suites in virtual machines and says how they went
# SPDX-License-Identifier: GPL-2.0-only
"""See CONTRIBUTING.md, "Tests in a virtual machine"."""
import argparse
import glob
import os
import random
import re
import resource
import shutil
import signal
import sys
import tempfile
import time

import vm_kernels
from vm_initramfs import Initramfs
from vm_machine import QEMU, Machine, Timeout, console_in, faults_in, least_stack, without_tasks
from vm_report import CannotRun, Report, in_ci, note, warn
from vm_suites import BIN, HERE, SUITES
from vm_tree import Tree


def arguments():
    parser = argparse.ArgumentParser(prog="./run vm", description=(
        "Boots Debian's kernels under QEMU, without KVM, and runs suites in them."))
    parser.add_argument("--kernel", choices=[*vm_kernels.SERIES, "all"], default="all")
    parser.add_argument("--kernel-tree", metavar="FOLDER", help=(
        "a built kernel tree, of any supported line, in place of Debian's kernels"))
    parser.add_argument("--suite", action="append", metavar="NAME", help=(
        f"one of {', '.join(SUITES)}; or all: the long set. Without it the short set, which "
        "./run test runs too"))
    parser.add_argument("--only", metavar="PATTERN", default="", help=(
        "of the guest's tests those whose names match, such as 'fs.xfs*'"))
    parser.add_argument("--long", action="store_true", help="the long form of the named suites")
    parser.add_argument("--keep", action="store_true", help="keep disks and logs, and say where")
    parser.add_argument("--shell", action="store_true", help=(
        "a shell in the guest, with the disks of --suite; Ctrl-A X ends it"))
    parser.add_argument("--update", action="store_true", help="look for newer kernels")
    parser.add_argument("--junit", metavar="FOLDER", help="where vm-KERNEL.xml is written")
    parser.add_argument("--budget", type=float, default=float("inf"), metavar="SECONDS",
                        help="the limit for everything together")
    options = parser.parse_args()
    names = options.suite or ["short"]
    for name in names:
        if name not in (*SUITES, "all", "short"):
            parser.error(f"there is no suite {name}")
    options.long = options.long or "all" in names
    if "all" in names:
        names = list(SUITES)
    options.suite = names
    return options


# Programs of the guest that are made here; the others are the host's.
OURS = ("trakctl", "trakd", "trak-backup", "caller32")


class Deadline:
    """What is left of the budget, and of TRAK_DEADLINE."""

    def __init__(self, budget):
        given = os.environ.get("TRAK_DEADLINE")
        left = float(given) - time.time() - 30 if given else float("inf")
        self.end = time.monotonic() + min(budget, left)

    def within(self, limit):
        return max(min(limit, self.end - time.monotonic()), 1)


def initramfs_of(suite, kernel):
    initramfs = Initramfs(kernel.release)
    initramfs.file("bin/busybox", "/bin/busybox", 0o100755)
    initramfs.link("bin/sh", "busybox")
    initramfs.file("init", f"{HERE}/guest/init.sh", 0o100755)
    initramfs.file("lib.sh", f"{HERE}/guest/lib.sh")
    for name in os.listdir(f"{HERE}/guest"):
        initramfs.file(f"suites/{name}", f"{HERE}/guest/{name}")
    initramfs.program(f"{BIN}/vm_tool")
    for name in suite.tools:
        initramfs.program(f"{BIN}/{name}" if name in OURS else name)
    own_fs = ["ext4"] if kernel.own_fs == "ext4" else ["ext2", kernel.own_fs]
    initramfs.kernel_modules(kernel, [module for name in suite.modules
                                      for module in (own_fs if name == "ext4" else [name])],
                             suite.optional(kernel))
    # What the file systems of the suites themselves are of.
    initramfs.put("etc/own_fs", f"{kernel.own_fs}\n".encode())
    suite.files(initramfs)
    if suite.needs_trak:
        suite.trak_module(kernel, initramfs)
    return initramfs


def boot(machine, suite, report, limit, cut_after):
    """One boot: the guest's lines go to the report; true when it ended as it should: in order, or,
    where cut_after is given, by a power cut so many seconds after the guest's line "cut"."""
    ended = begun = False
    machine.start()
    try:
        for line in machine.lines(limit):
            if line.strip() == "begin":
                begun = True
            elif line.strip() == "end":
                ended = cut_after is None
            elif line.strip() == "cut" and cut_after is not None:
                time.sleep(cut_after)
                ended = machine.process.poll() is None
                break
            elif not report.line(line) and not suite.hear(line, report):
                print(f"   {line}", flush=True)
    except Timeout as what:
        report.fail(f"{suite.name}.ends_in_time", str(what))
        print(tail(machine.console()))
        return False
    finally:
        machine.kill()
    if not begun and false_start(machine.console()):
        raise FalseStart
    if impossible_flags(machine.console()):
        raise EmulatorFault
    if not ended:
        report.fail(f"{suite.name}.guest_runs_to_its_end", "the guest ended before its suite did")
        print(tail(machine.console()))
    faults = faults_in(machine.console(), suite.allowed, suite.provoked())
    if faults:
        report.fail(f"{suite.name}.kernel_log_is_clean", "see below")
        print(faults)
        return False
    if cut_after is None:
        report.ok(f"{suite.name}.kernel_log_is_clean")
        judge_stacks(suite, report, machine.console())
    return ended


def judge_stacks(suite, report, console):
    """A quarter of the 8 KiB that tasks of kernels 2.6 have is left to what no test reaches."""
    least = least_stack(console) if measures_stacks(suite.kernel) else None
    if least is None:
        return
    note(f"least stack left: {least[0]} bytes ({least[1]})")
    if suite.needs_trak:
        report.add(f"{suite.name}.stacks_keep_2_KiB", "ok" if least[0] >= 2048 else "not ok",
                   "" if least[0] >= 2048 else f"{least[1]} left {least[0]} bytes")


def measures_stacks(kernel):
    return (kernel is not None and kernel.series.startswith("2.6.") and
            kernel.has("DEBUG_STACK_USAGE"))


class FalseStart(Exception):
    """The emulated processors failed before the guest's first process ran."""


def false_start(console):
    """The kernel rewrites its code while another processor runs it, by way of a breakpoint. Without
    hardware help QEMU may show a processor that breakpoint too late (seen on a busy host), and the kernel
    knows of none then. Nothing of ours is in memory at that time."""
    return re.search(r"Oops: int3|\bint3: 0000 ", console) is not None


class EmulatorFault(Exception):
    """The emulated processor did what none does."""


def impossible_flags(console):
    """Flags in a dump of registers with a bit that every processor holds at zero (3, 5, 15, from 22 on).
    Without hardware help QEMU may hand an interrupt the operand of an instruction for the flags (seen
    once in some hundred suites: the low half of RDI with bits 1 and 9); a trap flag among them then stops
    the kernel, and a program is ended."""
    return any(int(flags, 16) & 0xFFC08028 for flags in re.findall(r"EFLAGS: ([0-9a-f]{8})\b", console))


def tail(text):
    return "\n".join(without_tasks(text).splitlines()[-60:])


def machine_of(kernel, suite, disks, words):
    return Machine(kernel, f"{suite.folder}/initramfs", disks, suite.folder, words,
                   suite.memory_mib, checked=suite.checked, counted=suite.counted)


def boots(kernel, suite, disks, report, deadline, only):
    """The boots of a suite, the last of which ends in order."""
    dice = random.Random(f"{suite.name} {kernel.series}")
    for number in range(suite.cuts + 1):
        last = number == suite.cuts
        limit = deadline.within(suite.limit)
        words = f"suite={suite.name} round={number} last={int(last)} watch={int(limit * 0.9)}"
        if measures_stacks(kernel):
            words += " stacks=1"
        if only:
            words += f" only={only}"
        cut_after = None if last else dice.uniform(*suite.cut_within)
        if not boot_again(lambda w=words, l=limit, c=cut_after: boot(
                machine_of(kernel, suite, disks, w), suite, report, l, c)):
            return False
    return True


def boot_again(start):
    """Up to three false starts are no failure."""
    for _ in range(3):
        try:
            return start()
        except FalseStart:
            note("the emulated processors failed before the guest's first process: started again")
    return start()


def make_folder():
    """Where a suite's disks and console are: its name has the number of this process, and what
    processes that were ended hard have left goes first."""
    base = os.environ.get("TMPDIR") or "/var/tmp"
    for path in glob.glob(f"{base}/trak-vm.[0-9]*.*"):
        owner = os.path.basename(path).split(".")[1]
        if owner.isdigit() and not os.path.exists(f"/proc/{owner}"):
            shutil.rmtree(path, ignore_errors=True)
    return tempfile.mkdtemp(prefix=f"trak-vm.{os.getpid()}.", dir=base)


def keep_folder(folder):
    """Gives it a name that no later run takes for one that was left."""
    kept = folder.replace("/trak-vm.", "/trak-vm-kept.")
    os.rename(folder, kept)
    note(f"kept: {kept}")


def cpu_seconds():
    """What the children of this process have used."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def run_suite(name, kernel, report, options, deadline):
    """A suite that met a fault of the emulator begins anew, once; what it had found doesn't count."""
    before = len(report.tests)
    try:
        run_once(name, kernel, report, options, deadline)
    except EmulatorFault:
        del report.tests[before:]
        note(f"{name}: the emulated processor had flags that there are none of; the suite begins anew")
        try:
            run_once(name, kernel, report, options, deadline)
        except EmulatorFault:
            report.fail(f"{name}.runs", "the emulated processor had impossible flags, twice")


def run_once(name, kernel, report, options, deadline):
    folder = make_folder()
    start, cpu = time.monotonic(), cpu_seconds()
    bad = report.count("not ok")
    try:
        suite = SUITES[name](folder, options.long)
        suite.kernel = kernel
        suite.whole = not options.only
        disks = suite.disks()
        initramfs_of(suite, kernel).write(f"{folder}/initramfs")
        if options.shell:
            machine_of(kernel, suite, disks, "suite=shell").shell()
        elif boots(kernel, suite, disks, report, deadline, options.only):
            suite.check(report)
        if report.count("not ok") > bad and not options.shell:
            print(f"--- the end of the guest's console\n{tail(console_in(folder))}")
    except CannotRun as why:
        report.skip(f"{name}.runs", str(why))
    except (AssertionError, OSError, FalseStart) as why:
        report.fail(f"{name}.runs", f"{type(why).__name__}: {why}".replace("\n", "; "))
    finally:
        if options.keep:
            keep_folder(folder)
        else:
            shutil.rmtree(folder, ignore_errors=True)
    note(f"{kernel.release} {name}: {time.monotonic() - start:.0f} s, of processors "
         f"{cpu_seconds() - cpu:.0f} s")


def kernel_of(series, options):
    if not shutil.which(QEMU):
        raise CannotRun(f"there is no {QEMU}")
    if not options.kernel_tree:
        return vm_kernels.get(series, options.update)
    tree = Tree(options.kernel_tree)
    tree.build()
    return tree


def run_kernel(series, options, deadline):
    report = Report(f"vm-{series}")
    try:
        kernel = kernel_of(series, options)
    except CannotRun as why:
        report.skip(f"kernel-{series}.is_had", str(why))
    except AssertionError as why:
        report.fail(f"kernel-{series}.module_is_built", str(why))
    else:
        note(f"kernel {kernel.release}")
        names = options.suite
        if "short" in names:
            names = [name for name, suite in SUITES.items()
                     if series in suite.short or (options.kernel_tree and suite.short)]
        for name in names:
            run_suite(name, kernel, report, options, deadline)
    if options.junit:
        report.write(f"{options.junit}/test-vm-{series}.xml")
    note(report.summary())
    return report.count("not ok") == 0 and (report.count("ok") > 0 or not in_ci())


def main():
    options = arguments()
    deadline = Deadline(options.budget)

    def stop(signum, _frame):
        raise SystemExit(128 + signum)

    for signum in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(signum, stop)
    all_series = vm_kernels.SERIES if options.kernel == "all" else [options.kernel]
    if options.kernel_tree:
        all_series = ["tree"]
    good = [run_kernel(series, options, deadline) for series in all_series]
    if not all(good):
        warn("not every test passed")
    return 0 if all(good) else 1


if __name__ == "__main__":
    sys.exit(main())
