# tests/system/trak_machine.py: images, loop devices, mounts and trakd for one test
# SPDX-License-Identifier: GPL-2.0-only
"""SystemTest gives each test a Machine: one temporary directory, and everything that lives in it.
When the test ends, in whatever way, it is all taken down again: in order first, and by force where
that does not work (trak_sweep.py). Something that could not be taken down is a failure.
"""
import os
import signal
import subprocess
import sys
import tempfile
import unittest

import trak_sweep
from trak_abi import Control
from trak_testing import Failed, WAIT, eventually, run, skip

HERE = os.path.dirname(os.path.abspath(__file__))
BIN = os.environ.get("TRAK_BIN_DIR") or os.path.join(HERE, "..", "..", "build", "bin")
TRAKD = os.path.join(BIN, "trakd")
TRAKCTL = os.path.join(BIN, "trakctl")
MIB = 1 << 20


def close_dead(fd):
    """Closes a file of a trakd that may be gone: the close says so then."""
    try:
        os.close(fd)
    except OSError:
        pass


class Daemon:
    """One trakd in the foreground, and what it logs."""

    def __init__(self, machine, root, arguments, wrapper, number):
        self.machine, self.root = machine, root
        self.log_name = f"{machine.dir}/trakd{number}.log"
        with open(self.log_name, "wb") as log:
            self.process = subprocess.Popen(
                [*wrapper, TRAKD, "--foreground", *arguments, root], stdin=subprocess.DEVNULL,
                stdout=log, stderr=log)

    def log(self):
        """Nothing, once its directory was swept away."""
        try:
            with open(self.log_name, encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def wait_ready(self):
        def ready():
            if self.process.poll() is not None:
                raise Failed(f"trakd ended with {self.process.returncode}:\n{self.log()}")
            return "trakd: serving at" in self.log()
        eventually(ready, "trakd serves")
        return self

    def control(self):
        return Control(self.root)

    def node(self, name="trak0"):
        return f"{self.root}/dev/trak/{name}"

    def proc(self, path):
        with open(f"{self.root}/proc/trak/{path}", encoding="utf-8") as file:
            return file.read()

    def trakctl(self, *words, expect=0):
        return run(TRAKCTL, "--root", self.root, *words, expect=expect)

    def signal(self, number=signal.SIGTERM):
        self.process.send_signal(number)

    def wait(self, seconds=WAIT):
        """Its exit status."""
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise Failed(f"trakd does not end:\n{self.log()[-3000:]}") from None

    def stop(self):
        """In order."""
        self.signal()
        status = self.wait()
        if status != 0 or "trakd: ended in order" not in self.log():
            raise Failed(f"trakd ended with {status}:\n{self.log()[-3000:]}")

    def kill(self):
        self.process.kill()
        self.wait()

    def said(self, text):
        """Waits until the log has a text."""
        eventually(lambda: text in self.log(), f"the log says: {text}")


class Machine:
    """Everything below one directory."""

    def __init__(self):
        base = os.environ.get("TMPDIR") or "/var/tmp"
        self.dir = tempfile.mkdtemp(prefix="trak-test.", dir=base)
        self.watcher = subprocess.Popen(
            [sys.executable, f"{HERE}/trak_watch.py", self.dir, str(os.getpid())],
            stdin=subprocess.PIPE)
        self.daemons = []
        self.cgroups = []
        self.loops = set()

    def path(self, name):
        return f"{self.dir}/{name}"

    def folder(self, name):
        try:
            os.mkdir(self.path(name))
        except FileExistsError:
            pass  # perhaps a mount whose server is dead: it can't be looked at
        return self.path(name)

    def image(self, name, size, file_system=None):
        """A sparse file, with a file system on it where one is named."""
        path = self.path(name)
        with open(path, "wb") as file:
            file.truncate(size)
        if file_system:
            run("mke2fs", "-q", "-F", "-t", file_system, path)
        return path

    def loop(self, path, *options):
        done = run("losetup", "--find", "--show", *options, path, expect=None)
        if done.status != 0:
            if not os.path.exists("/dev/loop-control"):
                skip("there are no loop devices")
            raise Failed(f"losetup: {done.err}")
        self.loops.add(os.path.basename(done.out.strip()))
        return done.out.strip()

    def unloop(self, device):
        run("losetup", "-d", device)
        name = os.path.basename(device)
        eventually(lambda: name not in [one for one, _ in trak_sweep.loops(self.dir)],
                   f"{device} is free")

    def mount(self, device, name, *options, kind="ext4"):
        point = self.folder(name)
        done = run("mount", "-t", kind, *options, device, point, expect=None)
        if done.status != 0:
            if "permission" in done.err.lower() or "must be superuser" in done.err:
                skip(f"mounting is not allowed: {done.err.strip()}")
            raise Failed(f"mount {device}: {done.err}")
        return point

    def umount(self, point):
        run("umount", point)

    def volume(self, name, size=16 * MIB, kind="ext4"):
        """A mounted file system with a block device of its own: COW files and maps need one."""
        return self.mount(self.loop(self.image(f"{name}.img", size, kind)), name, kind=kind)

    def trakd(self, *arguments, images=None, root="tree", wrapper=()):
        """Starts a trakd and waits until it serves."""
        return self.start_trakd(*arguments, images=images, root=root, wrapper=wrapper).wait_ready()

    def start_trakd(self, *arguments, images=None, root="tree", wrapper=()):
        words = [word for name, path in (images or {}).items() for word in
                 ("--disk", f"{name}={path}")]
        daemon = Daemon(self, self.folder(root) if root else "", [*words, *arguments], wrapper,
                        len(self.daemons))
        self.daemons.append(daemon)
        return daemon

    def tell_watcher(self, text):
        try:
            self.watcher.stdin.write(f"{text}\n".encode())
            self.watcher.stdin.flush()
        except OSError:
            pass

    def print_logs(self):
        for daemon in self.daemons:
            print(f"--- the end of {os.path.basename(daemon.log_name)}")
            print("\n".join(daemon.log().splitlines()[-40:]), flush=True)

    def close(self):
        """Takes everything down; what would not go in order is returned."""
        left = []
        for point, kind, _ in trak_sweep.mounts(self.dir):
            if not kind.startswith("fuse"):
                run("umount", point, expect=None, timeout=20)
        for name, _ in trak_sweep.loops(self.dir):
            run("losetup", "-d", f"/dev/{name}", expect=None, timeout=20)
        for daemon in self.daemons:
            if daemon.process.poll() is None:
                daemon.signal(signal.SIGTERM)
        for daemon in self.daemons:
            try:
                daemon.process.wait(20)
            except subprocess.TimeoutExpired:
                left.append(f"trakd does not end by itself:\n{daemon.log()[-500:]}")
            races = daemon.log().find("WARNING: ThreadSanitizer")
            if races >= 0:
                left.append(f"a race in trakd:\n{daemon.log()[races:races + 3000]}")
        left += trak_sweep.sweep(self.dir)
        # On the file of a trakd whose mount went first: its name does not tell the directory.
        for name in sorted(self.loops):
            if trak_sweep.backing(name).startswith("/dev/trak/"):
                left.append(f"/dev/{name} on {trak_sweep.backing(name)}")
                trak_sweep.clear_loop(name)
        for group in self.cgroups:
            if os.path.isdir(group):
                os.rmdir(group)
        self.watcher.stdin.close()
        try:
            self.watcher.wait(30)
        except subprocess.TimeoutExpired:
            left.append("the watcher")
        return left


class SystemTest(unittest.TestCase):
    """A test with a machine: self.m."""

    def setUp(self):
        if os.geteuid() != 0:
            skip("mounting takes root")
        if not os.path.exists("/dev/fuse"):
            skip("there is no /dev/fuse")
        self.m = Machine()
        self.m.tell_watcher(self.id())
        self.addCleanup(self.take_down)  # after the cleanups that a test adds

    def take_down(self):
        outcome = getattr(self, "_outcome", None)
        if outcome is not None and not outcome.success:
            self.m.print_logs()
        self.assertEqual(self.m.close(), [], "not taken down in order")

    def filter(self, size=64 * MIB, start=True):
        """A trakd with one image `d` of this size and a filter over it, started."""
        image = self.m.image("d.img", size)
        daemon = self.m.trakd(images={"d": image})
        with daemon.control() as control:
            control.add_filter("/dev/image/d", self.m.folder("maps"))
            if start:
                control.start(0)
        return daemon
