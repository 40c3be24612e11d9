# bench/backup.py: trak-backup beside tools that copy or scan a whole disk
# SPDX-License-Identifier: GPL-2.0-only
"""One disk without holes: an ext3 file system that is half full over blocks of random data, as a disk
that was in use has. Contenders take turns within a round, the image's pages are dropped before each,
and what each wrote is synced within its time.
"""
import json
import os
import random
import resource
import shutil
import statistics
import subprocess
import threading
import time

from trak_machine import BIN, MIB
from trak_testing import Failed, run

EXTENT = 65536
BACKUP = os.path.join(BIN, "trak-backup")
LIMIT = 1800


class Memory(threading.Thread):
    """The highest resident memory of a process, and of its children."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.pid, self.own, self.children, self.over = pid, 0, 0, threading.Event()

    def peak(self, pid):
        try:
            with open(f"/proc/{pid}/status", encoding="utf-8") as file:
                fields = dict(line.split(":", 1) for line in file)
            return int(fields["PPid"]), int(fields.get("VmHWM", "0 kB").split()[0])
        except (OSError, KeyError):
            return 0, 0

    def run(self):
        while not self.over.wait(0.05):
            self.own = max(self.own, self.peak(self.pid)[1])
            for name in os.listdir("/proc"):
                if name.isdigit():
                    parent, peak = self.peak(name)
                    if parent == self.pid:
                        self.children = max(self.children, peak)


def forget(path):
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fsync(fd)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
    finally:
        os.close(fd)


def used_by(pid):
    """Processor seconds of a process so far."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def used_by_children():
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def timed(image, *words, out=None, daemon=None):
    """Seconds of a command, with the sync of what it wrote; processor seconds, with the daemon's."""
    forget(image)
    cpu = -used_by_children() - (used_by(daemon.process.pid) if daemon else 0)
    begun = time.monotonic()
    process = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    memory = Memory(process.pid)
    memory.start()
    try:
        said, _ = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        raise Failed(f"took too long: {words}") from None
    finally:
        memory.over.set()
        memory.join()
    if process.returncode:
        raise Failed(f"{words} ended with {process.returncode}: {said[-2000:]}")
    if out:
        run("sync", out, timeout=LIMIT)
    seconds = time.monotonic() - begun
    cpu += used_by_children() + (used_by(daemon.process.pid) if daemon else 0)
    return {"seconds": seconds, "cpu": cpu, "own_kib": memory.own, "children_kib": memory.children}


def half_full(machine, size):
    image = machine.path("disk-backup.img")
    with open(image, "wb") as file:
        for _ in range(size // MIB):
            file.write(os.urandom(MIB))
    run("mke2fs", "-q", "-F", "-t", "ext3", "-E", "nodiscard", image, timeout=LIMIT)
    loop = machine.loop(image)
    point = machine.mount(loop, "half", kind="ext3")
    for number in range(size // (8 * MIB)):
        with open(f"{point}/{number}", "wb") as file:
            file.write(os.urandom(4 * MIB))
    machine.umount(point)
    machine.unloop(loop)
    return image


class Disk:
    def __init__(self, machine, size):
        self.m, self.size, self.image = machine, size, half_full(machine, size)
        self.daemon = machine.trakd(images={"disk": self.image}, root="backup-tree")
        with self.daemon.control() as control:
            control.add_filter("/dev/image/disk", machine.folder("backup-maps"), EXTENT)
            control.start(0)
        self.store = machine.path("backup-store")

    def agent(self, kind):
        one = timed(self.image, BACKUP, "--root", self.daemon.root, kind, "--disk", "0", "--store",
                    self.store, daemon=self.daemon)
        said = run(BACKUP, "list", "--store", self.store, "--json").out.splitlines()
        last = json.loads(said[-1])
        if last["kind"] != kind:
            raise Failed(f"a {last['kind']} backup was made: {last['reason']}")
        return {**one, "read": last["bytes"]["read"] + last["bytes"]["audited"],
                "mapped": last["bytes"]["mapped"]}

    def full(self, results):
        out = self.m.path("copy.qcow2")
        shutil.rmtree(self.store, ignore_errors=True)
        results.setdefault("trak-backup full", []).append(self.agent("full"))
        one = timed(self.image, "qemu-img", "convert", "-f", "raw", "-O", "qcow2", self.image, out,
                    out=out)
        results.setdefault("qemu-img convert", []).append({**one, "read": self.size})
        run("qemu-img", "create", "-q", "-f", "qcow2", out, str(self.size))
        one = timed(self.image, "nbdcopy", "--flush", "--", "[", "qemu-nbd", "-r", "-f", "raw",
                    self.image, "]", "[", "qemu-nbd", "-f", "qcow2", out, "]", out=out)
        results.setdefault("nbdcopy", []).append({**one, "read": self.size})
        os.unlink(out)

    def change(self, share):
        """In one extent of a hundred 4 KiB."""
        count = self.size // EXTENT
        with open(self.daemon.node(), "r+b", buffering=0) as node:
            for extent in random.sample(range(count // 8, count), int(count * share)):
                node.seek(extent * EXTENT)
                node.write(os.urandom(4096))
            os.fsync(node.fileno())

    def incr(self, results):
        self.change(0.01)
        copy = self.m.path("rsync.img")
        results.setdefault("trak-backup incr", []).append(self.agent("incr"))
        one = timed(self.image, "rsync", "--inplace", "--no-whole-file", self.image, copy, out=copy)
        results.setdefault("rsync --inplace", []).append({**one, "read": self.size})
        one = timed(self.image, "sha256sum", self.image)
        results.setdefault("a full read and hash", []).append({**one, "read": self.size})


def part(machine, rounds, mib):
    results = {}
    disk = Disk(machine, mib * MIB)
    for turn in range(rounds):
        print(f"backup, full, round {turn + 1} of {rounds}", flush=True)
        disk.full(results)
    shutil.copyfile(disk.image, machine.path("rsync.img"))
    for turn in range(rounds):
        print(f"backup, incr, round {turn + 1} of {rounds}", flush=True)
        disk.incr(results)
    disk.daemon.stop()
    return results


def table(results, mib):
    lines = [f"| {mib} MiB, half full | seconds | times as long as trak-backup | CPU seconds | MiB read "
             "| of the map | peak MiB | of its children |", "|---|---|---|---|---|---|---|---|"]
    base = []
    for name, rounds in results.items():
        def middle(key, of=rounds):
            return statistics.median(one[key] for one in of)
        if name.startswith("trak"):
            base = rounds
            ratio = f"{middle('read') / max(middle('mapped'), 1):.3f}"
        else:
            ratio = ""
        times = statistics.median(one["seconds"] / ours["seconds"]
                                  for one, ours in zip(rounds, base))
        lines.append(f"| {name} | {middle('seconds'):.1f} | {times:.2f} | {middle('cpu'):.1f} | "
                     f"{middle('read') / MIB:.0f} | {ratio} | {middle('own_kib') / 1024:.0f} | "
                     f"{middle('children_kib') / 1024:.0f} |")
    return "\n".join(lines)
