# tests/system/configured_test.py: attach-all and stop-all, as the units call them, over a trakd
# SPDX-License-Identifier: GPL-2.0-only
import os
import subprocess
import threading

from trak_machine import MIB, TRAKCTL, SystemTest
from trak_testing import Failed, WAIT, eventually, main, run

SIZE = 16 * MIB


class Configured(SystemTest):
    def setUp(self):
        super().setUp()
        self.etc = self.m.folder("etc")
        self.maps = self.m.folder("maps")

    def put(self, name, disk, minor, more=""):
        with open(f"{self.etc}/{name}", "w", encoding="utf-8") as file:
            file.write(f"# {name}\ndisk = {disk}\nminor = {minor}\nbitmaps = {self.maps}\n{more}")

    def all(self, daemon, verb, *words, expect=0):
        return daemon.trakctl(f"{verb}-all", "--config", self.etc, *words, expect=expect)

    def write(self, daemon, name, extent):
        fd = os.open(daemon.node(name), os.O_RDWR)
        os.pwrite(fd, b"c" * 4096, extent * 65536)
        os.fsync(fd)
        os.close(fd)

    def changed(self, daemon, minor):
        """The first line of each run: "extent count bytes"."""
        return daemon.trakctl("bitmap", "get", str(minor), "incr").out

    def two_disks(self):
        """Two images, configured; a trakd that knows them."""
        self.images = {name: self.m.image(f"{name}.img", SIZE) for name in ("a", "b")}
        self.put("10-b.conf", "/dev/image/b", 4, "name = bee\n")
        self.put("20-a.conf", "/dev/image/a", 1)
        return self.m.trakd(images=self.images)

    def markers(self):
        return sorted(name for name in os.listdir(self.maps) if name.endswith(".session"))

    def test_a_boot_after_an_orderly_end_knows_what_changed(self):
        d = self.two_disks()
        out = self.all(d, "attach").out.splitlines()
        self.assertEqual([f"{self.etc}/10-b.conf: node 4 (bee) on /dev/image/b is attached and "
                          "started", f"{self.etc}/20-a.conf: node 1 (trak1) on /dev/image/a is "
                          "attached and started"], out)
        for minor in ("1", "4"):
            d.trakctl("bitmap", "clear", minor, "incr")
        self.write(d, "bee", 7)
        self.assertEqual(["trak1.session", "trak4.session"], self.markers())
        out = self.all(d, "stop", "--wait", "60").out.splitlines()
        self.assertEqual(["node 1 (trak1) on /dev/image/a is stopped and deleted",
                          "node 4 (bee) on /dev/image/b is stopped and deleted"], out)
        self.assertEqual([], self.markers())
        d.kill()
        d = self.m.trakd(images=self.images, root="again")
        done = self.all(d, "attach")
        self.assertEqual("", done.err)
        self.assertRegex(self.changed(d, 4), r"(?m)^\s*7\s+1\s")
        self.assertNotRegex(self.changed(d, 1), r"(?m)^\s*0\s")

    def test_a_boot_after_a_crash_counts_everything(self):
        d = self.two_disks()
        self.all(d, "attach")
        for minor in ("1", "4"):
            d.trakctl("bitmap", "clear", minor, "incr")
        d.kill()
        d = self.m.trakd(images=self.images, root="again")
        done = self.all(d, "attach")
        self.assertEqual(2, done.err.count("everything counts as changed"), done.err)
        for minor in (1, 4):
            self.assertRegex(self.changed(d, minor), rf"(?m)^\s*0\s+{SIZE // 65536}\s")

    def test_one_disk_that_is_missing_or_mounted_leaves_the_others(self):
        loop = self.m.loop(self.m.image("l.img", SIZE, "ext4"))
        self.m.mount(loop, "point")
        d = self.two_disks()
        self.put("05-mounted.conf", loop, 2)
        self.put("06-missing.conf", self.m.path("nothing"), 3, "wait = 1\n")
        self.put("07-wrong.conf", loop, "many")
        done = self.all(d, "attach", expect=1)
        self.assertEqual(2, len(done.out.splitlines()), done.out)
        for text in (f"05-mounted.conf: {loop} is mounted or open elsewhere",
                     f"06-missing.conf: there is no disk {self.m.path('nothing')} after 1 seconds",
                     "07-wrong.conf:3: \"many\" is no minor number"):
            self.assertIn(text, done.err)
        self.assertEqual(["trak1.session", "trak4.session"], self.markers())

    def test_a_disk_that_appears_late_is_attached(self):
        loop, late = self.m.loop(self.m.image("l.img", SIZE)), self.m.path("late")
        d = self.m.trakd()
        self.put("late.conf", late, 0, "wait = 3600\n")
        with subprocess.Popen([TRAKCTL, "--root", d.root, "attach-all", "--config", self.etc],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as waits:
            limit = threading.Timer(2 * WAIT, waits.kill)
            limit.start()
            os.symlink(loop, late)
            out, err = waits.communicate()
            limit.cancel()
        self.assertEqual(0, waits.returncode, err)
        self.assertIn("is attached and started", out)

    def test_a_reload_attaches_what_is_new(self):
        d = self.two_disks()
        os.rename(f"{self.etc}/20-a.conf", f"{self.etc}/20-a.conf.off")
        self.all(d, "attach")
        os.rename(f"{self.etc}/20-a.conf.off", f"{self.etc}/20-a.conf")
        out = self.all(d, "attach").out
        self.assertIn("node 4 (bee) on /dev/image/b is started already", out)
        self.assertIn("node 1 (trak1) on /dev/image/a is attached and started", out)

    def test_a_mounted_node_is_waited_for_at_shutdown(self):
        d = self.two_disks()
        run("mke2fs", "-q", "-F", "-t", "ext4", self.images["b"])
        self.all(d, "attach")
        loop = self.m.loop(d.node("bee"))
        point = self.m.mount(loop, "point")
        done = self.all(d, "stop", expect=1)
        self.assertIn("can't stop node 4: it (or one of its snapshots) is in use", done.err)
        self.assertIn("node 1 (trak1) on /dev/image/a is stopped and deleted", done.out)
        self.assertEqual(["trak4.session"], self.markers())
        with subprocess.Popen([TRAKCTL, "--root", d.root, "stop-all", "--config", self.etc,
                               "--wait", "3600"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True) as waits:
            limit = threading.Timer(2 * WAIT, waits.kill)
            limit.start()
            self.m.umount(point)
            self.m.unloop(loop)
            out, err = waits.communicate()
            limit.cancel()
        self.assertEqual((0, ""), (waits.returncode, err))
        self.assertIn("node 4 (bee) on /dev/image/b is stopped and deleted", out)
        self.assertEqual([], self.markers())

    def test_snapshots_keep_their_files_over_a_stop(self):
        d = self.two_disks()
        self.all(d, "attach")
        cow = self.m.volume("cow")
        d.trakctl("add-snap", "--filter", "4", "--chunk-size", "64K", "--cow-bmp", f"{cow}/m",
                  "--cow-data", f"{cow}/d", "--minor", "9")
        d.trakctl("start", "9")
        out = self.all(d, "stop").out
        self.assertIn("node 4 (bee) on /dev/image/b is stopped\n", out)
        self.assertTrue(os.path.exists(f"{cow}/m") and os.path.exists(f"{cow}/d"))
        self.assertEqual([], self.markers())
        self.assertIn("node 4 (bee) on /dev/image/b is started\n", self.all(d, "attach").out)


if __name__ == "__main__":
    main()
