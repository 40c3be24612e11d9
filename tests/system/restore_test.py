# tests/system/restore_test.py: points of a chain, restored to disks
# SPDX-License-Identifier: GPL-2.0-only
import os
import signal
import subprocess

from backup_machine import LIMIT, BackupTest, damage_last_block, digest
from trak_machine import MIB
from trak_testing import eventually, main, run

GARBAGE = b"\xee"


class Disks(BackupTest):
    # Its last page is no whole one.
    size = 12 * MIB + 1536

    def setUp(self):
        super().setUp()
        self.begin()
        self.wanted = {1: self.frozen("full")}
        # What was data becomes zeros: in the middle, at the begin, and up to the end.
        for at, length in ((5 * MIB, 3 * MIB), (0, 65536), (self.size - 200000, 200000)):
            self.put(at, bytes(length))
        self.wanted[2] = self.frozen("incr")
        self.write(6 * MIB, 100000)
        self.wanted[3] = self.frozen("diff")

    def put(self, at, data):
        fd = os.open(self.d.node(), os.O_RDWR)
        try:
            os.pwrite(fd, data, at)
            os.fsync(fd)
        finally:
            os.close(fd)

    def disk(self, size, *options):
        """A loop device of which every byte was something else."""
        self.target = self.m.path("target.img")
        with open(self.target, "wb") as file:
            file.write(GARBAGE * size)
        return self.m.loop(self.target, *options)

    def assert_untouched(self, device):
        with open(device, "rb") as file:
            self.assertEqual(file.read().strip(GARBAGE), b"")

    def assert_restores(self, device, size):
        for point, wanted in self.wanted.items():
            self.agent("restore", "--point", str(point), "--to", device, "--force")
            self.assertEqual(digest(device, self.size), wanted, f"backup {point}")
            # On the medium, when it says so: read past the loop device.
            self.assertEqual(digest(self.target, self.size), wanted, f"backup {point}")
            with open(device, "rb") as file:
                file.seek(self.size)
                rest = file.read()
            self.assertEqual(rest, GARBAGE * (size - self.size), "what lies behind the disk's end")

    def test_every_point_restores_to_a_disk_of_its_size(self):
        self.assert_restores(self.disk(self.size), self.size)

    def test_what_lies_behind_stays_on_a_larger_disk(self):
        self.assert_restores(self.disk(14 * MIB), 14 * MIB)

    def test_every_point_restores_to_a_disk_with_sectors_of_4_kib(self):
        self.assert_restores(self.disk(13 * MIB, "--sector-size", "4096"), 13 * MIB)

    def test_a_disk_is_overwritten_by_force_only(self):
        device = self.disk(self.size)
        self.agent("restore", "--to", device, expect=1)
        self.assertIn(f"{device} is there: --force overwrites the disk", self.said)
        self.assert_untouched(device)

    def test_a_disk_that_is_too_small_is_refused_and_not_touched(self):
        device = self.disk(self.size - 512)
        self.agent("restore", "--to", device, "--force", expect=1)
        self.assertIn(f"has {self.size - 512} bytes, and the backup {self.size}", self.said)
        self.assert_untouched(device)

    def test_a_disk_that_is_mounted_is_refused_and_not_touched(self):
        image = self.m.image("mounted.img", 16 * MIB, "ext4")
        device = self.m.loop(image)
        point = self.m.mount(device, "mounted")
        with open(f"{point}/file", "wb") as file:
            file.write(b"content")
        self.agent("restore", "--to", device, "--force", expect=1)
        self.assertIn("Device or resource busy", self.said)
        self.m.umount(point)
        run("e2fsck", "-fn", device)

    def test_a_disk_that_can_not_be_written_is_refused(self):
        device = self.disk(self.size, "--read-only")
        self.agent("restore", "--to", device, "--force", expect=1)
        self.assertIn(device, self.said)
        self.assert_untouched(device)

    def test_a_damaged_point_says_that_the_disk_is_overwritten_in_part(self):
        path = f"{self.store}/000001-full.qcow2"
        damage_last_block(path)
        device = self.disk(self.size)
        self.agent("restore", "--point", "1", "--to", device, "--force", expect=1)
        self.assertIn("are not what was backed up (extents ", self.said)
        self.assertIn(f"{device} is overwritten in part: restore it again", self.said)
        self.agent("restore", "--point", "1", "--to", device, "--force", "--keep-going", expect=1)
        with open(device, "rb") as one, open(path, "rb") as other:
            self.assertIn(one.read(65536), other.read())

    def test_an_interrupt_says_that_the_disk_is_overwritten_in_part(self):
        """The disk lies on a trakd that stands still: it is in the middle as long as the test wants."""
        slow = self.m.trakd(images={"t": self.m.image("slow.img", 16 * MIB)}, root="slow")
        slow.trakctl("add-filter", "--disk", "/dev/image/t", "--extent-size", "64K", "--bmp-dir",
                     self.m.folder("slow-maps"))
        slow.trakctl("start", "0")
        device = self.m.loop(slow.node())
        slow.signal(signal.SIGSTOP)
        with subprocess.Popen(self.words("restore", "--point", "2", "--to", device, "--force"),
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as agent:
            try:
                eventually(lambda: self.in_zeros(agent.pid), "it writes zeros", LIMIT)
                agent.send_signal(signal.SIGINT)
            finally:
                slow.signal(signal.SIGCONT)
            try:
                said, _ = agent.communicate(timeout=LIMIT)
            except subprocess.TimeoutExpired:
                agent.kill()
                raise
        self.assertEqual(agent.returncode, 130, said)
        self.assertIn(f"interrupted; {device} is overwritten in part: restore it again", said)
        self.m.unloop(device)

    def in_zeros(self, pid):
        """Whether it waits in the kernel for the disk's first zeros: BLKZEROOUT."""
        with open(f"/proc/{pid}/syscall", encoding="utf-8") as file:
            return "0x127f" in file.read().split()


if __name__ == "__main__":
    main()
