# tests/system/backup_test.py: backups under a running writer, and everything that goes wrong
# SPDX-License-Identifier: GPL-2.0-only
import json
import os
import shutil
import signal

from backup_machine import LIMIT, BackupTest, Writer, damage_last_block, digest
from trak_abi import GET, INCR, marked
from trak_machine import MIB
from trak_testing import main, run


class Chains(BackupTest):
    def run_chain(self):
        self.begin()
        writer = Writer(self.d.node(), self.size, 3)
        try:
            wanted = [self.frozen(kind) for kind in ("full", "incr", "diff", "incr", "incr", "diff")]
        finally:
            writer.end()
        for point, checksum in enumerate(wanted, 1):
            self.assertEqual(self.restored(point), checksum, f"backup {point}")
        self.agent("verify")
        self.assert_nothing_left()

    def test_every_point_is_the_disk_at_its_freeze_while_it_is_written(self):
        self.run_chain()

    def test_extents_of_4_kib(self):
        self.extent_size = 4096
        self.run_chain()

    def test_extents_of_16_mib_and_a_disk_that_ends_within_one(self):
        # So few extents are all marked soon, and every backup is a full one then.
        self.place = self.m.volume("roomy", 480 * MIB)
        self.store = f"{self.place}/store"
        self.extent_size = 16 * MIB
        self.size = 40 * MIB + 1536
        self.run_chain()

    def test_incr_reads_what_the_map_says_and_little_memory_is_taken(self):
        self.begin()
        self.agent("full")
        for at in range(0, 20 * MIB, MIB):
            self.write(at, 4096)
        one = self.stop_at("image-checked", "incr")
        with open(f"/proc/{one.process.pid}/status", encoding="utf-8") as file:
            peak = next(line for line in file if line.startswith("VmHWM:"))
        self.assertLess(int(peak.split()[1]), 64 * 1024)
        self.assertEqual(one.end()[0], 0)
        backup = [event for event in self.agent("list") if event["event"] == "backup"][-1]
        self.assertEqual(backup["extents"]["copied"], 20)
        self.assertEqual(backup["bytes"]["read"], 20 * 65536)
        self.assertLessEqual(backup["bytes"]["read"] + backup["bytes"]["audited"], 20 * 65536 * 1.9)

    def test_prune_keeps_every_point_that_stays(self):
        self.begin()
        wanted = {1: self.frozen("full")}
        for point in (2, 3, 4):
            self.write(point * 3 * MIB, 300000)
            wanted[point] = self.frozen("incr")
        wanted[5] = self.frozen("diff")
        self.agent("prune", "--keep-count", "3")
        for point in (1, 3, 4, 5):  # the full one stays under two of them
            self.assertEqual(self.restored(point), wanted[point], f"backup {point}")
        self.agent("prune", "--keep-count", "1")
        self.assertEqual(self.restored(5), wanted[5])
        self.agent("verify")
        self.write(MIB, 4096)
        checksum = self.frozen("incr")
        self.assertEqual(self.restored(6), checksum)


class FileSystems(BackupTest):
    def test_every_point_of_an_ext3_is_clean_and_full_reads_its_data_alone(self):
        image = self.m.image("d.img", self.size, "ext3")
        self.assertTrue(image)
        self.serve()
        device = self.m.loop(self.d.node())
        point = self.m.mount(device, "mnt", kind="ext3")
        with open(f"{point}/a", "wb") as file:
            file.write(self.dice.randbytes(4 * MIB))
        run("sync")
        events = self.agent("full")
        done = events[-1]
        self.assertEqual(done["event"], "done")
        self.assertLess(done["read"], 14 * MIB)
        shutil.copy(f"{point}/a", f"{point}/b")
        run("sync")
        self.agent("incr")
        os.unlink(f"{point}/a")
        self.agent("incr")
        self.m.umount(point)
        self.m.unloop(device)
        for number in (1, 2, 3):
            target = self.m.path("restored.img")
            self.agent("restore", "--point", str(number), "--to", target, "--force")
            run("e2fsck", "-fn", target)


class Damage(BackupTest):
    def setUp(self):
        super().setUp()
        self.size = 4 * MIB
        self.begin()
        self.agent("full")
        self.write(MIB, 100000)
        self.agent("incr")

    def files(self):
        return sorted(name for name in os.listdir(self.store) if "lock" not in name)

    def test_one_flipped_byte_in_any_file_is_found_and_named(self):
        self.assertEqual(len(self.files()), 9)
        for name in self.files():
            path = f"{self.store}/{name}"
            with open(path, "rb") as file:
                good = file.read()
            for at in sorted({0, len(good) - 1, self.dice.randrange(len(good))}):
                with open(path, "r+b") as file:
                    file.seek(at)
                    file.write(bytes([good[at] ^ 1 << self.dice.randrange(8)]))
                self.agent("verify", "--quick", expect=1)
                self.assertIn(name, self.said, f"byte {at}")
                with open(path, "wb") as file:
                    file.write(good)
        self.agent("verify")

    def lost(self):
        """Numbers of the backups that a verify called lost."""
        events = [json.loads(line) for line in self.said.splitlines() if line.startswith("{")]
        return [int(event["id"][:6]) for event in events if event["event"] == "lost"]

    def test_verify_says_which_backups_are_lost_with_a_file(self):
        self.write(2 * MIB, 100000)
        self.agent("incr")
        for name, lost in (("000001-full.qcow2", [1, 2, 3]), ("000002-incr.qcow2", [2, 3]),
                           ("000003-incr.qcow2", [3])):
            path = f"{self.store}/{name}"
            shutil.move(path, self.m.path("kept"))
            self.agent("verify", "--quick", expect=1)
            self.assertEqual(self.lost(), lost, self.said)
            shutil.move(self.m.path("kept"), path)
        self.agent("verify")
        self.assertEqual(self.lost(), [])

    def test_a_lost_file_is_named_and_the_next_backup_is_a_full_one(self):
        for name in self.files():
            path = f"{self.store}/{name}"
            shutil.move(path, self.m.path("kept"))
            self.agent("verify", "--quick", expect=1)
            self.assertIn(name, self.said)
            self.agent("incr", "--no-full", expect=0 if name == "store.json" else 1)
            if name == "store.json":
                for file in self.files():
                    if file.startswith("000003"):
                        os.unlink(f"{self.store}/{file}")
            shutil.move(self.m.path("kept"), path)

    def test_a_damaged_block_is_named_by_a_restore_and_older_backups_are_not_harmed(self):
        path = f"{self.store}/000002-incr.qcow2"
        damage_last_block(path)
        target = self.m.path("restored.img")
        self.agent("restore", "--to", target, expect=1)
        self.assertIn("are not what was backed up (extents ", self.said)
        self.assertFalse(os.path.exists(target))
        self.agent("restore", "--point", "1", "--to", target)


class Trouble(BackupTest):
    def test_a_store_that_fills_up_loses_nothing(self):
        self.place = self.m.volume("tight", 64 * MIB)
        self.store = f"{self.place}/store"
        self.begin()
        self.agent("full")
        with open(f"{self.place}/ballast", "wb") as file:
            file.write(self.dice.randbytes(18 * MIB))
        self.write(0, 20 * MIB)
        cow = self.m.volume("cow", 64 * MIB)
        self.agent("incr", "--cow-dir", cow, expect=1)
        self.assert_nothing_left()
        os.unlink(f"{self.place}/ballast")
        self.agent("verify", "--quick")
        wanted = self.frozen("incr", "--cow-dir", cow)
        self.assertEqual(self.restored(2), wanted)

    def test_a_store_that_can_not_be_written_is_refused_and_still_restores(self):
        self.begin()
        wanted = self.frozen("full")
        self.write(MIB, 4096)
        run("mount", "-o", "remount,ro", self.place)
        self.agent("incr", expect=1)
        self.assertIn("Read-only file system", self.said)
        self.agent("list")
        self.assertEqual(self.restored(1), wanted)
        run("mount", "-o", "remount,rw", self.place)
        wanted = self.frozen("incr")
        self.assertEqual(self.restored(2), wanted)

    def test_a_second_agent_is_refused_with_the_pid_of_the_first(self):
        self.begin()
        self.agent("full")
        first = self.stop_at("copy-begun", "full")
        for store in (self.store, f"{self.place}/other"):
            self.agent("incr", store=store, expect=1)
            self.assertIn(f"in use by process {first.process.pid}", self.said)
        status, said = first.end()
        self.assertEqual(status, 0, said)

    def test_an_interrupt_leaves_nothing_half_done(self):
        self.begin()
        self.agent("full")
        self.write(3 * MIB, 4096)
        for number in (signal.SIGINT, signal.SIGTERM):
            one = self.stop_at("copy-begun", "incr")
            with self.d.control() as control:
                self.assertEqual(marked(control.bits(GET, 0, INCR)), [])
            one.signal(number)
            status, said = one.end()
            self.assertEqual(status, 130, said)
            self.assert_nothing_left()
            with self.d.control() as control:
                self.assertEqual(marked(control.bits(GET, 0, INCR)), [48])
        wanted = self.frozen("incr")
        self.assertEqual(self.restored(2), wanted)

    def test_a_killed_run_is_settled_by_the_next_one(self):
        self.begin()
        self.agent("full")
        for step in ("incr-taken", "incr-held", "copy-half", "manifest-renamed"):
            self.write(self.dice.randrange(300) * 65536, 4096)
            run(*self.words("incr", "--kill-at", step), expect=-signal.SIGKILL, timeout=LIMIT)
            wanted = self.frozen("incr")
            backups = [e for e in self.agent("list") if e["event"] == "backup"]
            self.assertEqual(self.restored(backups[-1]["number"]), wanted, step)
            self.assert_nothing_left()

    def test_a_snapshot_that_becomes_invalid_is_named_and_nothing_is_lost(self):
        self.begin()
        self.agent("full")
        self.write(5 * MIB, 4096)
        tight = self.m.volume("tight", 4 * MIB)
        one = self.stop_at("image-made", "incr", "--cow-dir", tight, "--cow-reserve", "1K")
        for at in range(0, self.size, MIB):
            self.write(at, MIB)
        status, said = one.end()
        self.assertEqual(status, 1, said)
        self.assertIn("the snapshot became invalid", said)
        self.assertEqual([name for name in os.listdir(tight) if "trak" in name], [])
        self.assert_nothing_left()
        wanted = self.frozen("incr")
        self.assertEqual(self.restored(2), wanted)

    def test_a_write_past_the_filter_is_found_and_named_by_extent(self):
        self.begin()
        self.agent("full")
        self.agent("audit", "--all")
        with open(self.m.path("d.img"), "r+b") as file:
            file.seek(77 * 65536 + 1000)
            file.write(b"past the filter")
        events = self.agent("audit", "--all", expect=3)
        audit = [event for event in events if event["event"] == "audit"][-1]
        self.assertEqual((audit["differing"], audit["extents"]), (1, [77]))
        # The sample of an incr that takes in every block finds it too.
        self.write(0, 4096)
        self.agent("incr", "--audit-sample", "100000", expect=3)
        self.agent("incr", "--audit-sample", "0")

    def test_a_restart_of_the_driver_without_order_makes_a_full_backup(self):
        self.begin()
        self.agent("full")
        self.d.kill()
        run("umount", "-l", self.d.root)
        self.serve()
        self.agent("incr", "--no-full", expect=1)
        self.assertIn("every extent has changed, as after a stop without order", self.said)
        self.agent("incr")
        self.assertIn("making a full backup", self.said)
        self.assertEqual(self.restored(2), digest(self.m.path("d.img"), self.size))


if __name__ == "__main__":
    main()
