# tests/vm/vm_tree.py: a kernel from a built tree that is given by its folder
# SPDX-License-Identifier: GPL-2.0-only
"""The folder is where the kernel was built: the source tree itself, or the one that it was configured in
with O=. What it can do stands in its configuration; the module is built for it first."""
import hashlib
import os
import re
import subprocess

from vm_report import CannotRun

TOP = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
# What the suites load, and the option that it is built in or left out by.
OPTIONS = {
    "crc32c_generic": "LIBCRC32C", "virtio_pci": "VIRTIO_PCI", "virtio_blk": "VIRTIO_BLK",
    "ext2": "EXT2_FS", "ext3": "EXT3_FS", "ext4": "EXT4_FS", "xfs": "XFS_FS", "reiserfs": "REISERFS_FS",
    "dm_mod": "BLK_DEV_DM", "dm_flakey": "DM_FLAKEY", "dm_era": "DM_ERA", "dm_snapshot": "DM_SNAPSHOT",
    "brd": "BLK_DEV_RAM", "null_blk": "BLK_DEV_NULL_BLK",
}


def first_of(folder, *names):
    for name in names:
        if os.path.exists(f"{folder}/{name}"):
            return f"{folder}/{name}"
    raise CannotRun(f"{folder} is no built kernel tree: it has no {names[0]}")


class Tree:
    """As vm_kernels.Kernel."""

    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        config = first_of(self.folder, "include/config/auto.conf")
        release = first_of(self.folder, "include/config/kernel.release")
        self.image = first_of(self.folder, "arch/x86/boot/bzImage")
        with open(config, encoding="utf-8") as file:
            self.options = dict(re.findall(r"^CONFIG_(\w+)=(.*)$", file.read(), re.MULTILINE))
        with open(release, encoding="utf-8") as file:
            self.release = file.read().strip()
        self.series = re.match(r"2\.6\.\d+|\d+\.\d+|", self.release)[0]
        mark = hashlib.sha256(self.folder.encode()).hexdigest()[:8]
        self.built = f"{TOP}/build/kernel/tree/{self.release}-{mark}"
        # What today's mke2fs makes of ext4 is not what the first kernels with it know.
        self.own_fs = "ext4" if self.has("EXT4_FS") and self.series[0] != "2" else "ext3"

    def has(self, option):
        return option in self.options

    def build(self):
        """trak.ko and its tests; AssertionError with what the compiler said."""
        done = subprocess.run(
            ["make", "-s", "-j2", "-C", f"{TOP}/os/linux", f"KDIR={self.folder}", f"O={self.built}",
             "TRAK_TESTS=1"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, timeout=1800, check=False)
        assert done.returncode == 0, f"the module is not built: {done.stdout[-3000:]}"

    def dependencies(self):
        """name -> (path, names it depends on) of the tree's modules; the names of what is built in."""
        depends = {}
        for base, folders, files in os.walk(self.folder):
            folders[:] = [name for name in folders if not name.startswith(".")]
            for name in files:
                if name.endswith(".ko"):
                    path = f"{base}/{name}"
                    depends[name[:-3].replace("-", "_")] = (path, needs_of(path))
        built_in = {name for name, option in OPTIONS.items() if self.options.get(option) == "y"}
        return depends, built_in


def needs_of(path):
    done = subprocess.run(["/sbin/modinfo", "-F", "depends", path], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60, check=False)
    return [name for name in done.stdout.strip().replace("-", "_").split(",") if name]
