# tests/system/trak_backup.py: a disk that is written, trak-backup on it, and what its backups restore to
# SPDX-License-Identifier: GPL-2.0-only
import fcntl
import hashlib
import json
import os
import signal
import subprocess
import threading
import time

from trak_abi import SNAP
from trak_machine import BIN, MIB
from trak_testing import Failed, WAIT, check, eventually, run

TRAK_BACKUP = os.path.join(BIN, "trak-backup")
UUID = "{5f0e3c11-7c66-4f0f-9c55-0c5a5f1e2d3c}"
PIECE = 4096


def digest(data):
    return hashlib.blake2b(data).digest()


def steps():
    """[(name, kinds of backup that come by)] of the steps at which a backup can be stopped or killed."""
    found = []
    for line in run(TRAK_BACKUP, "--list-steps").out.splitlines():
        name, *words = line.split()
        found.append((name, [kind for kind in ("full", "incr", "diff") if kind in words[:3]]))
    return found


class Agent:
    """One run of trak-backup. It dies with the test, stopped or not."""

    def __init__(self, disk, kind, store, *options):
        self.log = disk.m.path("agent.log")
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(  # pylint: disable=consider-using-with
                ["setpriv", "--pdeathsig", "KILL", TRAK_BACKUP, "--root", disk.daemon.root, "--json",
                 kind, "--disk", "0", "--store", store, *options],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def said(self):
        with open(self.log, encoding="utf-8", errors="replace") as file:
            return file.read()

    def events(self):
        """The events of a run that ended."""
        return [json.loads(line) for line in self.said().splitlines() if line.startswith("{")]

    def event(self, name):
        return next((event for event in self.events() if event["event"] == name), None)

    def stopped(self):
        """Waits until it stops itself: true; or ends: false."""
        def state():
            done = os.waitid(os.P_PID, self.process.pid,
                             os.WSTOPPED | os.WEXITED | os.WNOWAIT | os.WNOHANG)
            return done and ("stopped" if done.si_code == os.CLD_STOPPED else "ended")
        return eventually(state, "the agent stops or ends", 120) == "stopped"

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def kill(self):
        self.process.kill()
        self.process.wait(WAIT)

    def wait(self, expect=0):
        try:
            status = self.process.wait(120)
        except subprocess.TimeoutExpired:
            raise Failed(f"the agent does not end:\n{self.said()[-3000:]}") from None
        if expect is not None and status != expect:
            raise Failed(f"the agent ended with {status}, not {expect}:\n{self.said()[-3000:]}")
        return status


class Writer:
    """Writes pieces of fresh bytes to random places: so many at once, or so many side by side with
    whatever else happens. Never more than it was given: a map that is all ones shows nothing."""

    def __init__(self, disk, dice):
        self.disk, self.dice = disk, dice
        self.todo = 0
        self.changed = threading.Condition()
        self.thread = threading.Thread(target=self.work, daemon=True)
        self.thread.start()

    def write(self, count):
        for _ in range(count):
            self.one()

    def one(self):
        size = self.dice.choice((512, PIECE, PIECE, 3 * PIECE))
        at = self.dice.randrange((self.disk.size - size) // 512) * 512
        with self.disk.written:
            os.pwrite(self.disk.fd, self.dice.randbytes(size), at)

    def start(self, count):
        with self.changed:
            self.todo = count
            self.changed.notify_all()

    def pause(self):
        """None is under way when this returns."""
        with self.changed:
            self.todo = 0
            self.changed.wait_for(lambda: not self.busy)

    busy = False

    def work(self):
        while True:
            with self.changed:
                self.busy = False
                self.changed.notify_all()
                self.changed.wait_for(lambda: self.todo > 0)
                self.busy = True
                self.todo -= 1
            try:
                self.one()
            except OSError:
                with self.changed:  # trakd was killed
                    self.todo = 0
            time.sleep(0.002)  # so that the writes spread over a run


class Disk:
    """A trakd with one image under a filter, attached through the guard under the same identifier each
    time; and the store of its backups."""

    def __init__(self, machine, dice, size=4 * MIB, extent_size=8192):
        self.m, self.dice, self.size, self.extent_size = machine, dice, size, extent_size
        self.image = machine.image("d.img", size)
        with open(self.image, "r+b") as file:
            for _ in range(24):
                file.seek(dice.randrange(size // PIECE - 4) * PIECE)
                file.write(dice.randbytes(4 * PIECE))
        # What is synced all the time lies in memory, but on a block device, as the driver wants it.
        self.memory = machine.mount("none", "memory", kind="tmpfs")
        self.volume = machine.volume("memory/stores", 256 * MIB)
        os.mkdir(f"{self.volume}/maps")
        self.written = threading.Lock()
        self.fd = -1
        self.start()
        self.writer = Writer(self, dice)
        self.known = {}
        self.store = ""
        self.stores = 0

    def start(self):
        """trakd, and the node; whether everything counts as changed now."""
        self.daemon = self.m.trakd(images={"d": self.image})
        said = self.daemon.trakctl("add-filter", "--disk", "/dev/image/d", "--extent-size",
                                   str(self.extent_size), "--bmp-dir", f"{self.volume}/maps",
                                   "--minor", "0", "--uuid", UUID)
        self.daemon.trakctl("start", "0")
        self.fd = os.open(self.daemon.node(), os.O_RDWR | os.O_CLOEXEC)
        return "everything counts as changed" in said.out + said.err

    def kill(self):
        """trakd, hard; then its mount goes."""
        self.daemon.kill()
        self.writer.pause()
        self.close()
        run("umount", "-l", self.daemon.root)

    def close(self):
        try:
            os.close(self.fd)
        except OSError:
            pass  # the close of a file of a trakd that is gone says so
        self.fd = -1

    def new_store(self):
        if self.store:
            run("rm", "-r", self.store)
        self.stores += 1
        self.store, self.known = f"{self.volume}/{self.stores}", {}

    def backup(self, kind, *options):
        return Agent(self, kind, self.store, *options)

    def bytes(self):
        """What the disk holds, read past trakd."""
        with open(self.image, "rb") as file:
            return file.read()

    def snapshot(self):
        """What the only snapshot shows."""
        with self.daemon.control() as control:
            minors = control.minors(SNAP)
        check(len(minors) == 1, f"snapshots {minors}")
        with open(self.daemon.node(f"trak{minors[0]}"), "rb") as file:
            return file.read()

    def backups(self):
        """The manifests, by number."""
        found = []
        for name in sorted(os.listdir(self.store)):
            if name.endswith(".json") and name[0].isdigit():
                with open(f"{self.store}/{name}", encoding="utf-8") as file:
                    found.append(json.load(file))
        return found

    def remember(self, data):
        """The newest backup must restore to this, now and ever."""
        name = self.backups()[-1]["id"]
        self.known[name] = digest(data)
        target = f"{self.memory}/restored.img"
        run(TRAK_BACKUP, "restore", "--store", self.store, "--point", name, "--to", target,
            "--force", timeout=120)
        with open(target, "rb") as file:
            restored = file.read()
        if restored != data:
            wrong = [at // self.extent_size for at in range(0, len(data), self.extent_size)
                     if restored[at:at + self.extent_size] != data[at:at + self.extent_size]]
            raise Failed(f"{name} restores to other bytes than its disk had (extents {wrong[:20]})")

    def check_old(self, name):
        """An older backup, read by qemu's own tool."""
        target = f"{self.memory}/old.img"
        run("qemu-img", "convert", "-O", "raw", f"{self.store}/{name}.qcow2", target, timeout=120)
        with open(target, "rb") as file:
            check(digest(file.read()) == self.known[name], f"{name} is not what it was any more")

    def check_all_old(self):
        for name in self.known:
            self.check_old(name)

    def check_nothing_left(self):
        """Of any run, in the store and in the driver."""
        left = [name for name in os.listdir(self.store)
                if name.startswith(("run.", "trak-backup-")) or ".partial" in name]
        check(not left, f"left in the store: {left}")
        with self.daemon.control() as control:
            check(control.minors(SNAP) == [], f"snapshots {control.minors(SNAP)} are left")

    def wait_unlocked(self):
        """A process that was killed holds its locks until the kernel has taken it down."""
        def free():
            with open(f"{self.store}/lock", "a", encoding="utf-8") as file:
                try:
                    fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
                except BlockingIOError:
                    return False
                return True
        if os.path.exists(f"{self.store}/lock"):
            eventually(free, "the store is unlocked")
