# tests/system/races_test.py: fio verifies its data on a filter while snapshots come and go
# SPDX-License-Identifier: GPL-2.0-only
"""Run with the plain trakd and with one that the thread sanitizer watches, which then ends with a
status of its own when it has seen a race.
"""
import shutil
import threading

from trak_abi import Refused
from trak_machine import MIB, SystemTest
from trak_testing import main, run, skip


class Races(SystemTest):
    def setUp(self):
        super().setUp()
        if not shutil.which("fio"):
            skip("there is no fio")
        self.cow = self.m.volume("cow", 96 * MIB)
        self.d = self.filter(16 * MIB)

    def come_and_go(self, control, stop, failures):
        rounds = 0
        try:
            while not stop.is_set() or rounds < 3:
                minor = rounds % 3 + 1
                control.add_snap(0, f"{self.cow}/{minor}.map", f"{self.cow}/{minor}.data", 65536,
                                 minor)
                control.start(minor)
                with open(self.d.node(f"trak{minor}"), "rb") as image:
                    first = image.read(MIB)
                    image.seek(0)
                    if image.read(MIB) != first:
                        failures.append(f"round {rounds}: the image changed")
                control.delete(minor)
                rounds += 1
        except (OSError, Refused) as error:
            failures.append(f"round {rounds}: {error!r}")

    def test_data_is_verified_while_snapshots_come_and_go(self):
        loop = self.m.loop(self.d.node(), "--direct-io=on")
        stop, failures = threading.Event(), []
        with self.d.control() as control:
            other = threading.Thread(target=self.come_and_go, args=(control, stop, failures))
            other.start()
            try:
                run("fio", "--name=v", f"--filename={loop}", "--direct=1", "--rw=randwrite",
                    "--bsrange=4k-64k", "--iodepth=8", "--ioengine=libaio", "--size=16M",
                    "--loops=2", "--verify=crc32c", "--verify_fatal=1", "--verify_state_save=0",
                    timeout=400, cwd=self.m.dir)
            finally:
                stop.set()
                other.join()
        self.assertEqual(failures, [])
        self.m.unloop(loop)
        self.d.stop()  # which looks at its status, too
        self.assertNotIn("ThreadSanitizer", self.d.log())


if __name__ == "__main__":
    main()
