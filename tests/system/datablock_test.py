# tests/system/datablock_test.py: snapshots that leave out free space lose nothing, and say what they do
# SPDX-License-Identifier: GPL-2.0-only
"""TRAK_SEEDS=N: so many rounds of the audit instead of a few."""
import hashlib
import json
import os
import random
import shutil

from trak_machine import MIB, SystemTest
from trak_testing import check, main, run, skip

ROUNDS = int(os.environ.get("TRAK_SEEDS") or 5)
MOST_BYTES = 30 * MIB  # of files, on a disk of 64 MiB


class Files:
    """Files below a directory that are made, changed and deleted by dice."""

    def __init__(self, top, dice):
        self.top, self.dice, self.number = top, dice, 0

    def paths(self):
        return sorted(os.path.join(folder, name) for folder, _, names in os.walk(self.top)
                      for name in names)

    def sums(self):
        """Path below the top: checksum."""
        return {path[len(self.top):]: self.sum(path) for path in self.paths()}

    @staticmethod
    def sum(path):
        with open(path, "rb") as file:
            return hashlib.sha1(file.read()).hexdigest()

    def make(self, count):
        for _ in range(count):
            folder = f"{self.top}/d{self.number % 7}"
            os.makedirs(folder, exist_ok=True)
            size = self.dice.choice((100, 1500, 5000, 20000, 90000, 700000))
            with open(f"{folder}/f{self.number}", "wb") as file:
                file.write(self.dice.randbytes(size))
            self.number += 1

    def change(self):
        """Deletes, rewrites in place, appends, cuts, and makes new ones in what became free."""
        for path in self.paths():
            way = self.dice.randrange(6)
            if way in (0, 1):
                os.unlink(path)
            elif way == 2:
                with open(path, "r+b") as file:
                    file.write(self.dice.randbytes(os.path.getsize(path)))
            elif way == 3:
                with open(path, "ab") as file:
                    file.write(self.dice.randbytes(self.dice.randrange(60000)))
            elif way == 4:
                os.truncate(path, self.dice.randrange(3000))
        while sum(map(os.path.getsize, self.paths())) < MOST_BYTES:
            self.make(10)
        while sum(map(os.path.getsize, self.paths())) > MOST_BYTES + 8 * MIB:
            os.unlink(self.dice.choice(self.paths()))


class Datablock(SystemTest):
    def setUp(self):
        super().setUp()
        self.cow = self.m.volume("cow", 160 * MIB)

    def serve(self, image, chunk_size=65536, root="tree"):
        """A trakd with a started filter 0 over the image."""
        self.d = self.m.trakd(images={"d": image}, root=root)
        self.control = self.d.control()
        self.chunk_size = chunk_size
        self.control.add_filter("/dev/image/d", self.m.folder(f"maps-{root}"))
        self.control.start(0)

    def end(self):
        self.control.close()
        self.d.stop()

    def take(self, minor):
        self.control.add_snap(0, f"{self.cow}/{minor}.map", f"{self.cow}/{minor}.data",
                              self.chunk_size, minor)
        self.control.start(minor)

    def drop(self, minor):
        self.control.stop(minor)
        self.control.delete(minor)

    def told(self, minor):
        """What `info` says of the map; `status` says the same."""
        info = json.loads(self.d.trakctl("--json", "info", str(minor)).out)["datablocks"]
        status = json.loads(self.d.trakctl("--json", "status").out)
        self.assertEqual(status["filters"][0]["snapshots"][0]["datablocks"], info)
        return info

    def audit(self, options, chunk_size):
        image = self.m.image("d.img", 64 * MIB)
        run("mke2fs", "-q", "-F", *options, image)
        self.serve(image, chunk_size)
        loop = self.m.loop(self.d.node())
        point = self.m.mount(loop, "mnt", kind="ext3" if "ext3" in options else "ext2")
        files = Files(f"{point}/files", random.Random(chunk_size))
        files.make(40)
        for number in range(ROUNDS):
            self.one_round(files, f"round {number} of {options}, chunks of {chunk_size}")
        self.m.umount(point)
        self.m.unloop(loop)
        self.end()

    def one_round(self, files, what):
        """Everything that the files were at the start of the snapshot stands on it at the end."""
        before = files.sums()
        self.take(1)
        told = self.told(1)
        self.assertEqual((told["built"], told["units"]), (True, 64 * MIB // self.chunk_size), what)
        check(before and 0 < told["bytes_with_data"] < 60 * MIB, f"{what}: no free space: {told}")
        for _ in range(2):
            files.change()
            os.sync()
        self.assertNotEqual(files.sums(), before)
        frozen = self.m.loop(self.d.node("trak1"), "--read-only")
        run("e2fsck", "-fn", frozen)
        point = self.m.mount(frozen, "snap", "-o", "ro,noload")
        self.assertEqual(Files(f"{point}/files", None).sums(), before, what)
        self.m.umount(point)
        self.m.unloop(frozen)
        self.drop(1)

    def test_every_file_of_a_snapshot_is_what_it_was_with_blocks_of_1_KiB(self):
        self.audit(("-t", "ext3", "-b", "1024", "-J", "size=4"), 4096)

    def test_every_file_of_a_snapshot_is_what_it_was_with_blocks_of_4_KiB(self):
        self.audit(("-t", "ext3", "-b", "4096", "-J", "size=4"), 65536)

    def told_of(self, name, chunk_size=65536):
        """What is said of a snapshot of an unmounted image."""
        self.serve(self.m.path(name), chunk_size, f"tree-{name}")
        self.take(1)
        told = self.told(1)
        answer = json.loads(self.d.trakctl("--json", "datablock", "1").out)
        self.assertEqual(answer["marked_extents"], told["units_with_data"])
        self.drop(1)
        self.end()
        return told

    def test_what_a_map_was_built_from_is_told(self):
        made = (("ext2", 40, "ext2", "mke2fs -q -F -t ext2"),
                ("ext3", 64, "ext3", "mke2fs -q -F -t ext3"),
                ("reiserfs", 160, "ReiserFS", "mkreiserfs -q -f"),
                ("xfs", 320, "XFS", "mkfs.xfs -q -f -m crc=0,finobt=0"))
        for name, size, known_as, command in made:
            if not shutil.which(command.split()[0]):
                skip(f"there is no {command.split()[0]}")
            run(*command.split(), self.m.image(name, size * MIB))
            told = self.told_of(name)
            self.assertEqual((told["built"], told["file_system"]), (True, known_as), name)
            self.assertEqual(told["units"], size * MIB // 65536)
            check(told["units_with_data"] < told["units"] // 2, f"{name}: {told}")
            self.assertEqual(told["bytes_with_data"], told["units_with_data"] * 65536)

    def test_disks_without_a_map_say_that_everything_is_data(self):
        made = (("empty", "true"), ("ext4", "mke2fs -q -F -t ext4 -O 64bit"),
                ("newer", "mkfs.xfs -q -f -m crc=1"), ("older", "mkreiserfs -q -f --format 3.5"))
        for name, command in made:
            if not shutil.which(command.split()[0]):
                skip(f"there is no {command.split()[0]}")
            run(*command.split(), self.m.image(name, 320 * MIB))
            told = self.told_of(name)
            self.assertEqual((told["built"], told["file_system"]), (False, None), name)
            self.assertEqual(told["bytes_with_data"], 320 * MIB)
            self.assertEqual(told["units_with_data"], 5120)


if __name__ == "__main__":
    main()
