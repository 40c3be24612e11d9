# tests/vm/vm_test.py: the harness of the virtual machines, without a machine
# SPDX-License-Identifier: GPL-2.0-only
"""What a run of the guests counts, and what it takes for a fault of the kernel."""
import contextlib
import io
import os
import struct
import subprocess
import tempfile
import unittest
import unittest.mock

import vm
import vm_initramfs
import vm_kernels
import vm_old_kernel
import vm_suites
import vm_tree
from vm_machine import faults_in, least_stack
from vm_report import CannotRun, Report

LOG = "[    1.0] usual\n[    2.0] %s\n[    2.1] RIP: 0010:somewhere\n"


def report_of(*lines, ci=None):
    with contextlib.redirect_stdout(io.StringIO()):
        before = os.environ.pop("CI", None)
        if ci:
            os.environ["CI"] = ci
        try:
            report = Report("t")
            return report, [report.line(line) for line in lines]
        finally:
            os.environ.pop("CI", None)
            if before is not None:
                os.environ["CI"] = before


def program_of(code):
    """An ELF file of one code segment, with room behind it."""
    head = b"\x7fELF\x02\x01\x01".ljust(16, b"\0") + struct.pack(
        "<HHIQQQIHHHHHH", 2, 62, 1, 0, 64, 0, 0, 64, 56, 1, 0, 0, 0)
    segment = struct.pack("<IIQQQQQQ", 1, 5, 0, 0, 0, 120 + len(code), 120 + len(code), 4096)
    return (head + segment + code).ljust(4096, b"\0")


class OldKernels(unittest.TestCase):
    def test_releases_before_2_6_39_are_old(self):
        self.assertTrue(vm_old_kernel.is_old("2.6.32.69"))
        for release in ("2.6.39", "3.0.0-1", "6.1.0-56-amd64", "6.12.10+deb12-amd64"):
            self.assertFalse(vm_old_kernel.is_old(release))

    def test_every_call_takes_the_way_that_old_kernels_know(self):
        call = vm_old_kernel.CALL
        code = b"\x90" * 5 + call + b"\xc3" + call + b"\xc3"
        before = program_of(code)
        after = vm_old_kernel.for_old_kernel(before)
        self.assertEqual(len(after), len(before))
        self.assertNotIn(call, after[:120 + len(code)])
        for at in (125, 133):
            self.assertEqual(after[at], 0xe8)
            to = at + 5 + struct.unpack_from("<i", after, at + 1)[0]
            self.assertEqual(after[to:to + len(vm_old_kernel.DETOUR)], vm_old_kernel.DETOUR)
        self.assertEqual(struct.unpack_from("<Q", after, 64 + 32)[0],
                         120 + len(code) + len(vm_old_kernel.DETOUR))

    def test_what_has_no_such_call_stays_and_what_has_no_room_is_refused(self):
        for data in (b"#!/bin/sh\n", program_of(b"\xc3")):
            self.assertEqual(vm_old_kernel.for_old_kernel(data), data)
        with self.assertRaises(ValueError):
            vm_old_kernel.for_old_kernel(program_of(vm_old_kernel.CALL.ljust(4096 - 120, b"\x90")))

    def test_a_folder_that_is_no_built_tree_is_refused_with_the_reason(self):
        with tempfile.TemporaryDirectory() as folder:
            with self.assertRaisesRegex(CannotRun, "is no built kernel tree"):
                vm_tree.Tree(folder)


class Reports(unittest.TestCase):
    def test_lines_of_the_protocol_are_counted_and_no_others(self):
        report, taken = report_of("ok a.holds", "not ok a.fails: for a reason: two", "skip a.b: no",
                                  "okay", "ok two words", "")
        self.assertEqual(taken, [True, True, True, False, False, False])
        self.assertEqual(report.tests, [("a.holds", "ok", ""),
                                        ("a.fails", "not ok", "for a reason: two"),
                                        ("a.b", "skip", "no")])

    def test_a_skip_is_a_failure_under_ci(self):
        report, _ = report_of("skip a.b: no disk", ci="true")
        self.assertEqual((report.count("not ok"), report.count("skip")), (1, 0))

    def test_the_head_of_the_file_has_the_numbers_that_run_reads(self):
        report, _ = report_of("ok a", 'not ok b: "<&>"', "skip c: why")
        with tempfile.TemporaryDirectory() as folder:
            report.write(f"{folder}/x")
            with open(f"{folder}/x", encoding="utf-8") as file:
                head = file.readline()
        self.assertIn(' tests="3" failures="1" skipped="1" disabled="0"', head)


class KernelLogs(unittest.TestCase):
    def test_faults_are_found_with_what_stands_around_them(self):
        for text in ("WARNING: CPU: 0 PID: 1 at fs/x.c:1", "BUG: kernel NULL pointer dereference",
                     "INFO: task x:1 blocked for more than 300 seconds.",
                     "rcu: INFO: rcu_preempt self-detected stall on CPU", "Kernel panic - not",
                     "refcount_t: underflow; use-after-free.", "Unpatched return thunk in use.",
                     "BUG trak (Tainted: G OE): Objects remaining in trak on shutdown"):
            found = faults_in(LOG % text)
            self.assertIn(text, found)
            self.assertIn("RIP", found)

    def test_usual_lines_are_none(self):
        for text in ("REISERFS warning:  read_super_block: reiserfs filesystem is deprecated",
                     "trak: loading out-of-tree module taints kernel.",
                     "Spectre V2 : Mitigation: Retpolines", "debug: nothing"):
            self.assertEqual(faults_in(LOG % text), "")

    def test_what_a_suite_provokes_is_let_pass_and_nothing_else(self):
        log = LOG % "WARNING: mine" + LOG % "WARNING: other"
        self.assertIn("other", faults_in(log, allowed="mine"))

    def test_the_least_of_all_stacks_is_found_and_its_list_is_no_fault(self):
        log = ("[1.0] sh used greatest stack depth: 4056 bytes left\n--- init\n"
               "[2.0] trakctl used greatest stack depth: 3800 bytes left\n"
               "[2.9] SysRq : Show State\n"
               "[3.0] init          R  running task     5176     1      0 0x00000000\n"
               "[3.1] kjournald     S ffffffff8104a1c0  3504   301      2 0x00000000\n"
               "[3.2] Call Trace:\n")
        self.assertEqual(least_stack(log), (3504, "kjournald"))
        self.assertEqual(faults_in(log), "")
        self.assertIsNone(least_stack(LOG % "usual"))

    def test_a_report_passes_in_the_test_that_provokes_it_and_where_it_names_none_of_ours(self):
        def log(test, what="WARNING: at fs/x.c:7 f", frame="[<0>] g+0x1/0x2"):
            return (f"--- begins\n--- {test}\n[1.0] ---[ cut here ]---\n[1.1] {what}\n"
                    f"[1.2] Modules linked in: trak\n[1.3] Call Trace:\n[1.4]  {frame}\n"
                    "[1.5] ---[ end trace 1 ]---\n[1.6] usual\n")

        known = {"a.test": r"WARNING: at fs/x\.c"}
        self.assertEqual(faults_in(log("a.test"), provoked=known), "")
        self.assertIn("x.c", faults_in(log("a.test")))
        self.assertIn("x.c", faults_in(log("b.test"), provoked=known))
        self.assertIn("y.c", faults_in(log("a.test", "WARNING: at fs/y.c:7 f"), provoked=known))
        self.assertIn("x.c", faults_in(log("a.test", frame="[<0>] h+0x1/0x2 [trak]"),
                                       provoked=known))
        self.assertIn("x.c", faults_in(log("a.test").partition("[1.5]")[0], provoked=known))
        self.assertEqual(faults_in(LOG % "WARNING: mine", allowed="mine"), "")


class Starts(unittest.TestCase):
    class Guest:
        """Machines that say what they are told to."""

        def __init__(self, console, *lines):
            self.said, self.log = lines, console

        def start(self):
            pass

        kill = start

        def lines(self, _limit):
            return iter(self.said)

        def console(self):
            return self.log

    def boots(self, *guests):
        report, left = Report("t"), list(guests)
        suite = vm_suites.Contract("", long=False)
        with contextlib.redirect_stdout(io.StringIO()):
            try:
                good = vm.boot_again(lambda: vm.boot(left.pop(0), suite, report, 1, None))
            except vm.FalseStart:
                good = None
        return good, len(guests) - len(left)

    FALSE = "[    6.0] Oops: int3: 0000 [#1] PREEMPT SMP NOPTI\n"

    def test_a_false_start_is_tried_again_three_times_at_most(self):
        false, good = self.Guest(self.FALSE), self.Guest("", "begin", "end")
        self.assertEqual(self.boots(false, good), (True, 2))
        self.assertEqual(self.boots(false, false, false, false, good), (None, 4))

    def test_no_other_end_is_one(self):
        self.assertEqual(self.boots(self.Guest(self.FALSE, "begin")), (False, 1))
        self.assertEqual(self.boots(self.Guest("[ 1.0] BUG: x\n")), (False, 1))


class EmulatorFaults(unittest.TestCase):
    def test_flags_that_no_processor_has_are_told_from_those_of_a_crash(self):
        self.assertTrue(vm.impossible_flags("RSP: 0018:ffffc9000053bbc0 EFLAGS: 3d54dbb2\n"))
        for flags in ("00010246", "00000286", "00250a97", "003f7fd7"):
            self.assertFalse(vm.impossible_flags(f"RSP: 0018:ffffc9000053bbc0 EFLAGS: {flags}\n"))

    def test_a_guest_that_had_such_flags_is_no_verdict(self):
        with contextlib.redirect_stdout(io.StringIO()), self.assertRaises(vm.EmulatorFault):
            vm.boot(Starts.Guest("EFLAGS: 3d54dbb2\n", "begin", "not ok t.x: y", "end"),
                    vm_suites.Contract("", long=False), Report("t"), 1, None)

    def run_suite(self, *faults):
        """What the report says of a suite whose runs end so: with a fault of the emulator, or whole."""
        report, left = Report("t"), list(faults)
        report.tests.append(("t.earlier", "ok", ""))

        def once(_name, _kernel, report, _options, _deadline):
            report.tests.append(("t.x", "not ok" if left[0] else "ok", ""))
            if left.pop(0):
                raise vm.EmulatorFault

        with contextlib.redirect_stdout(io.StringIO()), unittest.mock.patch.object(vm, "run_once", once):
            vm.run_suite("t", None, report, None, None)
        return [f"{verdict} {name}" for name, verdict, _ in report.tests]

    def test_a_suite_begins_anew_once(self):
        self.assertEqual(self.run_suite(False), ["ok t.earlier", "ok t.x"])
        self.assertEqual(self.run_suite(True, False), ["ok t.earlier", "ok t.x"])
        self.assertEqual(self.run_suite(True, True), ["ok t.earlier", "not ok t.x", "not ok t.runs"])
        self.assertEqual(self.run_suite(False, True), ["ok t.earlier", "ok t.x"])


class Folders(unittest.TestCase):
    def test_those_of_processes_that_are_gone_are_swept_and_no_others(self):
        gone = subprocess.Popen(["true"])  # pylint: disable=consider-using-with
        gone.wait(60)
        with tempfile.TemporaryDirectory() as base, unittest.mock.patch.dict(
                os.environ, {"TMPDIR": base}):
            for name in (f"trak-vm.{gone.pid}.a", f"trak-vm.{os.getpid()}.b",
                         f"trak-vm-kept.{gone.pid}.c"):
                os.mkdir(f"{base}/{name}")
            made = os.path.basename(vm.make_folder())
            self.assertEqual(sorted(os.listdir(base)), sorted([
                f"trak-vm.{os.getpid()}.b", f"trak-vm-kept.{gone.pid}.c", made]))


class PowerCuts(unittest.TestCase):
    """What the host takes for right outcomes of a cut."""

    def outcome(self, *lines, cuts=1):
        report, suite = Report("t"), vm_suites.Power("", long=False)
        suite.cuts = cuts
        with contextlib.redirect_stdout(io.StringIO()):
            for line in lines:
                self.assertTrue(suite.hear(line, report), line)
            suite.judge(report)
        return [name for name, verdict, _ in report.tests if verdict == "not ok"]

    GOOD = tuple(f"{word} {name}.{kind} 0{number}f0"
                 for number, (name, kind) in enumerate([("raw", "incr"), ("raw", "diff"),
                                                        ("guarded", "incr"), ("guarded", "diff")])
                 for word in ("recorded", "found"))
    REST = ("tally snapshot true", "tally raw window", "tally raw everything")

    def test_maps_as_recorded_and_verdicts_that_are_known_are_right(self):
        self.assertEqual(self.outcome(*self.GOOD, *self.REST), [])

    def test_a_saved_map_that_changed_or_tells_nothing_is_wrong(self):
        for lines in (("recorded raw.incr 0180", "found raw.incr 0181"),
                      ("recorded raw.incr ffff", "found raw.incr ffff"),
                      ("recorded raw.incr 0000", "found raw.incr 0000"),
                      ("found raw.incr 0180",)):
            self.assertEqual(len(self.outcome(*lines, *self.GOOD[2:], *self.REST)), 2)

    def test_a_missing_snapshot_or_verdict_is_wrong(self):
        self.assertEqual(len(self.outcome(*self.GOOD, *self.REST[1:])), 1)
        self.assertEqual(len(self.outcome(*self.GOOD, *self.REST[:2], "tally raw other")), 1)

    def test_other_lines_are_not_taken(self):
        self.assertFalse(vm_suites.Power("", long=False).hear("recorded", Report("t")))


class Suites(unittest.TestCase):
    def test_what_a_suite_is_stays_of_its_kind(self):
        # A method of the name of a switch would be a switch that is on.
        plain = vm_suites.Suite("", long=False)
        words = [name for name in vars(vm_suites.Suite)
                 if isinstance(getattr(plain, name), (bool, int, str, tuple))]
        self.assertIn("counted", words)
        for name, kind in vm_suites.SUITES.items():
            for word in words:
                with self.subTest(suite=name, word=word):
                    self.assertIs(type(getattr(kind("", long=True), word)),
                                  type(getattr(plain, word)))


class Kernels(unittest.TestCase):
    def test_the_newest_is_the_greatest_number_of_its_series(self):
        names = ["linux-image-6.1.0-9-amd64", "linux-image-6.1.0-10-amd64",
                 "linux-image-6.1.0-11-rt-amd64", "linux-image-6.12.9+deb12-amd64",
                 "linux-image-6.12.10+deb12-amd64", "linux-image-6.12.11+deb12-cloud-amd64"]
        self.assertEqual(vm_kernels.newest("6.1", names, "{}"), "6.1.0-10-amd64")
        self.assertEqual(vm_kernels.newest("6.12", names, "{}"), "6.12.10+deb12-amd64")
        self.assertIsNone(vm_kernels.newest("6.12", names[:3], "{}"))


class Archives(unittest.TestCase):
    def test_entries_are_aligned_and_the_trailer_ends_them(self):
        initramfs = vm_initramfs.Initramfs()
        initramfs.put("etc/x", b"12345")
        with tempfile.TemporaryDirectory() as folder:
            initramfs.write(f"{folder}/i")
            with open(f"{folder}/i", "rb") as file:
                data = file.read()
        at, names = 0, []
        while True:
            self.assertEqual(data[at:at + 6], b"070701")
            size, length = int(data[at + 54:at + 62], 16), int(data[at + 94:at + 102], 16)
            names.append(data[at + 110:at + 110 + length - 1].decode())
            body = (at + 110 + length + 3) // 4 * 4
            if names[-1] == "etc/x":
                self.assertEqual(data[body:body + size], b"12345")
            if names[-1] == "TRAILER!!!":
                break
            at = (body + size + 3) // 4 * 4
        self.assertIn("dev/console", names)


if __name__ == "__main__":
    unittest.main()
