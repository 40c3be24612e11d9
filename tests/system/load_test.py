# tests/system/load_test.py: many that wait, and little memory
# SPDX-License-Identifier: GPL-2.0-only
import os
import shutil
import signal
import struct
import threading

from trak_abi import CLR, GET, INCR, SAVE, ioctl, marked
from trak_machine import MIB, SystemTest
from trak_testing import eventually, main, run, skip

SIZE = 16 * MIB


class Threads:
    """Calls of one function side by side, each with its number."""

    def __init__(self, count, call):
        self.results = {}
        self.threads = [threading.Thread(target=self.run, args=(call, n), daemon=True)
                        for n in range(count)]
        for thread in self.threads:
            thread.start()

    def run(self, call, number):
        try:
            self.results[number] = call(number)
        except OSError as error:
            self.results[number] = -error.errno

    def join(self, test, seconds=60):
        for thread in self.threads:
            thread.join(seconds)
            test.assertFalse(thread.is_alive(), "it still waits")
        return list(self.results.values())


class Waiting(SystemTest):
    def test_waiting_commands_do_not_hold_up_reads_and_writes(self):
        """A frozen file system below the maps makes saves wait, as many as there are."""
        volume = self.m.volume("held")
        self.m.image("d.img", SIZE)
        d = self.m.trakd(images={"d": self.m.path("d.img")})
        with d.control() as control:
            control.add_filter("/dev/image/d", volume)
            control.start(0)
            fd = os.open(d.node(), os.O_RDWR)
            control.bmp(CLR, 0, INCR)
            run("fsfreeze", "-f", volume)
            self.addCleanup(run, "fsfreeze", "-u", volume, expect=None)
            save = struct.pack("<II", 0, INCR)
            commands = Threads(120, lambda _: ioctl(control.fd, SAVE, bytearray(save)))
            d.said("trakd: serving")
            eventually(lambda: self.threads_of(d) > 120, "each command waits in a thread")
            lanes = Threads(8, lambda lane: self.write_and_read(fd, lane))
            self.assertEqual(set(lanes.join(self)), {"true"})
            os.fsync(fd)
            self.assertEqual(commands.results, {}, "the commands wait all the same")
            run("fsfreeze", "-u", volume)
            self.assertEqual(set(commands.join(self)), {0})
            self.assertEqual(marked(control.bits(GET, 0, INCR)), list(range(0, 256, 32)))
            os.close(fd)

    def threads_of(self, daemon):
        return len(os.listdir(f"/proc/{daemon.process.pid}/task"))

    def write_and_read(self, fd, lane):
        at = lane * 32 * 65536
        for turn in range(50):
            data = bytes([lane * 16 + turn % 16]) * 4096
            os.pwrite(fd, data, at + turn % 16 * 4096)
            if os.pread(fd, 4096, at + turn % 16 * 4096) != data:
                return "other data"
        return "true"

    def test_a_creation_that_waits_for_its_map_holds_up_nothing(self):
        """A creation whose map can't be read waits without the node table: requests of other nodes
        and the tree are served meanwhile. The map lies on a file system behind another trakd, which
        is stopped."""
        slow = self.slow_volume()
        d = self.filter(SIZE)
        self.m.image("e.img", SIZE)
        other_disk = self.m.loop(self.m.path("e.img"))
        fd = os.open(d.node(), os.O_RDWR)
        with d.control() as control:
            self.other.signal(signal.SIGSTOP)
            self.addCleanup(self.other.signal, signal.SIGCONT)
            creation = Threads(1, lambda _: control.add_filter(other_disk, f"{slow}/a/b"))
            d.said("Attaching trak1")
            writers = Threads(40, lambda lane: os.pwrite(fd, b"s" * 4096, lane * 65536))
            self.assertEqual(set(writers.join(self)), {4096})
            for _ in range(20):
                self.assertEqual(os.stat(d.node()).st_size, SIZE)
                with open(f"{d.root}/session", encoding="ascii") as file:
                    self.assertTrue(file.read())
                self.assertIn("trak0", os.listdir(f"{d.root}/dev/trak"))
            self.assertEqual(creation.results, {}, "it waits")
            self.other.signal(signal.SIGCONT)
            self.assertEqual(creation.join(self), [1])
        os.close(fd)

    def test_requests_that_wait_in_their_submission_hold_up_no_other(self):
        """With a snapshot that is not started a request waits, where it is submitted, for those that it
        overlaps. More of them than there are threads that read requests wait for one that the disk, a
        node of another trakd, does not answer: other threads read then, and go when it is over."""
        disk = self.stalling_disk()
        cow = self.m.volume("cow")
        self.m.image("d.img", SIZE)
        d = self.m.trakd(images={"d": self.m.path("d.img")})
        with d.control() as control:
            for name, path in enumerate((disk, "/dev/image/d")):
                control.add_filter(path, self.m.folder("maps"))
                control.start(name)
            control.add_snap(0, f"{cow}/map", f"{cow}/data")
            fd = os.open(d.node(), os.O_RDWR)
            os.pwrite(fd, b"before" * 1024, 0)
            threads = self.receivers(d)
            self.other.signal(signal.SIGSTOP)
            self.addCleanup(self.other.signal, signal.SIGCONT)
            waiting = Threads(threads + 8, lambda _: os.pread(fd, 4096, 0))
            eventually(lambda: self.receivers(d) > threads, "more threads read requests")
            other = os.open(d.node("trak1"), os.O_RDWR)
            lanes = Threads(8, lambda lane: self.write_and_read(other, lane))
            self.assertEqual(set(lanes.join(self)), {"true"})
            self.assertEqual(control.info(1).started, 1)
            self.assertEqual(os.stat(d.node()).st_size, SIZE)
            self.assertEqual(waiting.results, {}, "they wait all the same")
            self.other.signal(signal.SIGCONT)
            self.assertEqual(set(waiting.join(self)), {(b"before" * 1024)[:4096]})
            lanes = Threads(8, lambda lane: self.write_and_read(fd, lane))
            self.assertEqual(set(lanes.join(self)), {"true"})

            def calm():
                os.pread(other, 4096, 0)
                return self.receivers(d) <= threads
            eventually(calm, "those that are too many go, as requests come in")
            os.close(other)
            os.close(fd)
        d.stop()
        self.m.unloop(disk)

    def stalling_disk(self):
        self.m.image("e.img", SIZE)
        self.other = self.m.trakd(images={"e": self.m.path("e.img")}, root="other")
        with self.other.control() as control:
            control.add_filter("/dev/image/e", self.m.folder("other-maps"))
            control.start(0)
        return self.m.loop(self.other.node(), "--direct-io=on")

    def receivers(self, daemon):
        """Its threads that read requests."""
        count = 0
        for task in os.listdir(f"/proc/{daemon.process.pid}/task"):
            try:
                with open(f"/proc/{daemon.process.pid}/task/{task}/comm", encoding="ascii") as file:
                    count += file.read() == "trakd-io\n"
            except FileNotFoundError:
                pass  # it ended meanwhile
        return count

    def slow_volume(self):
        image = self.m.image("f.img", SIZE, "ext4")
        self.other = self.m.trakd(images={"f": image}, root="other")
        with self.other.control() as control:
            control.add_filter("/dev/image/f", self.m.folder("other-maps"))
            control.start(0)
        loop = self.m.loop(self.other.node())
        point = self.m.mount(loop, "slow")
        os.makedirs(f"{point}/a/b")
        for name in ("trak1.incr", "trak1.diff"):
            with open(f"{point}/a/b/{name}", "wb") as file:
                file.write(b"TRAKBMP" + bytes(5000))
        self.m.umount(point)
        self.m.unloop(loop)
        return self.m.mount(self.m.loop(self.other.node()), "slow")


class Memory(SystemTest):
    def cgroup(self, name, limit):
        """A memory cgroup of either version, or a skip."""
        name = f"trak-test-{os.getpid()}-{name}"
        for base, file in (("/sys/fs/cgroup/memory", "memory.limit_in_bytes"),
                           ("/sys/fs/cgroup", "memory.max")):
            group = f"{base}/{name}"
            try:
                os.mkdir(group)
            except OSError:
                continue
            self.m.cgroups.append(group)
            if os.path.exists(f"{group}/{file}"):
                with open(f"{group}/{file}", "w", encoding="ascii") as limits:
                    limits.write(str(limit))
                return group
        return skip("memory cgroups can't be made here")

    def inside(self, group):
        return ["sh", "-c", f'echo $$ >{group}/cgroup.procs && exec "$@"', "sh"]

    def test_little_memory_does_not_hold_up_writes_of_a_mounted_file_system(self):
        if not shutil.which("setpriv"):
            skip("there is no setpriv")
        image = self.m.image("d.img", 1024 * MIB, "ext4")
        drop = ["setpriv", "--bounding-set=-sys_resource", "--inh-caps=-sys_resource"]
        d = self.m.trakd(images={"d": image},
                         wrapper=[*self.inside(self.cgroup("trakd", 96 * MIB)), *drop])
        d.said("PR_SET_IO_FLUSHER: Operation not permitted")
        with d.control() as control:
            control.add_filter("/dev/image/d", self.m.folder("maps"))
            control.start(0)
        loop = self.m.loop(d.node())
        point = self.m.mount(loop, "mnt")
        writers = self.inside(self.cgroup("writers", 128 * MIB))

        def write(number):
            return run(*writers, "dd", "if=/dev/urandom", f"of={point}/{number}", "bs=1M",
                       "count=200", "conv=fsync", timeout=100, expect=None).status

        self.assertEqual(Threads(2, write).join(self, 100), [0, 0])
        self.m.tell_watcher(f"{self.id()}, written")
        sums = run("sha1sum", f"{point}/0", f"{point}/1").out
        self.m.umount(point)
        self.m.unloop(loop)
        d.stop()
        run("e2fsck", "-fn", image)
        point = self.m.mount(self.m.loop(image), "mnt")
        self.assertEqual(run("sha1sum", f"{point}/0", f"{point}/1").out, sums)


if __name__ == "__main__":
    main()
