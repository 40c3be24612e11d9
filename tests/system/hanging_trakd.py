# tests/system/hanging_trakd.py: what harness_test.py runs, and expects to fail
# SPDX-License-Identifier: GPL-2.0-only
import os
import signal

from trak_machine import MIB, SystemTest
from trak_testing import main, run


class Hangs(SystemTest):
    def test_of_a_trakd_that_was_stopped(self):
        d = self.filter(16 * MIB)
        loop = self.m.loop(d.node())
        run("mke2fs", "-q", "-t", "ext4", loop)
        self.m.mount(loop, "mnt")
        print(f"\ndirectory {self.m.dir}\nloop {loop}", flush=True)
        self.m.tell_watcher("a trakd that was stopped|2")
        d.signal(signal.SIGSTOP)
        os.stat(f"{d.root}/proc/trak/debug")


if __name__ == "__main__":
    main()
