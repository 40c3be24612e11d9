# tests/system/lifecycle_test.py: how trakd starts and ends, and what is left for the next start
# SPDX-License-Identifier: GPL-2.0-only
import os
import pathlib
import re
import signal
import threading
import time

from trak_abi import CLR, DIFF, GET, INCR, marked
from trak_machine import MIB, TRAKD, SystemTest
from trak_testing import eventually, main, run, skip
import trak_sweep

SIZE = 16 * MIB


class Start(SystemTest):
    def refused(self, *words, status=1, wrapper=()):
        """One line on standard error, and nothing mounted."""
        done = run(*wrapper, TRAKD, *words, expect=status)
        lines = done.err.splitlines()
        self.assertEqual(len(lines), 1, done.err)
        self.assertTrue(lines[0].startswith("trakd: "), done.err)
        self.assertEqual(trak_sweep.mounts(self.m.dir), [])
        return lines[0]

    def test_each_obstacle_is_one_clear_line(self):
        tree, image = self.m.folder("tree"), self.m.image("d.img", SIZE)
        for mode in ((), ("--foreground",)):
            self.assertIn("No such file", self.refused(*mode, "--disk", "d=/no/such", tree))
            self.assertIn("not a regular file", self.refused(*mode, "--disk", "d=/dev/null", tree))
            self.assertIn("not a regular file", self.refused(*mode, "--disk", f"d={tree}", tree))
            self.assertIn("No such file", self.refused(*mode, f"{tree}/none"))
            self.assertIn("Not a directory", self.refused(*mode, image))
            self.assertIn("no such parameter", self.refused(*mode, "--param", "speed=1", tree))
            for value in ("x", "", "1x", "99999999999", " 1"):
                self.assertIn("whole number",
                              self.refused(*mode, "--param", f"trak_debug={value}", tree))
            self.assertIn("d.img", self.refused(*mode, "--disk", f"a={image}", "--disk",
                                                f"b={image}", tree))
            self.refused(*mode, "--disk", f"a/b={image}", tree)

    def test_wrong_usage_is_status_2(self):
        tree = self.m.folder("tree")
        for words in ((), ("--nonsense", tree), (tree, tree), ("--disk", tree),
                      ("--disk", "d", tree), ("--disk", "=x", tree), ("--param",)):
            self.refused(*words, status=2)
        self.assertIn("MOUNTPOINT", run(TRAKD, "--help").out)
        self.assertIn("trakd", run(TRAKD, "--version").out)

    def test_a_missing_dev_fuse_is_named(self):
        hide = ["unshare", "-m", "sh", "-c",
                'mount -t tmpfs none "$0" && mount --bind "$0" /dev && exec "$@"',
                self.m.folder("empty")]
        if run(*hide, "true", expect=None).status != 0:
            skip("mount name spaces can't be made")
        line = self.refused(self.m.folder("tree"), wrapper=hide)
        self.assertIn("/dev/fuse is missing", line)

    def test_a_second_trakd_at_one_mount_point_is_refused(self):
        d = self.filter(SIZE)
        for words in ((d.root,), (d.root + "/",), ("--foreground", d.root)):
            done = run(TRAKD, *words, expect=1)
            self.assertIn("another trakd serves at", done.err)
            self.assertEqual(len(done.err.splitlines()), 1, done.err)
        with d.control() as control:
            self.assertEqual(control.info(0).started, 1)
        link = self.m.path("link")
        os.symlink(d.root, link)
        self.assertIn("another trakd serves at", run(TRAKD, link, expect=1).err)

    def test_of_two_that_start_at_once_one_serves(self):
        first = self.m.start_trakd()
        second = self.m.start_trakd()
        ended = eventually(lambda: [one for one in (first, second)
                                    if one.process.poll() is not None], "one is refused")
        other = second if ended[0] is first else first
        other.wait_ready()
        self.assertEqual(ended[0].wait(), 1)
        self.assertIn("another trakd", ended[0].log())

    def test_two_serve_at_two_mount_points(self):
        first, second = self.m.trakd(root="one"), self.m.trakd(root="two")
        self.assertTrue(os.path.exists(f"{first.root}/proc/trak"))
        self.assertTrue(os.path.exists(f"{second.root}/proc/trak"))

    def test_as_a_daemon_it_serves_when_the_starter_ends(self):
        tree = self.m.folder("tree")
        log = self.m.path("trakd-own.log")
        run(TRAKD, "--log-file", log, tree, cwd=self.m.dir)
        self.assertTrue(os.path.exists(f"{tree}/dev/trakctl"))
        pid, = trak_sweep.daemons(self.m.dir)
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        os.kill(pid, signal.SIGTERM)
        self.assertTrue(trak_sweep.wait_gone(pid, 60))
        with open(log, encoding="utf-8") as file:
            self.assertIn("trakd: ended in order", file.read())

    def test_relative_paths_are_those_of_the_starter(self):
        self.m.image("d.img", SIZE)
        self.m.folder("tree")
        run(TRAKD, "--disk", "d=d.img", "--log-file", "own.log", "tree", cwd=self.m.dir)
        with open(self.m.path("tree/log"), encoding="utf-8") as file:
            self.assertIn("serving at", file.read())
        self.assertTrue(os.path.exists(self.m.path("own.log")))
        run("umount", self.m.path("tree"))
        own_log = pathlib.Path(self.m.path("own.log"))
        eventually(lambda: "ended in order" in own_log.read_text(encoding="utf-8"), "it ends")


class End(SystemTest):
    def write(self, daemon, extents):
        fd = os.open(daemon.node(), os.O_RDWR)
        for extent in extents:
            os.pwrite(fd, b"e" * 4096, extent * 65536)
        os.fsync(fd)
        os.close(fd)

    def again(self, daemon):
        """The same disk and maps under another trakd."""
        d = self.m.trakd(images={"d": self.m.path("d.img")}, root="again")
        self.assertIsNotNone(daemon.process.poll())
        return d

    def test_both_maps_survive_an_orderly_end(self):
        d = self.filter(SIZE)
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
            control.bmp(CLR, 0, DIFF)
            self.write(d, (3, 5))
            control.bmp(CLR, 0, INCR)
            self.write(d, (7,))
        d.stop()
        d = self.again(d)
        with d.control() as control:
            control.add_filter("/dev/image/d", self.m.path("maps"))
            self.assertEqual(marked(control.bits(GET, 0, INCR)), [7])
            self.assertEqual(marked(control.bits(GET, 0, DIFF)), [3, 5, 7])

    def test_after_a_kill_everything_counts_as_changed(self):
        d = self.filter(SIZE)
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
            control.bmp(CLR, 0, DIFF)
            fd = os.open(d.node(), os.O_RDWR)  # a close would save the maps
            self.addCleanup(os.close, fd)
            os.pwrite(fd, b"k" * 4096, 0)
            # The flag is written by a thread of its own, soon.
            for name in ("incr", "diff"):
                path = self.m.path(f"maps/trak0.{name}")
                eventually(lambda path=path: open(path, "rb").read() == b"TRAKBMP\x01",
                           f"{name} is flagged dirty")
        d.kill()
        d = self.again(d)
        with d.control() as control:
            control.add_filter("/dev/image/d", self.m.path("maps"))
            info = control.info(0)
            self.assertEqual((info.full[INCR], info.full[DIFF]), (1, 1))
        self.assertIn("trak0.incr is dirty. Ignoring file contents.", d.log())

    def test_the_next_start_takes_the_dead_mount_away(self):
        d = self.filter(SIZE)
        d.kill()
        with self.assertRaises(OSError):
            os.stat(d.root)
        other = self.m.trakd()
        self.assertEqual(len(trak_sweep.mounts(self.m.dir)), 1)
        other.stop()

    def test_guarded_filters_lose_their_marker_only_in_an_orderly_end(self):
        self.m.image("d.img", SIZE)
        maps = self.m.folder("maps")
        marker = f"{maps}/trak0.session"
        d = self.m.trakd(images={"d": self.m.path("d.img")})
        attach = ("add-filter", "--disk", "/dev/image/d", "--extent-size", "64K", "--bmp-dir", maps)
        d.trakctl(*attach)
        d.trakctl("start", "0")
        self.assertTrue(os.path.exists(marker))
        d.stop()
        self.assertFalse(os.path.exists(marker))
        d = self.again(d)
        d.trakctl(*attach)
        d.trakctl("start", "0")
        d.trakctl("bitmap", "clear", "0", "incr")
        d.kill()
        self.assertTrue(os.path.exists(marker))
        d = self.m.trakd(images={"d": self.m.path("d.img")})
        self.assertIn("did not end in order", d.trakctl(*attach).err)
        with d.control() as control:
            self.assertEqual(control.info(0).full[INCR], 1)

    def test_a_marker_of_another_session_stays(self):
        maps = self.m.folder("maps")
        marker = f"{maps}/trak0.session"
        with open(marker, "w", encoding="ascii") as file:
            file.write("trak_session=1\nsession=other\n")
        d = self.filter(SIZE)
        d.stop()
        self.assertTrue(os.path.exists(marker))
        self.assertIn("is of another session: it stays", d.log())

    def test_a_marker_stays_where_the_maps_can_not_be_saved(self):
        volume = self.m.volume("small")
        self.m.image("d.img", SIZE)
        d = self.m.trakd(images={"d": self.m.path("d.img")})
        d.trakctl("add-filter", "--disk", "/dev/image/d", "--extent-size", "64K", "--bmp-dir",
                  volume)
        d.trakctl("start", "0")
        self.write(d, (1,))
        eventually(lambda: run("mount", "-o", "remount,ro", volume, expect=None).status == 0,
                   "nobody has the maps open for writing")
        d.stop()
        self.assertTrue(os.path.exists(f"{volume}/trak0.session"))
        self.assertIn("its bitmaps can't be saved", d.log())

    def test_while_a_node_is_in_use_it_says_which_and_serves_on(self):
        d = self.filter(2 * SIZE)
        loop = self.m.loop(d.node())
        run("mke2fs", "-q", "-t", "ext4", loop)
        point = self.m.mount(loop, "mnt")
        d.signal()
        d.said(f"trakd: in use: trak0 (trak0, mounted at {point} through "
               f"{os.path.basename(loop)})")
        with open(f"{point}/file", "wb") as file:
            file.write(b"still writing" * 10000)
            os.fsync(file.fileno())
        with d.control() as control:
            self.assertEqual(control.info(0).started, 1)
            control.bmp(CLR, 0, INCR)
        self.m.umount(point)
        self.assertIsNone(d.process.poll())
        self.m.unloop(loop)
        self.assertEqual(d.wait(), 0)
        self.assertIn("trakd: ended in order", d.log())
        run("e2fsck", "-fn", self.m.path("d.img"))

    def test_while_a_node_is_in_use_it_sleeps(self):
        """Told to end it looks again once a second: that is counted in the times that its main thread
        went to sleep, over a second or two of the clock, however slow the machine is."""
        d = self.filter(SIZE)
        fd = os.open(d.node(), os.O_RDWR)
        d.signal()
        d.said("trakd: in use: trak0")
        begin, sleeps = time.monotonic(), self.sleeps(d)
        time.sleep(2)
        seconds = time.monotonic() - begin
        self.assertLess(self.sleeps(d) - sleeps, 10 + 4 * seconds)
        os.close(fd)  # which it is told of
        self.assertEqual(d.wait(), 0)

    def sleeps(self, daemon):
        with open(f"/proc/{daemon.process.pid}/status", encoding="ascii") as file:
            return int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", file.read(), re.M)[1])

    def test_told_twice_it_ends_at_once(self):
        d = self.filter(SIZE)
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
        fd = os.open(d.node(), os.O_RDWR)
        os.pwrite(fd, b"2" * 4096, 0)
        d.signal()
        d.said("trakd: in use: trak0")
        d.signal(signal.SIGINT)
        self.assertEqual(d.wait(), 1)
        self.assertIn("ending at once with nodes in use: trak0", d.log())
        with self.assertRaises(OSError):
            os.close(fd) or os.stat(d.node())
        d = self.again(d)
        with d.control() as control:
            control.add_filter("/dev/image/d", self.m.path("maps"))
            self.assertEqual(control.info(0).full[INCR], 1)

    def test_open_control_devices_do_not_hold_it_up(self):
        d = self.filter(SIZE)
        with d.control() as control:
            d.stop()
            with self.assertRaises(Exception):
                control.info(0)

    def test_unmounted_from_outside_it_ends_in_order(self):
        d = self.filter(SIZE)
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
        run("umount", d.root)
        self.assertEqual(d.wait(), 0)
        self.assertIn("trakd: ended in order", d.log())
        d = self.again(d)
        with d.control() as control:
            control.add_filter("/dev/image/d", self.m.path("maps"))
            self.assertEqual(control.info(0).clear[INCR], 1)

    def test_an_aborted_connection_ends_it_in_order(self):
        d = self.filter(SIZE)
        with d.control() as control:
            control.bmp(CLR, 0, INCR)
        fd = os.open(d.node(), os.O_RDWR)
        writer = threading.Thread(target=self.write_until_error, args=(fd,))
        writer.start()
        trak_sweep.abort(self.m.dir)
        self.assertEqual(d.wait(), 0)
        writer.join()
        os.close(fd)
        self.assertIn("trakd: ended in order", d.log())

    def write_until_error(self, fd):
        try:
            while True:
                os.pwrite(fd, b"w" * 65536, 0)
        except OSError:
            pass

    def test_hangup_is_ignored(self):
        d = self.filter(SIZE)
        d.signal(signal.SIGHUP)
        with d.control() as control:
            self.assertEqual(control.info(0).started, 1)
        d.stop()


if __name__ == "__main__":
    main()
