# tests/vm/vm_initramfs.py: the file system that a guest starts from
# SPDX-License-Identifier: GPL-2.0-only
"""An archive of the "newc" kind, written without packing it: the guest would spend more on unpacking
than it costs to read. Programs bring the shared libraries that `ldd` names."""
import lzma
import os
import re
import shutil
import subprocess

from vm_old_kernel import for_old_kernel, is_old
from vm_report import CannotRun

TRAILER = "TRAILER!!!"


class Initramfs:
    """Files by their name in the guest, whose kernel has this release."""

    def __init__(self, release="6"):
        self.old_kernel = is_old(release)
        self.entries = {}  # name -> (mode, data, device)
        for name in ("bin", "dev", "etc", "lib/modules", "mnt", "proc", "root", "run", "sys", "tmp",
                     "var/tmp"):
            self.folder(name)
        self.entries["dev/console"] = (0o20600, b"", (5, 1))
        self.entries["dev/null"] = (0o20666, b"", (1, 3))

    def folder(self, name):
        parts = name.split("/")
        for n in range(1, len(parts) + 1):
            self.entries.setdefault("/".join(parts[:n]), (0o40755, b"", (0, 0)))

    def put(self, name, data, mode=0o100644):
        self.folder(os.path.dirname(name) or "bin")
        self.entries[name] = (mode, data, (0, 0))

    def link(self, name, target):
        self.put(name, target.encode(), 0o120777)

    def file(self, name, path, mode=0o100644):
        with open(path, "rb") as file:
            data = file.read()
        if self.old_kernel and mode & 0o111:
            try:
                data = for_old_kernel(data)
            except ValueError as why:
                raise CannotRun(f"{path} can't be changed for an old kernel: {why}") from None
        self.put(name, data, mode)

    def program(self, path):
        """A program by its path or by its name, with the libraries that it is linked with. Those of
        the kind mke2fs and e2fsck also get the names that go with one file system."""
        found = path if "/" in path else shutil.which(path, path="/usr/sbin:/usr/bin:/sbin:/bin")
        if not found or not os.path.exists(found):
            raise CannotRun(f"there is no program {path}")
        self.file(f"bin/{os.path.basename(found)}", found, 0o100755)
        if os.path.basename(found) in ("mke2fs", "e2fsck"):
            for kind in ("ext2", "ext3", "ext4"):
                prefix = "mkfs" if found.endswith("mke2fs") else "fsck"
                self.link(f"bin/{prefix}.{kind}", os.path.basename(found))
        done = subprocess.run(["ldd", found], capture_output=True, text=True, timeout=60,
                              check=False)
        for library in re.findall(r"(/\S+) \(0x", done.stdout):
            self.file(library[1:], library, 0o100755)

    def kernel_modules(self, kernel, names, optional=()):
        """Modules and what they depend on; etc/modules lists them in the order of loading. What is
        built into this kernel is left out, and what is optional where there is none."""
        depends, built_in = kernel.dependencies()
        order = []

        def visit(name):
            if name in order or name in built_in:
                return
            if name not in depends and name in optional:
                return
            if name not in depends:
                raise CannotRun(f"{kernel.release} has no module {name}")
            path, needs = depends[name]
            for other in needs:
                visit(other)
            order.append(name)
            with open(path, "rb") as file:
                data = file.read()
            if path.endswith(".xz"):
                data = lzma.decompress(data)
            self.put(f"lib/modules/{name}.ko", data)

        for name in names:
            visit(name.replace("-", "_"))
        self.put("etc/modules", "".join(f"{name}\n" for name in order).encode())

    def write(self, path):
        with open(path, "wb") as out:
            for number, (name, (mode, data, device)) in enumerate(sorted(self.entries.items()), 1):
                write_entry(out, number, name, mode, data, device)
            write_entry(out, 0, TRAILER, 0, b"", (0, 0))


def write_entry(out, number, name, mode, data, device):
    name = name.encode() + b"\0"
    fields = (number, mode, 0, 0, 1, 0, len(data), 0, 0, device[0], device[1], len(name), 0)
    head = b"070701" + b"".join(b"%08X" % field for field in fields) + name
    out.write(head + b"\0" * (-len(head) % 4) + data + b"\0" * (-len(data) % 4))
