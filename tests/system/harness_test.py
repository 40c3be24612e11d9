# tests/system/harness_test.py: a trakd that hangs fails its test, and leaves nothing behind
# SPDX-License-Identifier: GPL-2.0-only
import os
import signal
import sys

import trak_sweep
from trak_machine import HERE, MIB, SystemTest
from trak_testing import main, run


class Harness(SystemTest):
    def check_free(self, loop):
        """Somebody else may have it by now; a file without its mount is one that was forgotten."""
        self.assertNotEqual(trak_sweep.backing(os.path.basename(loop)), "/dev/trak/trak0")

    def test_a_hang_is_told_with_its_reason_and_cleaned_up(self):
        done = run(sys.executable, f"{HERE}/hanging_trakd.py", expect=1, timeout=100,
                   cwd=HERE)
        loop, = [line.split()[1] for line in done.out.splitlines() if line.startswith("loop ")]
        self.check_free(loop)
        self.assertIn("took longer than 2 s; where everybody waits:", done.out)
        self.assertIn("trakd-io", done.out, "the threads of trakd are listed")
        self.assertIn("--- the end of trakd0.log", done.out)
        directory, = [line.split()[1] for line in done.out.splitlines()
                      if line.startswith("directory ")]
        self.assertEqual(trak_sweep.leftovers(directory), [])
        self.assertFalse(os.path.exists(directory))

    def test_a_killed_test_leaves_nothing(self):
        d = self.filter(16 * MIB)
        loop = self.m.loop(d.node())
        run("mke2fs", "-q", "-t", "ext4", loop)
        self.m.mount(loop, "mnt")
        d.signal(signal.SIGSTOP)
        self.assertNotEqual(trak_sweep.leftovers(self.m.dir), [])
        run(sys.executable, f"{HERE}/trak_sweep.py", self.m.dir)
        self.assertEqual(trak_sweep.leftovers(self.m.dir), [])
        self.assertFalse(os.path.exists(self.m.dir))
        self.check_free(loop)


if __name__ == "__main__":
    main()
