#!/usr/bin/env python3
# tests/system/trak_sweep.py: ends everything that lives in or on one temporary directory
# SPDX-License-Identifier: GPL-2.0-only
"""trak_sweep.py DIR [DIR...]

Whatever a test or the demo left in DIR is taken down, also when trakd hangs: its FUSE connections
are aborted (every process that waits for it gets an error), trakd is killed, file systems mounted
below DIR are thawed and unmounted, loop devices on files below it let go, and DIR is removed.
Nothing here waits for a file system: the mount table and /sys are all that is read.

Only what belongs to DIR is touched, a name that nobody else uses.
"""
import ctypes
import errno
import fcntl
import os
import shutil
import signal
import sys
import tempfile
import time

MNT_DETACH = 2
UMOUNT_NOFOLLOW = 8
LOOP_CLR_FD = 0x4C01
FITHAW = 0xC0045878
CONNECTIONS = "/sys/fs/fuse/connections"

libc = ctypes.CDLL(None, use_errno=True)


def unescape(text):
    """The mount table writes blanks and the like as octal numbers."""
    out, at = "", 0
    while at < len(text):
        if text[at] == "\\" and text[at + 1:at + 4].isdigit():
            out += chr(int(text[at + 1:at + 4], 8))
            at += 4
        else:
            out += text[at]
            at += 1
    return out


def mounts(below):
    """[(mount point, type, minor of its device)] below a directory, the last mounted first."""
    found = []
    with open("/proc/self/mountinfo", encoding="utf-8", errors="replace") as table:
        for line in table:
            head, _, rest = line.partition(" - ")
            fields = head.split()
            point = unescape(fields[4])
            if is_below(point, below):
                found.append((point, rest.split()[0], int(fields[2].partition(":")[2])))
    return found[::-1]


def is_below(path, directory):
    return path == directory or path.startswith(directory.rstrip("/") + "/")


def backing(name):
    """The file behind a loop device; empty when there is none."""
    try:
        with open(f"/sys/block/{name}/loop/backing_file", encoding="utf-8") as file:
            return file.read().rstrip("\n").removesuffix(" (deleted)")
    except OSError:
        return ""


def loops(below):
    """[(name, backing file)] of loop devices on files below a directory."""
    found = [(name, backing(name)) for name in sorted(os.listdir("/sys/block"))
             if name.startswith("loop")]
    return [(name, path) for name, path in found if path and is_below(path, below)]


def daemons(below):
    """Process ids of each trakd whose command line names something below the directory."""
    found = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/cmdline", "rb") as file:
                words = file.read().decode("utf-8", "replace").split("\0")
        except OSError:
            continue
        if os.path.basename(words[0]) == "trakd" and any(
                is_below(word.rpartition("=")[2], below) for word in words[1:] if word):
            found.append(int(name))
    return found


def abort(below):
    """Ends the FUSE connections of all mounts below: what waits for them goes on with an error."""
    wanted = [minor for _, kind, minor in mounts(below) if kind.startswith("fuse")]
    if not wanted:
        return
    where, mounted = CONNECTIONS, None
    if not os.path.exists(f"{where}/{wanted[0]}"):
        # Not every machine mounts this file system; there is only one of it, wherever it is shown.
        where = mounted = tempfile.mkdtemp(prefix="trak-fusectl.")
        libc.mount(b"fusectl", where.encode(), b"fusectl", 0, None)
    for minor in wanted:
        try:
            with open(f"{where}/{minor}/abort", "w", encoding="ascii") as file:
                file.write("1")
        except OSError as error:
            print(f"can't abort FUSE connection {minor}: {error.strerror}", flush=True)
    if mounted:
        libc.umount2(mounted.encode(), MNT_DETACH)
        os.rmdir(mounted)


def clear_loop(name):
    try:
        fd = os.open(f"/dev/{name}", os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK)
    except OSError:
        return
    try:
        fcntl.ioctl(fd, LOOP_CLR_FD)
    except OSError:
        pass
    finally:
        os.close(fd)


def thaw(point):
    """A trakd that was killed while it froze a file system leaves it frozen."""
    try:
        fd = os.open(point, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    except OSError:
        return
    try:
        fcntl.ioctl(fd, FITHAW, 0)
    except OSError:
        pass  # it was not frozen
    finally:
        os.close(fd)


def wait_gone(pid, seconds):
    """True once the process has ended; one of ours is reaped."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        try:
            os.waitpid(pid, os.WNOHANG)
        except OSError:
            pass
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
                if file.read().rpartition(")")[2].split()[0] in "ZX":
                    return True
        except OSError:
            return True
        time.sleep(0.02)
    return False


def unmount_all(below, fuse):
    """Either the FUSE mounts or all others."""
    for point, kind, _ in mounts(below):
        if kind.startswith("fuse") == fuse:
            if not fuse:
                thaw(point)
            libc.umount2(point.encode(), MNT_DETACH | UMOUNT_NOFOLLOW)


def leftovers(below):
    """What still lives below the directory, for a person; empty when nothing does."""
    return ([f"mount {point} ({kind})" for point, kind, _ in mounts(below)] +
            [f"/dev/{name} on {backing}" for name, backing in loops(below)] +
            [f"trakd {pid}" for pid in daemons(below)])


def sweep(directory):
    """Takes everything down; what could not be is returned, for a person."""
    directory = os.path.realpath(directory)
    for attempt in range(40):
        if not leftovers(directory):
            break
        abort(directory)
        for pid in daemons(directory):
            try:
                os.kill(pid, signal.SIGKILL)
            except OSError as error:
                if error.errno != errno.ESRCH:
                    raise
            wait_gone(pid, 5)
        # Loop devices before the tree that their files lie in: without its mount a backing file has
        # another name, and nobody could tell any more whose it is.
        unmount_all(directory, fuse=False)
        for name, _ in loops(directory):
            clear_loop(name)
        if not loops(directory) or attempt > 20:
            unmount_all(directory, fuse=True)
        if attempt:
            time.sleep(0.05 * attempt)
    left = leftovers(directory)
    if not left:
        shutil.rmtree(directory, ignore_errors=True)
    return left


if __name__ == "__main__":
    bad = [f"{name}: {what}" for name in sys.argv[1:] for what in sweep(name)]
    for text in bad:
        print(f"can't take down: {text}", file=sys.stderr)
    sys.exit(1 if bad else 0)
