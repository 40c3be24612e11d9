# tests/system/node_test.py: node files: any offset and length, many at once, to the disk and back
# SPDX-License-Identifier: GPL-2.0-only
import ctypes
import errno
import mmap
import os
import random
import shutil
import threading

from trak_abi import CLR, DIFF, GET, GET_AND_CLR, INCR, Refused, libc, marked
from trak_machine import MIB, SystemTest
from trak_testing import main, run, skip

SIZE = 16 * MIB
PUNCH, ZERO, KEEP = 2, 16, 1


class Node(SystemTest):
    def open(self, daemon, flags=os.O_RDWR):
        fd = os.open(daemon.node(), flags)
        self.addCleanup(os.close, fd)
        return fd

    def image(self):
        with open(self.m.path("d.img"), "rb") as file:
            return file.read()

    def test_any_offset_and_length_is_written_and_read(self):
        d = self.filter(SIZE)
        fd = self.open(d)
        dice, model = random.Random(4), bytearray(SIZE)
        for _ in range(400):
            size = dice.choice((1, 7, 511, 512, 513, 4096, 5000, 65536, 70001, 300000))
            at = dice.randrange(SIZE - size)
            if dice.random() < 0.5:
                at -= at % 512
            if dice.random() < 0.6:
                data = dice.randbytes(size)
                self.assertEqual(os.pwrite(fd, data, at), size)
                model[at:at + size] = data
            else:
                self.assertEqual(os.pread(fd, size, at), model[at:at + size], f"{size} at {at}")
        os.fsync(fd)
        self.assertEqual(os.pread(fd, SIZE, 0), bytes(model))
        self.assertEqual(self.image(), bytes(model))

    def test_the_end_is_where_the_disk_ends(self):
        d = self.filter(SIZE)
        fd = self.open(d)
        self.assertEqual(os.pread(fd, 100, SIZE), b"")
        self.assertEqual(os.pread(fd, 100, SIZE + 12345), b"")
        self.assertEqual(os.pread(fd, 4096, SIZE - 100), bytes(100))
        self.assertEqual(os.pwrite(fd, bytes(4096), SIZE - 100), 100)
        for at in (SIZE, SIZE + 512, 1 << 50):
            with self.assertRaises(OSError) as caught:
                os.pwrite(fd, b"x" * 512, at)
            self.assertEqual(caught.exception.errno, errno.ENOSPC)
        self.assertEqual(os.stat(self.m.path("d.img")).st_size, SIZE)

    def test_neighbours_in_one_sector_do_not_undo_each_other(self):
        d = self.filter(SIZE)
        fd = self.open(d)

        def write_mine(lane):
            for turn in range(60):
                for sector in range(4):
                    os.pwrite(fd, bytes([turn * 8 + lane & 0xFF]) * 64, sector * 512 + lane * 64)

        def write_whole():
            for turn in range(60):
                os.pwrite(fd, bytes([turn]) * 4096, 4096)

        lanes = [threading.Thread(target=write_mine, args=(lane,)) for lane in range(8)]
        lanes.append(threading.Thread(target=write_whole))
        for lane in lanes:
            lane.start()
        for lane in lanes:
            lane.join()
        want = b"".join(bytes([59 * 8 + lane & 0xFF]) * 64 for lane in range(8))
        self.assertEqual(os.pread(fd, 2048, 0), want * 4)
        self.assertEqual(os.pread(fd, 4096, 4096), bytes([59]) * 4096)

    def test_a_whole_sector_is_not_lost_to_a_partial_write_of_it(self):
        """A partial write reads the sector's rest and writes it back: a whole-sector write that
        comes between the two must be seen in the end, but for the bytes of the partial one."""
        d = self.filter(SIZE)
        fd = self.open(d)
        stop = threading.Event()

        def partial():
            while not stop.is_set():
                os.pwrite(fd, b"p" * 10, 512 + 100)

        other = threading.Thread(target=partial)
        other.start()
        try:
            for turn in range(400):
                value = turn % 100
                os.pwrite(fd, bytes([value]) * 512, 512)
                got = os.pread(fd, 512, 512)
                self.assertEqual(got[:100] + got[110:], bytes([value]) * 502, f"turn {turn}")
        finally:
            stop.set()
            other.join()

    def test_punched_and_zeroed_ranges_read_as_zeroes(self):
        d = self.filter(SIZE)
        fd = self.open(d)
        os.pwrite(fd, b"x" * MIB, 0)
        model = bytearray(b"x" * MIB)
        libc.fallocate.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_long, ctypes.c_long]
        for mode, at, size in ((PUNCH | KEEP, 4096, 8192), (ZERO | KEEP, 100000, 7777),
                               (PUNCH | KEEP, 65536, 65536), (ZERO, 513, 1)):
            self.assertEqual(libc.fallocate(fd, mode, at, size), 0)
            model[at:at + size] = bytes(size)
        self.assertEqual(libc.fallocate(fd, 0, 0, 4096), -1)
        self.assertEqual(os.pread(fd, MIB, 0), bytes(model))
        self.assertEqual(self.image()[:MIB], bytes(model))

    def test_synchronous_and_direct_writes_work(self):
        d = self.filter(SIZE)
        fd = self.open(d, os.O_RDWR | os.O_DSYNC | os.O_DIRECT)
        area = mmap.mmap(-1, 65536)
        area.write(os.urandom(65536))
        self.assertEqual(os.pwrite(fd, area, 65536), 65536)
        self.assertEqual(self.image()[65536:131072], area[:])

    def test_many_writers_at_once_mark_what_they_write(self):
        d = self.filter(SIZE)
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
            control.bmp(CLR, 0, DIFF)
            fd = self.open(d)
            wanted = set()

            def write(lane):
                dice = random.Random(lane)
                for _ in range(100):
                    at = dice.randrange(SIZE // 4096) * 4096
                    os.pwrite(fd, b"y" * 4096, at)
                    wanted.add(at // 65536)

            lanes = [threading.Thread(target=write, args=(lane,)) for lane in range(8)]
            for lane in lanes:
                lane.start()
            for lane in lanes:
                lane.join()
            self.assertEqual(set(marked(control.bits(GET, 0, INCR))), wanted)
            self.assertEqual(set(marked(control.bits(GET, 0, DIFF))), wanted)

    def test_fsync_reaches_the_disk(self):
        """The disk is a loop device: the kernel counts the flushes that it gets."""
        self.m.image("d.img", SIZE)
        disk = self.m.loop(self.m.path("d.img"))
        d = self.m.trakd()
        with d.control() as control:
            control.add_filter(disk, self.m.folder("maps"))
            control.start(0)

        def flushes():
            with open(f"/sys/block/{os.path.basename(disk)}/stat", encoding="ascii") as file:
                return int(file.read().split()[15])

        fd = self.open(d)
        for _ in range(3):
            os.pwrite(fd, b"z" * 4096, 0)
            before = flushes()
            os.fsync(fd)
            self.assertGreater(flushes(), before)
        # And through a loop device on the node, as a file system's barriers come.
        loop = self.m.loop(d.node())
        before = flushes()
        run("dd", "if=/dev/zero", f"of={loop}", "bs=4k", "count=1", "conv=fsync")
        self.assertGreater(flushes(), before)
        self.m.unloop(loop)

    def test_open_and_release_are_the_drivers(self):
        d = self.filter(SIZE, start=False)
        with self.assertRaises(OSError) as caught:
            os.open(d.node(), os.O_RDWR)
        self.assertEqual(caught.exception.errno, errno.EIO)
        with d.control() as control:
            control.start(0)
            fds = [os.open(d.node(), os.O_RDWR) for _ in range(3)]
            self.assertEqual(control.info(0).use_cnt, 3)
            with self.assertRaises(Refused) as caught:
                control.stop(0)
            self.assertEqual(caught.exception.result, -errno.EBUSY)
            for fd in fds:
                os.close(fd)
            control.stop(0)
            self.assertEqual(control.info(0).use_cnt, 0)

    def test_a_closed_node_can_be_stopped_at_once(self):
        d = self.filter(SIZE)
        with d.control() as control:
            for _ in range(50):
                fd = os.open(d.node(), os.O_RDWR)
                os.pwrite(fd, b"1" * 4096, 0)
                os.close(fd)
                control.stop(0)
                control.start(0)

    def test_data_is_verified_through_a_loop_device(self):
        if not shutil.which("fio"):
            skip("there is no fio")
        d = self.filter(4 * SIZE)
        loop = self.m.loop(d.node(), "--direct-io=on")
        for pattern in ("randwrite", "write"):
            run("fio", "--name=v", f"--filename={loop}", "--direct=1", f"--rw={pattern}",
                "--bsrange=512-256k", "--iodepth=16", "--ioengine=libaio", "--size=32M",
                "--verify=crc32c", "--verify_fatal=1", "--verify_state_save=0", timeout=100,
                cwd=self.m.dir)
        self.m.unloop(loop)

    def test_a_file_system_is_made_used_and_checked(self):
        d = self.filter(2 * SIZE)
        loop = self.m.loop(d.node())
        run("mke2fs", "-q", "-t", "ext4", loop)
        point = self.m.mount(loop, "mnt", "-o", "discard")
        for n in range(200):
            with open(f"{point}/{n}", "wb") as file:
                file.write(bytes([n]) * (1000 * n))
        for n in range(0, 200, 2):
            os.unlink(f"{point}/{n}")
        run("fstrim", point, expect=None)
        self.m.umount(point)
        point = self.m.mount(loop, "mnt")
        for n in range(1, 200, 2):
            with open(f"{point}/{n}", "rb") as file:
                self.assertEqual(file.read(), bytes([n]) * (1000 * n))
        self.m.umount(point)
        self.m.unloop(loop)
        run("e2fsck", "-fn", self.m.path("d.img"))


class Clearing(SystemTest):
    def test_every_write_is_in_one_map_or_the_other(self):
        d = self.filter(SIZE)
        maps, writes, done = [], [], threading.Event()
        begun = [0]  # clears begun
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
            fd = os.open(d.node(), os.O_RDWR)

            def write(lane):
                dice = random.Random(lane)
                while len(maps) < 40 and not done.is_set():
                    at = dice.randrange(SIZE // 65536)
                    first = len(maps)  # clears that were over before this write
                    os.pwrite(fd, b"w" * 4096, at * 65536)
                    writes.append((first, begun[0], at))

            lanes = [threading.Thread(target=write, args=(lane,)) for lane in range(4)]
            for lane in lanes:
                lane.start()
            try:
                while len(maps) < 40:
                    begun[0] += 1
                    maps.append(frozenset(marked(control.bits(GET_AND_CLR, 0, INCR))))
            finally:
                done.set()
                for lane in lanes:
                    lane.join()
            os.close(fd)
            maps.append(frozenset(marked(control.bits(GET_AND_CLR, 0, INCR))))
        self.assertGreater(len(writes), 40)
        for first, last, extent in writes:
            self.assertTrue(any(extent in one for one in maps[first:last + 1]),
                            f"extent {extent} is in none of the maps {first} to {last}")


if __name__ == "__main__":
    main()
