# tests/vm/vm_machine.py: one virtual machine, from its start to its end
# SPDX-License-Identifier: GPL-2.0-only
"""QEMU without hardware help (-accel tcg), two processors (or one whose instructions are counted), no
network, no screen. The guest's first serial port is its console and goes to a file; the second carries
the lines of vm_report.py.

Whatever happens the process is ended by its own number, and it ends with its parent: a run that is
killed leaves no machine behind.
"""
import ctypes
import os
import re
import select
import signal
import subprocess
import time

QEMU = "qemu-system-x86_64"
PR_SET_PDEATHSIG = 1
# Stalls are measured on the guest's clock, which a loaded host makes run in leaps: those limits are
# far apart from what a loaded host does. Hung tasks are what we look for, and 300 s are enough.
COMMAND_LINE = ("console=ttyS0 oops=panic panic=1 loglevel=5 nokaslr no_timer_check tsc=nowatchdog "
                "rcupdate.rcu_cpu_stall_timeout=300 watchdog_thresh=60 "
                "printk.devkmsg=on ")
FAST = ("-accel", "tcg,thread=multi", "-smp", "2,sockets=2", "-cpu", "max,la57=off")
# One processor on whose clock each instruction takes a nanosecond, and idling none: what a guest does is
# the same in every run, and what else the host does shows in nothing. Instructions that repeat count
# as often as they repeat, so the kernel is kept from those that copy byte by byte.
COUNTED = ("-accel", "tcg,thread=single", "-smp", "1", "-icount", "shift=0,sleep=off",
           "-cpu", "max,la57=off,erms=off,fsrm=off")
BAD = re.compile(r"(\bWARNING: |\bBUG: |kernel BUG at|\bOops\b|general protection fault|"
                 r"Kernel panic|blocked for more than|self-detected stall|detected stalls|"
                 r"soft lockup|possible recursive locking|possible circular locking|"
                 r"inconsistent (?:\{.*\} )?.*lock|locking correctness validator|lock held when|"
                 r"held lock freed|non-static key|ODEBUG: |"
                 r"unable to handle|bad page state|Bad rss-counter|refcount_t: |list_(?:add|del) "
                 r"corruption|scheduling while atomic|sleeping function called|Objects remaining|"
                 r"double free|use-after-free|UBSAN: |KASAN: |Redzone|Poison overwritten|"
                 r"Unpatched return thunk|Missing ENDBR|Call Trace:)")


class Timeout(Exception):
    """The guest did not end in time."""


def die_with_parent():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def slub_debug(kernel):
    """The driver's slab caches are checked; all of them where the kernel was configured so."""
    return "" if kernel.series.startswith("2.6.") else "slub_debug=FZ,trak*"


class Machine:
    """One boot."""

    def __init__(self, kernel, initramfs, disks, folder, words="", memory_mib=1024,
                 mitigations="off", checked=True, counted=False):
        self.folder = folder
        command = [QEMU, *(COUNTED if counted else FAST), "-machine", "pc",
                   "-m", f"{memory_mib}M", "-nodefaults", "-display", "none",
                   "-no-reboot", "-kernel", kernel.image, "-initrd", initramfs, "-append",
                   f"{COMMAND_LINE} {slub_debug(kernel) if checked else ''} "
                   f"mitigations={mitigations} {words}"]
        for number, disk in enumerate(disks):
            command += ["-drive", f"file={disk},if=none,id=d{number},format=raw,cache=writeback,"
                        "discard=unmap,detect-zeroes=off",
                        "-device", f"virtio-blk-pci,drive=d{number},serial=disk{number}"]
        self.command = command
        self.process = None
        self.pending = b""

    def start(self):
        command = [*self.command, "-monitor", "none", "-serial", f"file:{self.folder}/console.log",
                   "-serial", "stdio"]
        self.process = subprocess.Popen(  # pylint: disable=consider-using-with
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            preexec_fn=die_with_parent)  # noqa: no thread is running here

    def shell(self):
        """With the console on this terminal, until the guest ends."""
        return subprocess.call([*self.command, "-serial", "mon:stdio"])

    def lines(self, limit):
        """The lines of the second serial port, until the machine ends or for `limit` seconds."""
        deadline = time.monotonic() + limit
        stream = self.process.stdout.fileno()
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                raise Timeout(f"the guest has not ended within {limit:.0f} s")
            if not select.select([stream], [], [], min(left, 5))[0]:
                continue
            got = os.read(stream, 65536)
            if not got:
                return
            self.pending += got
            *whole, self.pending = self.pending.split(b"\n")
            for line in whole:
                yield line.decode(errors="replace").rstrip("\r")

    def kill(self):
        """The power goes."""
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
        self.wait()

    def wait(self):
        if self.process is not None:
            self.process.stdout.close()
            self.process.wait(60)

    def console(self):
        return console_in(self.folder)


def console_in(folder):
    """What the last guest in this folder wrote on its console."""
    try:
        with open(f"{folder}/console.log", encoding="utf-8", errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def without_tasks(console):
    """What came before the list of all tasks, which is one of backtraces."""
    return re.split(r"SysRq : Show State\s*$", console, maxsplit=1, flags=re.MULTILINE)[0]


def without_provoked(lines, provoked):
    """The lines but for reports that a test is known to provoke: provoked has a regular expression for
    the first lines of such a report by the test's name. One that names a function of ours stays."""
    kept, report, test = [], None, ""
    for line in lines:
        if line.startswith("--- "):
            test = line[4:]
        if "[ cut here ]" in line:
            kept, report = kept + (report or []), []
        if report is None:
            kept.append(line)
            continue
        report.append(line)
        if "[ end trace" in line:
            text = "\n".join(report)
            known = test in provoked and re.search(provoked[test], text)
            kept += [] if known and "[trak]" not in text else report
            report = None
    return kept + (report or [])


# What a task has never used of its stack: said when one ends that used more than all before it, and in the
# list of tasks (SysRq T).
STACK_LEFT = re.compile(r"\] (\S+) used greatest stack depth: (\d+) bytes left")
STACK_OF_TASK = re.compile(r"\] (\S.{12}) [A-Za-z] .*\s(\d+)\s+\d+\s+\d+ 0x[0-9a-f]{8}\s*$")


def least_stack(console):
    """(bytes, task) of the task that came nearest to the end of its stack; None where the kernel, for
    lack of DEBUG_STACK_USAGE, tells of none."""
    found = [(int(left), task.strip()) for line in console.splitlines()
             for task, left in STACK_LEFT.findall(line) + STACK_OF_TASK.findall(line)]
    return min((one for one in found if one[0] > 0), default=None)


def faults_in(console, allowed=None, provoked=None):
    """What the kernel's log holds that it must not, from the start of the first process on: an excerpt,
    or nothing. allowed: a regular expression for lines that a suite provokes; provoked: as
    without_provoked has it."""
    _, mark, after = console.partition("\n--- init")
    lines = without_provoked(without_tasks(after if mark else console).splitlines(), provoked or {})
    for number, line in enumerate(lines):
        if BAD.search(line) and not (allowed and re.search(allowed, line)):
            return "\n".join(lines[max(0, number - 5):number + 40])
    return ""
