# tests/system/backup_pressure_test.py: backups of disks that make it hard, and beside others' snapshots
# SPDX-License-Identifier: GPL-2.0-only
import json
import os
import random
import threading

from trak_abi import DIFF, GET, INCR, SET, marked
from trak_backup import TRAK_BACKUP, Disk
from trak_machine import MIB, SystemTest
from trak_testing import check, main, run


class Backups(SystemTest):
    """A disk with a full backup."""

    size, extent_size = 4 * MIB, 8192

    def setUp(self):
        super().setUp()
        self.dice = random.Random(7)
        self.disk = Disk(self.m, self.dice, self.size, self.extent_size)
        self.addCleanup(self.disk.close)
        self.disk.new_store()
        self.backup("full")
        self.control = self.disk.daemon.control()
        self.addCleanup(self.control.close)

    def backup(self, kind, *options, kind_made=None):
        """One that ends well, with nobody writing; its manifest."""
        data = self.disk.bytes()
        agent = self.disk.backup(kind, *options)
        agent.wait()
        self.disk.remember(data)
        self.disk.check_nothing_left()
        made = self.disk.backups()[-1]
        self.assertEqual(made["kind"], kind_made or kind, made["reason"])
        return made

    def stop(self, kind, step, *options):
        agent = self.disk.backup(kind, "--stop-at", step, *options)
        check(agent.stopped(), f"it did not come to {step}:\n{agent.said()}")
        return agent

    def fails(self, agent, *words):
        """It ends with 1 and a message that has these words; nothing is left, and no backup was made."""
        before = len(self.disk.backups())
        agent.go_on()
        agent.wait(expect=1)
        for word in words:
            self.assertIn(word, agent.event("error")["text"])
        self.assertEqual(len(self.disk.backups()), before)
        self.disk.check_nothing_left()

    def marks(self, which=INCR):
        return set(marked(self.control.bits(GET, 0, which)))

    def overwrite(self, first=0, last=None):
        """Every byte of the disk, or of some extents of it."""
        last = self.disk.size if last is None else last * self.disk.extent_size
        for at in range(first * self.disk.extent_size, last, MIB):
            os.pwrite(self.disk.fd, self.dice.randbytes(min(MIB, last - at)), at)


class OtherSnapshots(Backups):
    def snap(self, minor):
        where = self.disk.volume
        self.control.add_snap(0, f"{where}/{minor}.map", f"{where}/{minor}.data", 65536, minor)
        self.control.start(minor)

    def test_next_backup_is_made_while_the_snapshot_of_a_killed_one_waits_for_an_older(self):
        """The deletion of a snapshot is postponed while an older one runs: its files are in use."""
        self.snap(9)
        self.disk.writer.write(10)
        agent = self.stop("incr", "copied")
        agent.kill()
        self.disk.wait_unlocked()
        self.disk.writer.write(10)
        data = self.disk.bytes()
        self.disk.backup("incr").wait()
        self.disk.remember(data)
        self.control.delete(9)
        self.disk.check_nothing_left()

    def test_files_of_a_postponed_deletion_are_swept_when_its_driver_was_killed(self):
        self.snap(9)
        self.disk.backup("incr").wait()
        left = [name for name in os.listdir(self.disk.store) if name.startswith("trak-backup-")]
        self.assertEqual(len(left), 2)
        self.disk.kill()
        self.disk.start()
        self.backup("incr", kind_made="full")

    def test_what_another_snapshot_holds_back_is_in_the_image(self):
        """Writes wait for its copies when the map is taken and the backup's own snapshot starts."""
        for minor in range(9, 14):
            self.snap(minor)
            self.disk.writer.start(60)
            agent = self.stop("incr", "frozen")
            own = next(m for m in self.control.minors(2) if m != minor)
            with open(self.disk.daemon.node(f"trak{own}"), "rb") as file:
                data = file.read()
            agent.go_on()
            agent.wait()
            self.disk.writer.pause()
            self.disk.remember(data)
            self.control.delete(minor)
        self.disk.check_all_old()

    def test_a_snapshot_that_somebody_stops_ends_the_backup(self):
        for kind in ("full", "incr", "diff"):
            self.overwrite(first=5, last=8)
            before = self.marks()
            agent = self.stop(kind, "map-read")
            minor = max(self.control.minors(2))
            self.control.delete(minor)
            self.fails(agent, "stopped or deleted by somebody else")
            self.assertLessEqual(before, self.marks())
        self.backup("incr")

    def test_a_snapshot_that_somebody_puts_in_its_place_is_not_read(self):
        """The same minor, but another moment: what was written before it is in no map that was read."""
        self.overwrite(first=5, last=8)
        agent = self.stop("incr", "map-read")
        minor = max(self.control.minors(2))
        self.control.delete(minor)
        self.overwrite(first=20, last=22)
        self.snap(minor)
        before = len(self.disk.backups())
        agent.go_on()
        agent.wait(expect=1)
        self.assertIn("by somebody else", agent.event("error")["text"])
        self.assertEqual(len(self.disk.backups()), before)
        self.assertEqual(self.control.minors(2), [minor])
        self.control.delete(minor)
        self.assertLessEqual({5, 6, 7, 20, 21}, self.marks())
        self.backup("incr")


class LittleRoom(Backups):
    def test_a_snapshot_that_becomes_invalid_ends_the_backup_and_gives_the_map_back(self):
        tight = self.m.volume("tight", 4 * MIB)
        for kind, step in (("full", "copy-begun"), ("incr", "copy-begun"), ("incr", "copied"),
                           ("diff", "frozen"), ("diff", "copy-half")):
            self.overwrite(first=100, last=300)
            before, before_diff = self.marks(), self.marks(DIFF)
            agent = self.stop(kind, step, "--cow-dir", tight, "--cow-reserve", "64K")
            filler = f"{tight}/filler"
            with open(filler, "wb") as file:
                self.fill(file)
            self.overwrite()
            self.fails(agent, "became invalid", tight)
            self.assertEqual(sorted(os.listdir(tight)), ["filler", "lost+found"], kind)
            os.unlink(filler)
            self.assertLessEqual(before, self.marks(), kind)
            self.assertLessEqual(before_diff, self.marks(DIFF), kind)
            self.backup("full")
        self.disk.check_all_old()

    def fill(self, file):
        try:
            while True:
                file.write(bytes(4096))
                file.flush()
        except OSError:
            pass

    def test_what_was_read_before_it_became_invalid_is_a_backup(self):
        tight = self.m.volume("tight", 4 * MIB)
        self.overwrite(first=100, last=110)
        data = self.disk.bytes()
        agent = self.stop("incr", "image-checked", "--cow-dir", tight, "--cow-reserve", "64K")
        with open(f"{tight}/filler", "wb") as file:
            self.fill(file)
        self.overwrite()
        agent.go_on()
        agent.wait()
        self.disk.remember(data)
        self.disk.check_nothing_left()
        self.assertEqual(sorted(os.listdir(tight)), ["filler", "lost+found"])

    def test_too_little_room_for_what_is_written_meanwhile_is_said_before(self):
        agent = self.disk.backup("incr", "--cow-reserve", "100G")
        agent.wait(expect=1)
        self.assertIn("make room", agent.event("error")["text"])
        self.assertEqual(self.marks(), set())

    def test_a_map_that_the_store_has_no_room_for_goes_back_as_it_was(self):
        """A step before it is durable, and nobody else has it: it is not unknown all the same."""
        for kind in ("incr", "full"):
            self.overwrite(first=100, last=120)
            before, before_diff = self.marks(), self.marks(DIFF)
            agent = self.stop(kind, "incr-taken")
            self.assertEqual(self.marks(), set())
            filler = f"{self.disk.volume}/filler"
            with open(filler, "wb") as file:
                self.fill(file)
            agent.go_on()
            agent.wait(expect=1)
            os.unlink(filler)
            self.assertEqual((self.marks(), self.marks(DIFF)), (before, before_diff), agent.said())
        self.backup("incr")


class FullSpeed(Backups):
    size = 16 * MIB

    def test_a_disk_that_is_written_throughout_restores_to_its_freeze(self):
        stop = threading.Event()

        def write(lane):
            dice = random.Random(lane)
            pieces = [dice.randbytes(size) for size in (512, 4096, 65536)]
            while not stop.is_set():
                piece = dice.choice(pieces)
                os.pwrite(self.disk.fd, piece,
                          dice.randrange((self.disk.size - len(piece)) // 512) * 512)

        lanes = [threading.Thread(target=write, args=(lane,)) for lane in range(4)]
        for lane in lanes:
            lane.start()
        try:
            for kind in ("full", "incr", "diff", "incr"):
                agent = self.stop(kind, "frozen")
                data = self.disk.snapshot()
                agent.go_on()
                agent.wait()
                self.disk.remember(data)
                self.disk.check_nothing_left()
        finally:
            stop.set()
            for lane in lanes:
                lane.join()
        self.backup("incr", kind_made=None if len(self.marks()) < 2048 else "full")
        self.disk.check_all_old()

    def test_a_map_of_all_ones_makes_it_full_or_refused(self):
        for which, kind in ((INCR, "incr"), (DIFF, "diff")):
            self.control.bits(SET, 0, which, b"\xff" * self.control.info(0).bmp_size)
            self.disk.writer.write(5)
            agent = self.disk.backup(kind, "--no-full")
            agent.wait(expect=1)
            self.assertIn("every extent has changed", agent.event("error")["text"])
            made = self.backup(kind, kind_made="full")
            self.assertIn("every extent has changed", made["reason"])
            self.assertEqual(self.marks(which), set())

    def test_a_map_of_nearly_all_ones_is_copied(self):
        bits = bytearray(b"\xff" * self.control.info(0).bmp_size)
        bits[-1] = 0x7f
        self.control.bits(SET, 0, INCR, bits)
        self.control.bits(SET, 0, DIFF, bits)
        for kind in ("diff", "incr"):
            self.overwrite(first=0, last=2047)
            made = self.backup(kind, "--audit-sample", "0") if kind == "incr" else self.backup(kind)
            self.assertEqual(made["bytes"]["read"], 16 * MIB - 8192)


class Extents(SystemTest):
    """The smallest and large ones; a disk that ends within an extent, and within a chunk."""

    def chain(self, size, extent_size, *options, writes=8):
        dice = random.Random(extent_size)
        disk = Disk(self.m, dice, size, extent_size)
        self.addCleanup(disk.close)
        disk.new_store()
        for kind in ("full", "incr", "diff", "incr", "incr"):
            disk.writer.write(writes)
            os.pwrite(disk.fd, dice.randbytes(1024), size - 1024)
            data = disk.bytes()
            agent = disk.backup(kind, *options)
            agent.wait()
            self.assertEqual(disk.backups()[-1]["kind"], kind)
            disk.remember(data)
            disk.check_nothing_left()
        disk.check_all_old()
        return disk.backups()

    def test_of_4_kib(self):
        made = self.chain(6 * MIB + 3072, 4096)
        self.assertLess(made[-1]["bytes"]["read"], MIB)

    def test_of_16_mib(self):
        made = self.chain(100 * MIB + 512, 16 * MIB, writes=1)
        self.assertEqual(made[0]["extents"]["copied"], 7)
        self.assertLess(made[-1]["bytes"]["written"], 8 * MIB)

    def test_of_4_kib_under_chunks_of_1_mib(self):
        self.chain(6 * MIB + 3072, 4096, "--chunk-size", "1M")


class Large(SystemTest):
    """4 TiB with a file system in it: sparse on the host, and what it leaves free is not read."""

    size, unit = 4 << 40, 1 << 20

    def attach(self, image):
        daemon = self.m.trakd(images={"d": image})
        daemon.trakctl("add-filter", "--disk", "/dev/image/d", "--extent-size", str(self.unit),
                       "--bmp-dir", self.m.folder("stores/maps"))
        daemon.trakctl("start", "0")
        return daemon

    def backup(self, daemon, kind, store):
        """The manifest. The agent has no more memory than 64 MiB besides its maps and its programs."""
        said = run("python3", "-c", PEAK, TRAK_BACKUP, "--root", daemon.root, kind, "--disk", "0",
                   "--store", store, "--cow-reserve", "16M", timeout=200)
        peak = int(said.err.split()[-1]) << 10
        self.assertLess(peak, 64 * MIB + 4 * (self.size // self.unit // 8) + 24 * MIB)
        name = max(name for name in os.listdir(store) if name.endswith(f"-{kind}.json"))
        with open(f"{store}/{name}", encoding="utf-8") as file:
            return json.load(file)

    def compare(self, one, other):
        """Two sparse files, wherever either has data."""
        with open(one, "rb") as a, open(other, "rb") as b:
            for file in (a, b):
                for at, size in data_of(file):
                    for offset in range(at, at + size, MIB):
                        count = min(MIB, at + size - offset)
                        if os.pread(a.fileno(), count, offset) != os.pread(b.fileno(), count, offset):
                            self.fail(f"they differ within {count} bytes at {offset}")

    def test_a_disk_of_4_tib(self):
        self.m.tell_watcher(f"{self.id()}|500")
        image = self.m.image("d.img", self.size)
        run("mkfs.xfs", "--unsupported", "-q", "-f", "-m", "crc=0,finobt=0", "-d", "agcount=8",
            "-l", "size=64m", image)
        self.m.volume("stores", 512 * MIB)
        daemon, store = self.attach(image), self.m.path("stores/4t")
        self.assertLess(self.backup(daemon, "full", store)["bytes"]["read"], 256 * MIB)
        places = (3 << 40, self.size - 4096)
        with open(daemon.node(), "r+b", buffering=0) as disk:
            for at in places:
                disk.seek(at)
                disk.write(os.urandom(4096))
        made = self.backup(daemon, "incr", store)
        self.assertEqual(made["extents"]["copied"], len(places))
        target = self.m.path("restored.img")
        run(TRAK_BACKUP, "restore", "--store", store, "--to", target, timeout=400)
        self.assertEqual(os.stat(target).st_size, self.size)
        self.compare(image, target)


def data_of(file):
    """[(offset, size)] of what is no hole."""
    found, at = [], 0
    while True:
        try:
            at = os.lseek(file.fileno(), at, os.SEEK_DATA)
        except OSError:
            return found
        end = os.lseek(file.fileno(), at, os.SEEK_HOLE)
        found.append((at, end - at))
        at = end


# Runs a command, and says how many KiB it had at most.
PEAK = """import os, sys
pid = os.posix_spawn(sys.argv[1], sys.argv[1:], os.environ)
_, status, used = os.wait4(pid, 0)
print(used.ru_maxrss, file=sys.stderr)
sys.exit(os.waitstatus_to_exitcode(status))"""


if __name__ == "__main__":
    main()
