# bench/io_peers.py: the things whose I/O is compared, each as a loop device on one image
# SPDX-License-Identifier: GPL-2.0-only
"""A peer is entered with `with`, gives the path of a block device, and leaves nothing behind. All
of them work on the same image with direct I/O underneath, and all are seen through a loop device
with direct I/O, so that what differs is what stands between the loop device and the image.
"""
import json
import os
import signal
import socket
import struct
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests",
                                "system"))

from trak_machine import BIN, Machine  # noqa: E402
from trak_testing import Failed, eventually, run  # noqa: E402

EXTENT = 65536


class Peer:
    """name: in the table. loop: what the load is run on."""
    name = ""

    def __init__(self, machine: Machine, image):
        self.m, self.image, self.loop = machine, image, None

    def file(self):
        """The file that stands for the image."""
        return self.image

    def __enter__(self):
        self.loop = self.m.loop(self.file(), "--direct-io=on")
        with open(f"/sys/block/{os.path.basename(self.loop)}/loop/dio", encoding="ascii") as dio:
            if dio.read().strip() != "1":
                raise Failed(f"{self.name}: the loop device does no direct I/O")
        return self

    def __exit__(self, *_):
        self.m.unloop(self.loop)
        self.leave()

    def leave(self):
        """What the peer itself takes down."""

    def cpu_pids(self):
        """Processes whose processor time is the peer's."""
        return []

    def syncs(self):
        """(calls, seconds) that its processes have waited in fdatasync, where that is counted."""
        return 0, 0.0


class Bare(Peer):
    """The image itself."""
    name = "bare"


class Trak(Peer):
    """A node of trakd, both bitmaps marked along."""
    name = "trak"

    def file(self):
        self.counters = self.m.path("syncs")
        with open(self.counters, "wb") as file:
            file.write(bytes(16))
        timer = os.path.join(BIN, "libbench_sync_timer.so")
        wrapper = ["env", f"LD_PRELOAD={timer}", f"TRAK_BENCH_SYNC={self.counters}"]
        self.d = self.m.trakd(images={"d": self.image},
                              wrapper=wrapper if os.path.exists(timer) else [])
        self.control = self.d.control()
        maps = self.m.folder("maps")
        for name in os.listdir(maps):
            os.unlink(f"{maps}/{name}")
        self.control.add_filter("/dev/image/d", maps, EXTENT)
        self.control.start(0)
        return self.d.node()

    def leave(self):
        self.control.close()
        self.d.stop()

    def cpu_pids(self):
        return [self.d.process.pid]

    def syncs(self):
        with open(self.counters, "rb") as file:
            calls, ns = struct.unpack("=QQ", file.read(16))
        return calls, ns / 1e9


class TrakSnap(Trak):
    """The same with one started snapshot, its COW files on another image of the same disk."""
    chunk_size = 65536
    name = "trak-snap-64k"
    started = True

    def __init__(self, machine, image, cow_dir):
        super().__init__(machine, image)
        self.cow_dir = cow_dir

    def file(self):
        node = super().file()
        self.control.add_snap(0, f"{self.cow_dir}/map", f"{self.cow_dir}/data", self.chunk_size, 1)
        if self.started:
            self.control.start(1)
        return node

    def forget_cached(self):
        """Takes what the snapshot has preserved out of the page cache."""
        fd = os.open(f"{self.cow_dir}/data", os.O_RDONLY)
        os.fsync(fd)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(fd)

    def leave(self):
        self.control.stop(1)
        self.control.delete(1)
        super().leave()


class TrakSnap4k(TrakSnap):
    """With chunks of 4 KiB."""
    chunk_size = 4096
    name = "trak-snap-4k"


class TrakStarting(TrakSnap):
    """With a snapshot that is started while the load runs."""
    name = "trak-starting"
    started = False


class Qsd(Peer):
    """qemu-storage-daemon's FUSE export with a dirty bitmap of the same granularity."""
    name = "qsd"
    top = "disk"

    def blockdevs(self):
        direct = "cache.direct=on,aio=io_uring"
        return ["--blockdev", f"file,node-name=file,filename={self.image},{direct}",
                "--blockdev", "raw,node-name=disk,file=file"]

    def file(self):
        export, monitor = self.m.path("export"), self.m.path("qmp")
        with open(export, "wb"):
            pass
        self.process = subprocess.Popen(
            ["qemu-storage-daemon", *self.blockdevs(), "--chardev",
             f"socket,id=m,path={monitor},server=on,wait=off", "--monitor", "chardev=m",
             "--export", f"fuse,id=e,node-name={self.top},mountpoint={export},writable=on"],
            stdin=subprocess.DEVNULL)
        eventually(lambda: self.process.poll() is not None or os.path.getsize(export) > 0,
                   "qemu-storage-daemon serves")
        if self.process.poll() is not None:
            raise Failed("qemu-storage-daemon does not start")
        self.command(monitor, "block-dirty-bitmap-add",
                     {"node": "disk", "name": "changes", "granularity": EXTENT})
        return export

    def command(self, path, name, arguments):
        with socket.socket(socket.AF_UNIX) as link:
            link.settimeout(30)
            link.connect(path)
            answers = link.makefile()
            answers.readline()
            for one in ({"execute": "qmp_capabilities"},
                        {"execute": name, "arguments": arguments}):
                link.sendall(json.dumps(one).encode() + b"\n")
                answer = json.loads(answers.readline())
                while "event" in answer:
                    answer = json.loads(answers.readline())
                if "return" not in answer:
                    raise Failed(f"qemu-storage-daemon: {answer}")

    def leave(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(30)
            raise Failed("qemu-storage-daemon does not end") from None

    def cpu_pids(self):
        return [self.process.pid]


class QsdCbw(Qsd):
    """Its copy-before-write filter, the old data into another image of the same disk."""
    name = "qsd-cbw"
    top = "cbw"

    def __init__(self, machine, image, cow_dir):
        super().__init__(machine, image)
        self.target = f"{cow_dir}/target"

    def blockdevs(self):
        with open(self.target, "wb") as file:
            file.truncate(os.path.getsize(self.image))
        direct = "cache.direct=on,aio=io_uring"
        return [*super().blockdevs(),
                "--blockdev", f"file,node-name=target-file,filename={self.target},{direct}",
                "--blockdev", "raw,node-name=target,file=target-file",
                "--blockdev", "copy-before-write,node-name=cbw,file=disk,target=target"]

    def leave(self):
        super().leave()
        os.unlink(self.target)


def seconds_of(pids):
    """Processor seconds that processes have used, in user and kernel mode."""
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
        total += int(fields[11]) + int(fields[12])
    return total / os.sysconf("SC_CLK_TCK")


def fio(device, load, seconds):
    """One load: {iops, mib_s, p50_us, p99_us, p999_us}."""
    words = ["fio", "--name=load", f"--filename={device}", "--direct=1", "--ioengine=io_uring",
             "--output-format=json", "--randrepeat=0", "--norandommap=1", *load]
    if seconds:
        words += [f"--runtime={seconds}", "--time_based"]
    done = json.loads(run(*words, timeout=300 + (seconds or 0)).out)["jobs"][0]
    side = done["write"] if done["write"]["total_ios"] else done["read"]
    points = side["clat_ns"].get("percentile", {})
    return {"iops": side["iops"], "mib_s": side["bw_bytes"] / 2**20, "ios": side["total_ios"],
            "seconds": side["runtime"] / 1000,
            "p50_us": points.get("50.000000", 0) / 1000,
            "p99_us": points.get("99.000000", 0) / 1000,
            "p999_us": points.get("99.900000", 0) / 1000}


def longest_write(log, begin, end):
    """The longest write, in microseconds, that was under way between two moments of the Unix clock in
    ms, from a latency log of fio; 0 where there was none."""
    longest = 0
    with open(log, encoding="ascii") as lines:
        for line in lines:
            fields = line.split(",")
            done_ms, took_us = int(fields[0]), int(fields[1]) / 1000
            if done_ms >= begin and done_ms - took_us / 1000 <= end:
                longest = max(longest, took_us)
    return longest


def wait_for_quiet(seconds=0.5):
    """Lets what an earlier peer wrote reach the disk before the next is measured."""
    os.sync()
    time.sleep(seconds)
