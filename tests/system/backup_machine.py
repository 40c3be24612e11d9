# tests/system/backup_machine.py: trak-backup on a machine of its own, stopped where a test wants it
# SPDX-License-Identifier: GPL-2.0-only
import hashlib
import json
import os
import random
import shutil
import signal
import subprocess
import threading

from trak_machine import BIN, MIB, SystemTest
from trak_testing import Failed, eventually, run, skip

AGENT = os.path.join(BIN, "trak-backup")
LIMIT = 120


def damage_last_block(path):
    """One bit of the last cluster of an image, which holds data."""
    with open(path, "r+b") as file:
        file.seek(os.path.getsize(path) - 65536 + 5)
        byte = file.read(1)
        file.seek(-1, 1)
        file.write(bytes([byte[0] ^ 1]))


def digest(path, size):
    """SHA-256 of the first `size` bytes."""
    found = hashlib.sha256()
    with open(path, "rb") as file:
        left = size
        while left:
            data = file.read(min(left, MIB))
            if not data:
                raise Failed(f"{path} is {left} bytes too short")
            found.update(data)
            left -= len(data)
    return found.hexdigest()


class Stopped:
    """A run of the agent that SIGSTOP holds at a named step."""

    def __init__(self, words):
        self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)

        def stopped():
            pid, status = os.waitpid(self.process.pid, os.WNOHANG | os.WUNTRACED)
            if pid and not os.WIFSTOPPED(status):
                self.process.returncode = os.waitstatus_to_exitcode(status)
                raise Failed(f"it ended with {self.process.returncode}: {self.process.stderr.read()}")
            return bool(pid)
        eventually(stopped, "the agent stops at its step", LIMIT)

    def signal(self, number):
        self.process.send_signal(number)

    def end(self):
        """Goes on; (exit status, what it said)."""
        self.signal(signal.SIGCONT)
        try:
            out, err = self.process.communicate(timeout=LIMIT)
        except subprocess.TimeoutExpired:
            raise Failed("the agent does not end") from None
        return self.process.returncode, out + err

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(LIMIT)
        self.process.stdout.close()
        self.process.stderr.close()


class Writer:
    """Writes random pieces through the node until it is told to end."""

    def __init__(self, path, size, seed):
        self.path, self.size, self.dice = path, size, random.Random(seed)
        self.over, self.error = threading.Event(), None
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        fd = os.open(self.path, os.O_RDWR)
        try:
            while not self.over.is_set():
                length = self.dice.choice((512, 4096, 20000, 65536))
                os.pwrite(fd, self.dice.randbytes(length), self.dice.randrange(self.size - length))
                self.over.wait(0.002)
        except OSError as error:
            self.error = error
        finally:
            os.close(fd)

    def end(self):
        self.over.set()
        self.thread.join(LIMIT)
        if self.thread.is_alive() or self.error:
            raise Failed(f"the writer: {self.error or 'hangs'}")


class BackupTest(SystemTest):
    """A trakd with one disk of random bytes, a filter over it, and a store on a disk of its own."""

    size = 24 * MIB
    extent_size = 65536

    def setUp(self):
        super().setUp()
        if not shutil.which("qemu-nbd") or not shutil.which("qemu-img"):
            skip("there is no qemu-nbd")
        self.dice = random.Random(11)
        self.place = self.m.volume("backups", 160 * MIB)
        self.store = f"{self.place}/store"
        self.stopped = []
        self.addCleanup(self.kill_stopped)

    def kill_stopped(self):
        for one in self.stopped:
            one.kill()

    def begin(self):
        """The disk and its filter, with clean maps."""
        with open(self.m.path("d.img"), "wb") as file:
            file.write(self.dice.randbytes(self.size))
        self.serve()

    def serve(self):
        self.d = self.m.trakd(images={"d": self.m.path("d.img")})
        self.d.trakctl("add-filter", "--disk", "/dev/image/d", "--extent-size",
                       str(self.extent_size), "--bmp-dir", self.m.folder("maps"), "--uuid",
                       "{11111111-2222-3333-4444-555555555555}")
        self.d.trakctl("start", "0")

    def words(self, kind, *more, store=None):
        words = [AGENT, "--root", self.d.root, "--json", kind, "--store", store or self.store]
        if kind in ("full", "incr", "diff", "audit"):
            words += ["--disk", "0"]
        return [*words, *more]

    def agent(self, kind, *more, expect=0, store=None):
        """Runs the agent; its events."""
        done = run(*self.words(kind, *more, store=store), expect=expect, timeout=LIMIT)
        events = [json.loads(line) for line in done.out.splitlines()]
        self.said = done.out + done.err
        return events

    def stop_at(self, step, kind, *more):
        one = Stopped(self.words(kind, "--stop-at", step, *more))
        self.stopped.append(one)
        return one

    def write(self, at, length):
        fd = os.open(self.d.node(), os.O_RDWR)
        try:
            os.pwrite(fd, self.dice.randbytes(length), at)
            os.fsync(fd)
        finally:
            os.close(fd)

    def snap_node(self):
        """The file of the one snapshot that there is."""
        with self.d.control() as control:
            minors = control.minors(2)
        self.assertEqual(len(minors), 1)
        return self.d.node(f"trak{minors[0]}")

    def frozen(self, kind, *more):
        """A backup, and the checksum of the snapshot that it copies."""
        one = self.stop_at("frozen", kind, *more)
        wanted = digest(self.snap_node(), self.size)
        status, said = one.end()
        self.assertEqual(status, 0, said)
        return wanted

    def restored(self, point):
        """The checksum of a point: as we restore it, and as qemu-img alone reads it."""
        target = self.m.path("restored.img")
        self.agent("restore", "--point", str(point), "--to", target, "--force")
        ours = digest(target, self.size)
        name = next(name for name in os.listdir(self.store)
                    if name.startswith(f"{point:06}-") and name.endswith(".qcow2"))
        run("qemu-img", "convert", "-O", "raw", f"{self.store}/{name}", target, timeout=LIMIT)
        self.assertEqual(digest(target, self.size), ours)
        return ours

    def assert_nothing_left(self):
        left = [name for name in os.listdir(self.store)
                if name.startswith("run.") or ".partial" in name or ".cow" in name]
        self.assertEqual(left, [])
        with self.d.control() as control:
            self.assertEqual(control.minors(2), [])
