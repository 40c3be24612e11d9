# tests/vm/vm_test.py: the harness of the virtual machines, without a machine
# SPDX-License-Identifier: GPL-2.0-only
"""What a run of the guests counts, and what it takes for a fault of the kernel."""
import contextlib
import io
import os
import tempfile
import unittest

import vm_initramfs
import vm_kernels
from vm_machine import faults_in
from vm_report import Report

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
        self.assertEqual(faults_in(LOG % "WARNING: mine", allowed="mine"), "")


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
