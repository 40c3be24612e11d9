# tests/system/snapshot_test.py: images that stay true while the disk is written, or refuse
# SPDX-License-Identifier: GPL-2.0-only
import errno
import os
import random
import threading

from trak_abi import Refused, SNAP
from trak_machine import MIB, SystemTest, close_dead
from trak_testing import eventually, main, run

SIZE = 16 * MIB


class Snapshot(SystemTest):
    def setUp(self):
        super().setUp()
        self.dice = random.Random(5)
        with open(self.m.path("d.img"), "wb") as file:
            file.write(self.dice.randbytes(SIZE))
        self.cow = self.m.volume("cow", 96 * MIB)
        self.start()

    def start(self, root="tree"):
        self.d = self.m.trakd(images={"d": self.m.path("d.img")}, root=root)
        self.control = self.d.control()
        self.addCleanup(close_dead, self.control.fd)
        self.control.add_filter("/dev/image/d", self.m.folder("maps"))
        self.control.start(0)

    def add(self, minor, start=True, chunk_size=65536, where=None):
        where = where or self.cow
        self.control.add_snap(0, f"{where}/{minor}.map", f"{where}/{minor}.data", chunk_size, minor)
        if start:
            self.control.start(minor)

    def disk(self):
        with open(self.m.path("d.img"), "rb") as file:
            return file.read()

    def read(self, minor):
        with open(self.d.node(f"trak{minor}"), "rb") as file:
            return file.read()

    def overwrite(self, count=200):
        """Random pieces of the disk through the filter."""
        fd = os.open(self.d.node(), os.O_RDWR)
        try:
            for _ in range(count):
                size = self.dice.choice((512, 4096, 5000, 65536, 200000))
                at = self.dice.randrange(SIZE - size)
                os.pwrite(fd, self.dice.randbytes(size), at)
            os.fsync(fd)
        finally:
            os.close(fd)

    def test_image_is_the_disk_as_it_was(self):
        before = self.disk()
        self.add(1)
        self.assertEqual(self.read(1), before)
        self.overwrite()
        self.assertNotEqual(self.disk(), before)
        self.assertEqual(self.read(1), before)

    def test_several_images_stay_true_while_the_disk_is_written(self):
        images = {}
        for minor in (1, 2, 3):
            images[minor] = self.disk()
            self.add(minor, chunk_size=4096)
            self.overwrite(60)
        for minor, before in images.items():
            self.assertEqual(self.read(minor), before, f"snapshot {minor}")

    def test_images_stay_true_under_writers_side_by_side(self):
        before = self.disk()
        self.add(1, chunk_size=16384)
        stop = threading.Event()
        fd = os.open(self.d.node(), os.O_RDWR)

        def write(lane):
            dice = random.Random(lane)
            while not stop.is_set():
                size = dice.choice((512, 4096, 40960))
                os.pwrite(fd, dice.randbytes(size), dice.randrange((SIZE - size) // 512) * 512)

        lanes = [threading.Thread(target=write, args=(lane,)) for lane in range(4)]
        for lane in lanes:
            lane.start()
        try:
            for _ in range(6):
                self.assertEqual(self.read(1), before)
        finally:
            stop.set()
            for lane in lanes:
                lane.join()
            os.close(fd)
        self.assertEqual(self.read(1), before)

    def test_node_is_read_only(self):
        self.add(1)
        name = self.d.node("trak1")
        self.assertEqual(os.stat(name).st_mode & 0o777, 0o400)
        self.assertEqual(os.stat(name).st_size, SIZE)
        for flags in (os.O_WRONLY, os.O_RDWR):
            with self.assertRaises(OSError) as caught:
                os.open(name, flags)
            self.assertEqual(caught.exception.errno, errno.EROFS)
        fd = os.open(name, os.O_RDONLY)
        os.fsync(fd)
        os.close(fd)

    def test_full_cow_volume_makes_it_invalid_and_the_disk_goes_on(self):
        tight = self.m.volume("tight", 4 * MIB)
        self.add(1, where=tight)
        fd = os.open(self.d.node(), os.O_RDWR)
        data = self.dice.randbytes(SIZE)
        for at in range(0, SIZE, MIB):
            self.assertEqual(os.pwrite(fd, data[at:at + MIB], at), MIB)
        os.fsync(fd)
        os.close(fd)
        self.assertEqual(self.control.info(1).valid, 0)
        with self.assertRaises(OSError):
            self.read(1)
        self.assertEqual(self.disk(), data)
        self.control.stop(1)
        self.control.delete(1)

    def test_stop_of_a_newer_one_waits_for_the_older(self):
        older = self.disk()
        self.add(1)
        self.overwrite(30)
        newer = self.disk()
        self.add(2)
        self.overwrite(30)
        self.control.stop(2)
        info = self.control.info(2)
        self.assertEqual((info.started, info.stop_pending), (1, 1))
        with self.assertRaises(OSError):
            self.read(2)
        self.assertEqual(self.read(1), older)
        self.assertNotEqual(newer, older)
        self.control.stop(1)
        for minor in (1, 2):
            self.assertEqual(self.control.info(minor).started, 0)

    def test_delete_of_a_newer_one_is_carried_out_with_the_older(self):
        self.add(1)
        self.add(2)
        self.control.delete(2)
        self.assertEqual(self.control.info(2).del_pending, 1)
        self.control.delete(1)
        self.assertEqual(self.control.minors(SNAP), [])
        self.assertEqual([name for name in os.listdir(self.cow) if name != "lost+found"], [])

    def test_resumed_after_an_orderly_end(self):
        before = self.disk()
        self.add(1)
        self.overwrite(60)
        self.d.stop()
        self.assertEqual(sorted(os.listdir(self.cow)), ["1.data", "1.map", "lost+found"])
        self.start(root="again")
        self.add(1, start=False)
        self.control.resume(1)
        self.assertEqual(self.read(1), before)
        self.overwrite(60)
        self.assertEqual(self.read(1), before)

    def test_resumed_after_a_kill(self):
        """What was preserved was on the disk before the write that it made room for."""
        before = self.disk()
        self.add(1)
        fd = os.open(self.d.node(), os.O_RDWR)
        stop = threading.Event()

        def write():
            dice = random.Random(6)
            try:
                while not stop.is_set():
                    os.pwrite(fd, dice.randbytes(4096), dice.randrange(SIZE // 4096) * 4096)
            except OSError:
                pass  # trakd was killed

        writer = threading.Thread(target=write)
        writer.start()
        eventually(lambda: os.stat(f"{self.cow}/1.data").st_blocks > 2000, "chunks are preserved")
        self.d.kill()
        stop.set()
        writer.join()
        close_dead(fd)
        self.start(root="again")
        self.add(1, start=False)
        self.control.resume(1)
        self.assertEqual(self.read(1), before)

    def test_cow_files_on_the_disk_itself_are_refused(self):
        run("mke2fs", "-q", "-F", "-t", "ext4", self.m.path("d.img"))
        loop = self.m.loop(self.d.node())
        point = self.m.mount(loop, "mnt")
        with self.assertRaises(Refused) as caught:
            self.add(1, where=point)
        self.assertEqual(caught.exception.result, -errno.EINVAL)
        self.assertIn("can't be on the partition being snapped!", self.d.log())

    def test_mounted_file_system_is_frozen_for_the_start(self):
        run("mke2fs", "-q", "-F", "-t", "ext4", self.m.path("d.img"))
        loop = self.m.loop(self.d.node())
        point = self.m.mount(loop, "mnt")
        with open(f"{point}/file", "wb") as file:
            file.write(b"not synced by anybody" * 1000)
        self.add(1)
        with open(f"{point}/file", "wb") as file:
            file.write(b"later")
        os.sync()
        frozen = self.m.mount(self.m.loop(self.d.node("trak1"), "--read-only"), "snap", "-o", "ro")
        with open(f"{frozen}/file", "rb") as file:
            self.assertEqual(file.read(), b"not synced by anybody" * 1000)


class FilesOnANode(SystemTest):
    """The driver's own files on the file system that is mounted through another of its nodes."""

    def setUp(self):
        super().setUp()
        self.dice = random.Random(11)
        with open(self.m.path("d.img"), "wb") as file:
            file.write(self.dice.randbytes(4 * MIB))
        self.d = self.m.trakd(images={"d": self.m.path("d.img"),
                                      "host": self.m.image("host.img", 64 * MIB, "ext4"),
                                      "e": self.m.image("e.img", 4 * MIB)})
        self.control = self.d.control()
        self.addCleanup(close_dead, self.control.fd)
        self.control.add_filter("/dev/image/host", self.m.folder("maps"), minor=5)
        self.control.start(5)
        self.loop = self.m.loop(self.d.node("trak5"))
        self.host = self.m.mount(self.loop, "host")

    def read(self, name):
        with open(self.d.node(name), "rb") as file:
            return file.read()

    def write(self, name, stop):
        dice = random.Random(name)
        fd = os.open(self.d.node(name), os.O_RDWR)
        try:
            while not stop.is_set():
                size = dice.choice((512, 4096, 40960))
                os.pwrite(fd, dice.randbytes(size), dice.randrange((4 * MIB - size) // 512) * 512)
                os.fsync(fd)
        finally:
            os.close(fd)

    def fill(self, stop):
        """Work for the file system that holds the files."""
        while not stop.is_set():
            with open(f"{self.host}/noise", "wb") as file:
                file.write(self.dice.randbytes(MIB))
                os.fsync(file.fileno())

    def test_nodes_come_and_go_under_load(self):
        self.control.add_filter("/dev/image/d", self.host, minor=0)
        self.control.start(0)
        before = self.read("trak0")
        self.control.add_snap(0, f"{self.host}/1.map", f"{self.host}/1.data", 4096, 1)
        self.control.start(1)
        stop = threading.Event()
        lanes = [threading.Thread(target=self.write, args=("trak0", stop)),
                 threading.Thread(target=self.fill, args=(stop,))]
        for lane in lanes:
            lane.start()
        try:
            for _ in range(4):
                self.control.add_filter("/dev/image/e", self.host, minor=7)
                self.control.add_snap(7, f"{self.host}/8.map", f"{self.host}/8.data", 4096, 8)
                self.control.start(8)
                self.control.delete(7)
                self.assertFalse(os.path.exists(f"{self.host}/8.data"))
                self.assertEqual(self.read("trak1"), before)
        finally:
            stop.set()
            for lane in lanes:
                lane.join()
        self.assertEqual(self.read("trak1"), before)
        self.control.delete(0)
        self.m.umount(self.host)
        self.m.unloop(self.loop)


if __name__ == "__main__":
    main()
