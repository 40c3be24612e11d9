# tests/system/tree_test.py: the tree that trakd shows
# SPDX-License-Identifier: GPL-2.0-only
import errno
import os
import stat
import unittest

from trak_abi import Control, ioctl
from trak_machine import MIB, SystemTest
from trak_testing import eventually, main


class Tree(SystemTest):
    def test_has_the_documented_names(self):
        d = self.filter()
        names = sorted(os.path.relpath(os.path.join(at, name), d.root)
                       for at, folders, files in os.walk(d.root) for name in folders + files)
        for name in ("dev", "dev/trakctl", "dev/trak", "dev/trak/trak0", "log", "session", "proc",
                     "proc/trak", "proc/trak/chr_major", "proc/trak/blk_major", "proc/trak/debug",
                     "proc/trak/trak0", "proc/trak/trak0/incr_bmp_dirty",
                     "sys/module/trak/parameters/trak_max_blk_minor"):
            self.assertIn(name, names)
        self.assertEqual(d.proc("trak0/dev_type"), "filter\n")
        self.assertEqual(d.proc("trak0/dev_size"), f"{64 * MIB}\n")
        node = os.stat(d.node())
        self.assertTrue(stat.S_ISREG(node.st_mode))
        self.assertEqual(node.st_size, 64 * MIB)
        self.assertEqual(stat.S_IMODE(node.st_mode), 0o600)

    def test_names_come_and_go_with_nodes(self):
        d = self.filter(start=False)
        with d.control() as control:
            self.assertEqual(os.listdir(f"{d.root}/dev/trak"), ["trak0"])
            before = os.stat(d.node()).st_ino
            control.delete(0)
            self.assertEqual(os.listdir(f"{d.root}/dev/trak"), [])
            self.assertFalse(os.path.exists(d.node()))
            self.assertFalse(os.path.exists(f"{d.root}/proc/trak/trak0"))
            control.add_filter("/dev/image/d", self.m.path("maps"), name="other")
            self.assertEqual(os.listdir(f"{d.root}/dev/trak"), ["other"])
            self.assertNotEqual(os.stat(d.node("other")).st_ino, before)

    def test_status_is_read_afresh_and_debug_can_be_written(self):
        d = self.filter(start=False)
        with open(f"{d.root}/proc/trak/trak0/started", encoding="ascii") as started:
            self.assertEqual(started.read(), "0\n")
            with d.control() as control:
                control.start(0)
            started.seek(0)
            self.assertEqual(started.read(), "1\n")
        debug = f"{d.root}/proc/trak/debug"
        with open(debug, "w", encoding="ascii") as file:
            file.write("3\n")
        self.assertEqual(d.proc("debug"), "3\n")
        fd = os.open(debug, os.O_WRONLY)
        try:
            for text, error in ((b"abc", errno.EINVAL), (b"1" * 1025, errno.EINVAL)):
                with self.assertRaises(OSError) as caught:
                    os.write(fd, text)
                self.assertEqual(caught.exception.errno, error)
        finally:
            os.close(fd)
        self.assertEqual(d.proc("debug"), "3\n")

    def test_what_takes_no_writes_refuses_them(self):
        d = self.filter()
        for name in ("log", "session"):
            with self.assertRaises(PermissionError):
                os.open(f"{d.root}/{name}", os.O_WRONLY)
        fd = os.open(f"{d.root}/proc/trak/trak0/uuid", os.O_WRONLY)
        with self.assertRaises(OSError):
            os.write(fd, b"x")
        os.close(fd)
        for change in (lambda: os.mkdir(f"{d.root}/x"), lambda: os.unlink(d.node()),
                       lambda: os.rename(d.node(), f"{d.root}/dev/trak/x"),
                       lambda: os.chmod(d.node(), 0o666), lambda: os.truncate(d.node(), 4096),
                       lambda: os.open(f"{d.root}/dev/trak/new", os.O_CREAT | os.O_RDWR)):
            with self.assertRaises(OSError):
                change()
        self.assertEqual(os.stat(d.node()).st_size, 64 * MIB)

    def test_log_holds_what_the_driver_said(self):
        d = self.filter()
        with open(f"{d.root}/log", encoding="utf-8") as file:
            text = file.read()
        self.assertIn("trak_init(): Initializing the driver.", text)
        self.assertIn("trak_ioctl_start_node(): Starting trak(100, 0)", text)
        self.assertTrue(all(line.startswith("<") for line in text.splitlines()), text)

    def test_session_differs_from_run_to_run(self):
        ids = set()
        for _ in range(2):
            d = self.m.trakd()
            with open(f"{d.root}/session", encoding="ascii") as file:
                ids.add(file.read())
            d.stop()
        self.assertEqual(len(ids), 2)

    def test_parameters_reach_the_driver(self):
        d = self.m.trakd("--param", "trak_debug=2", "--param", "trak_max_blk_minor=7",
                         "--param", "trak_chr_major=0", "--param", "trak_blk_major=0")
        self.assertEqual(d.proc("debug"), "2\n")
        self.assertGreater(int(d.proc("chr_major")), 0)
        self.assertGreater(int(d.proc("blk_major")), 0)
        self.m.image("d.img", MIB)
        with d.control() as control:
            self.assertEqual(ioctl(control.fd, 0x40044304, bytearray(b"\x08\0\0\0")),
                             -errno.EINVAL)

    def test_parameters_are_shown_as_a_kernel_shows_those_of_a_module(self):
        d = self.m.trakd("--param", "trak_debug=2", "--param", "trak_max_blk_minor=7",
                         "--param", "trak_blk_major=0")
        folder = f"{d.root}/sys/module/trak/parameters"

        def shown(name):
            with open(f"{folder}/{name}", encoding="ascii") as file:
                return file.read()

        self.assertEqual(sorted(os.listdir(folder)),
                         ["trak_blk_major", "trak_chr_major", "trak_debug", "trak_max_blk_minor"])
        self.assertEqual(shown("trak_max_blk_minor"), "7\n")
        self.assertEqual(shown("trak_chr_major"), "100\n")
        self.assertEqual(shown("trak_blk_major"), d.proc("blk_major"))  # the one that was given
        self.assertEqual(shown("trak_debug"), "2\n")
        with open(f"{d.root}/proc/trak/debug", "w", encoding="ascii") as file:
            file.write("3\n")
        self.assertEqual(shown("trak_debug"), "3\n")
        self.assertEqual(stat.S_IMODE(os.stat(f"{folder}/trak_debug").st_mode), 0o444)
        with self.assertRaises(PermissionError):
            os.open(f"{folder}/trak_debug", os.O_WRONLY)

    def test_control_device_reads_as_empty(self):
        d = self.m.trakd()
        with Control(d.root) as control:
            self.assertEqual(os.read(control.fd, 100), b"")
            self.assertEqual(os.write(control.fd, b"text"), 0)
        eventually(lambda: d.process.poll() is None, "trakd lives")


if __name__ == "__main__":
    main()
