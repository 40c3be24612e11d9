# tests/vm/vm_suites.py: the suites: what each needs, how its disks are made, what the host checks after
# SPDX-License-Identifier: GPL-2.0-only
"""A suite is a class with the same name in lower case as guest/NAME.sh. A suite takes
one boot, or several on the same disks."""
import collections
import os
import subprocess

from vm_report import CannotRun, note

HERE = os.path.dirname(os.path.abspath(__file__))
BIN = os.environ.get("TRAK_BIN_DIR") or os.path.join(HERE, "..", "..", "build", "bin")
MIB = 1 << 20
# XFS as kernel 2.6.32 knows it.
OLD_XFS = ("-m crc=0,finobt=0,rmapbt=0,reflink=0,bigtime=0,inobtcount=0 -n ftype=0 "
           "-i sparse=0,projid32bit=0")


def make_disk(path, size):
    with open(path, "wb") as file:
        file.truncate(size)
    return path


def tool(*words, limit=300):
    """Runs a program of the host; CannotRun where there is none, AssertionError where it fails."""
    environment = {**os.environ, "PATH": f"/usr/sbin:/sbin:{os.environ.get('PATH', '/usr/bin:/bin')}"}
    try:
        done = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                              stderr=subprocess.STDOUT, timeout=limit, check=False,
                              env=environment)
    except OSError as error:
        raise CannotRun(f"{words[0]}: {error.strerror}") from None
    assert done.returncode == 0, f"{' '.join(words)}: {done.stdout[-2000:]}"
    return done.stdout


def report_clean(report, test, *words):
    """A test that a checking program is content with a disk."""
    try:
        tool(*words)
        report.ok(test)
    except AssertionError as why:
        report.fail(test, str(why).replace("\n", "; "))


class Suite:
    """What is common to all."""

    name = ""
    about = ""
    needs_trak = True     # the kernel module
    short = ("6.1", "6.12")  # with which kernels it is part of ./run test
    modules = ("virtio_pci", "virtio_blk")  # of the kernel, with what they depend on
    tools = ()            # programs put into the guest
    memory_mib = 1024
    checked = True        # the kernel looks at the module's memory with every allocation
    counted = False       # time is the number of instructions (vm_machine.py)
    limit = 1000          # seconds for one boot, on a machine ten times slower than yours
    cuts = 0              # boots that end with the power, before the one that ends in order
    cut_within = (0.2, 5)  # seconds after the guest's line "cut" at which the power goes
    allowed = None        # lines of the kernel's log that are no fault here
    not_in_2_6 = ()       # of the modules those that the kernels 2.6 do not know

    def __init__(self, folder, long):
        self.folder, self.long = folder, long
        self.whole = True  # false: some tests only were asked for
        self.kernel = None

    def disks(self):
        """Paths of the files that are the guest's disks."""
        return []

    def files(self, initramfs):
        """Puts what else the guest needs."""

    def optional(self, kernel):
        """Modules that the kernel's series has not; the guest says which tests lack them."""
        return self.not_in_2_6 if kernel.series.startswith("2.6.") else ()

    def provoked(self):
        """Reports of the kernel's own that a test provokes (vm_machine.without_provoked)."""
        return {}

    def trak_module(self, kernel, initramfs):
        """The module for this kernel, and its tests, as `./run build kernel` makes them."""
        built = kernel.built
        if not os.path.exists(f"{built}/trak.ko"):
            raise AssertionError(f"there is no trak.ko for {kernel.release}: ./run build kernel")
        for name in os.listdir(built):
            if name.endswith(".ko"):
                initramfs.file(f"lib/modules/{name}", f"{built}/{name}")

    def checker_minds_ext3(self):
        """At the freeze of one the kernel's lock checker complains of it and switches itself off."""
        return self.kernel.own_fs != "ext4" and self.kernel.has("PROVE_LOCKING")

    def hear(self, _line, _report):
        """A line of the guest that is no test's; false when it says nothing to this suite."""
        return False

    def check(self, report):
        """What the host looks at after a boot that ended in order."""


class Aged(Suite):
    """File systems aged through the kernel's own mounts; the disks stay on the host, where the
    readers' maps are compared with what xfs_db and debugreiserfs say of them."""

    name = "aged"
    about = "XFS without checksums and ReiserFS, aged by the kernel, against the readers"
    needs_trak = False
    modules = ("crc32c_generic", *Suite.modules, "xfs", "reiserfs")
    # name, kind, MiB, options of mkfs, files, bytes of each about, options of mount
    SHORT = (
        ("xfs-512", "xfs", 64, "-d agcount=2 -b size=512", 600, 1000, ""),
        ("xfs-1024", "xfs", 96, "-d agcount=4 -b size=1024", 700, 2500, ""),
        ("xfs-4096", "xfs", 160, "-d agcount=1", 1900, 4500, ""),
        ("reiserfs", "reiserfs", 96, "", 700, 4500, "notail"),
        ("reiserfs-wide", "reiserfs", 420, "", 700, 3000, ""),
    )
    LONG = (
        ("xfs-2048", "xfs", 200, "-d agcount=3 -b size=2048", 12000, 4000, ""),
        ("xfs-many", "xfs", 601, "-d agcount=32", 50000, 6000, ""),
        ("xfs-deep", "xfs", 160, "-d agcount=1 -b size=512", 40000, 1200, ""),
        ("reiserfs-1024", "reiserfs", 120, "-b 1024", 12000, 2000, ""),
        ("reiserfs-full", "reiserfs", 300, "", 60000, 5000, ""),
    )

    def table(self):
        return self.SHORT + (self.LONG if self.long else ())

    def path(self, name):
        return f"{self.folder}/{name}.img"

    def disks(self):
        made = []
        for name, kind, size, options, *_ in self.table():
            made.append(make_disk(self.path(name), size * MIB))
            if kind == "xfs":
                kind_of = "-m crc=0,finobt=0" if self.kernel.own_fs == "ext4" else OLD_XFS
                tool("mkfs.xfs", "--unsupported", "-q", "-f", *kind_of.split(),
                     *options.split(), made[-1])
            else:
                tool("mkreiserfs", "-q", "-f", *options.split(), made[-1])
        return made

    def files(self, initramfs):
        initramfs.put("etc/aged", "".join(
            f"{number} {kind} {name} {files} {size} {options}\n"
            for number, (name, kind, _, _, files, size, options) in enumerate(self.table())
        ).encode())

    def check(self, report):
        for name, kind, *_ in self.table():
            done = subprocess.run(
                [f"{BIN}/images", f"--gtest_filter=Inner.an_aged_{kind}_is_what_its_tool_says"],
                env={**os.environ, "TRAK_IMAGE": self.path(name)}, stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=600,
                check=False)
            test = f"aged.{name}.map_is_what_the_tools_say"
            if done.returncode == 0 and "[  PASSED  ] 1 test" in done.stdout:
                report.ok(test)
            else:
                print(done.stdout[-4000:])
                report.fail(test, "the readers and the tools disagree; see above")


class Contract(Suite):
    """The glue alone, with the tests of tests/vm/contract: trak_contract.ko."""

    name = "contract"
    about = "the contracts of os/*.h, test by test, in this kernel"


class OnTrak(Suite):
    """A suite of the module: disk 0 is filtered, disk 1 (ext4) has the bitmap files and COW files."""

    modules = ("crc32c_generic", *Suite.modules, "ext4")
    tools = ("trakctl",)
    disk_mib, maps_mib = 64, 128

    def disks(self):
        maps = make_disk(f"{self.folder}/maps.img", self.maps_mib * MIB)
        tool("mke2fs", "-q", "-F", "-t", self.kernel.own_fs, maps)
        return [make_disk(f"{self.folder}/disk.img", self.disk_mib * MIB), maps]


class Module(OnTrak):
    """Loading and unloading."""

    name = "module"
    about = "load, unload, reload, wrong parameters; nothing is left"
    tools = (*OnTrak.tools, "mke2fs", "e2fsck")

    def files(self, initramfs):
        initramfs.put("etc/reloads", b"50\n" if self.long else b"10\n")

    def provoked(self):
        """ext2 of kernels 2.6 marks what it could not write as to be written again, and their
        mark_buffer_dirty warns of a buffer whose writing has failed: with or without a node below."""
        if not self.kernel.series.startswith("2.6."):
            return {}
        return {"module.disk_that_is_pulled_out_gives_errors_and_an_orderly_end":
                r"WARNING: at \S*fs/buffer\.c:\d+ mark_buffer_dirty"}


class Control(OnTrak):
    """Callers of the control device that mean no good, or may not call."""

    name = "control"
    short = ("6.1",)
    about = "hostile calls of every command beside other work; callers of 32 bits and without rights"
    tools = (*OnTrak.tools, "caller32")

    def disks(self):
        ext2 = make_disk(f"{self.folder}/ext2.img", 8 * MIB)
        tool("mke2fs", "-q", "-F", "-t", "ext2", ext2)
        return [*super().disks(), make_disk(f"{self.folder}/hostile.img", 64 * MIB), ext2]

    def files(self, initramfs):
        initramfs.put("etc/calls", b"8000\n" if self.long else b"1500\n")
        initramfs.put("etc/programs_of_32_bits",
                      b"yes\n" if self.kernel.has("IA32_EMULATION") else b"no\n")


class Fs(OnTrak):
    """Every file system, on a node."""

    name = "fs"
    about = "tracking and snapshots under ext3, ext4, XFS with and without checksums, ReiserFS"
    modules = (*OnTrak.modules, "xfs", "reiserfs")
    limit = 1200
    # name, kind, how it is made, how it is checked, how a snapshot is mounted
    KINDS = (
        ("ext3", "ext4", "mke2fs -q -F -t ext3 -j", "e2fsck -f -n", "ro,noload"),
        ("ext4", "ext4", "mke2fs -q -F -t ext4", "e2fsck -f -n", "ro,noload"),
        ("xfs", "xfs", "mkfs.xfs --unsupported -q -f -m crc=1", "xfs_repair -n -f",
         "ro,norecovery,nouuid"),
        ("xfs-v4", "xfs", "mkfs.xfs --unsupported -q -f -m crc=0,finobt=0", "xfs_repair -n -f",
         "ro,norecovery,nouuid"),
        ("reiserfs", "reiserfs", "mkreiserfs -q -f", "reiserfsck --check --yes", "ro"),
    )

    # In kernels that know no more of them.
    OLD_KINDS = (
        ("ext2", "ext2", "mke2fs -q -F", "e2fsck -f -n", "ro"),
        # Its noload is for file systems without a journal; what was frozen needs no recovery.
        ("ext3", "ext3", "mke2fs -q -F -t ext3 -j", "e2fsck -f -n", "ro"),
        ("xfs-v4", "xfs", f"mkfs.xfs --unsupported -q -f {OLD_XFS}", "xfs_repair -n -f",
         "ro,norecovery,nouuid"),
        ("reiserfs", "reiserfs", "mkreiserfs -q -f", "reiserfsck --check --yes", "ro"),
    )

    def kinds(self):
        if self.kernel.own_fs == "ext4":
            return self.KINDS
        return [row for row in self.OLD_KINDS if row[0] != "ext3" or not self.checker_minds_ext3()]

    def path(self, name):
        return f"{self.folder}/{name}.img"

    def disks(self):
        made = super().disks()
        for name, _, make, *_ in self.kinds():
            made.append(make_disk(self.path(name), 96 * MIB))
            tool(*make.split(), made[-1])
        return made

    def files(self, initramfs):
        initramfs.put("etc/scale", b"6\n" if self.long else b"1\n")
        initramfs.put("etc/fs", "".join(
            f"{number} {name} {kind} {options}\n"
            for number, (name, kind, _, _, options) in enumerate(self.kinds(), 2)).encode())

    def check(self, report):
        if self.checker_minds_ext3():
            report.skip(f"{self.name}.ext3", "its freeze would switch off this kernel's lock checker: "
                                             "run it on a kernel without PROVE_LOCKING")
        for name, _, _, check, _ in self.kinds():
            report_clean(report, f"{self.name}.{name}.is_clean_afterwards", *check.split(),
                         self.path(name))


class User(Fs):
    """The same tests, over trakd."""

    name = "user"
    short = ()
    about = "the suite fs over the driver in user space"
    needs_trak = False
    modules = (*Fs.modules, "fuse", "loop")
    tools = ("trakctl", "trakd", "losetup")
    KINDS = tuple(row for row in Fs.KINDS if row[0] in ("ext4", "xfs", "xfs-v4"))


class Faults(OnTrak):
    """What fails below, and lack of memory."""

    name = "faults"
    short = ("6.1",)
    about = "full and failing disks below the filter and the COW files; memory pressure"
    modules = (*OnTrak.modules, "dm_mod", "dm_flakey")
    not_in_2_6 = ("dm_flakey",)
    tools = (*OnTrak.tools, "dmsetup")

    def disks(self):
        tight = make_disk(f"{self.folder}/tight.img", 8 * MIB)
        tool("mke2fs", "-q", "-F", "-t", self.kernel.own_fs, tight)
        return [*super().disks(), tight]


class Inject(OnTrak):
    """What the kernel lets fail when it is told to; a kernel that can't has these tests skipped."""

    name = "inject"
    short = ()
    about = "allocations, pages and requests that fail one by one (CONFIG_FAULT_INJECTION)"
    tools = (*OnTrak.tools, "mke2fs")
    disk_mib = 16
    limit = 1600

    def disks(self):
        return [*super().disks(), make_disk(f"{self.folder}/cow.img", 32 * MIB)]

    def provoked(self):
        """As in the suite module: what ext2 could not write."""
        if not self.kernel.series.startswith("2.6."):
            return {}
        return {"inject.failing_cow_disk_gives_up_the_snapshot_alone":
                r"WARNING: at \S*fs/buffer\.c:\d+ mark_buffer_dirty"}


class Requests(OnTrak):
    """Requests that are no plain reads and writes, and what the kernel counts of them all."""

    name = "requests"
    about = "discards, write zeroes, secure erase, zones; the statistics of nodes"
    modules = (*OnTrak.modules, "null_blk")
    not_in_2_6 = ("null_blk",)


class Memory(OnTrak):
    """A guest that has hardly more memory than it needs to run."""

    name = "memory"
    short = ()
    about = "writers and snapshots while memory lacks"
    tools = (*OnTrak.tools, "mke2fs", "e2fsck")
    memory_mib = 224
    disk_mib, maps_mib = 128, 384
    # Ending the eater comes with a backtrace.
    allowed = r"Call Trace:"

    def files(self, initramfs):
        kind = "ext2" if self.checker_minds_ext3() else self.kernel.own_fs
        initramfs.put("etc/memory", f"{5 if self.long else 2} {kind}\n".encode())


class Io(OnTrak):
    """fio, which finds every byte that is not what it wrote."""

    name = "io"
    short = ("6.12",)
    about = "fio with verification while snapshots come and go"
    tools = (*OnTrak.tools, "fio")
    disk_mib, maps_mib = 64, 256

    def files(self, initramfs):
        initramfs.put("etc/io", b"60 4\n" if self.long else b"24 1\n")


class Power(OnTrak):
    """QEMU is killed at random moments, and the guest booted again on the same disks.

    The guest says `recorded NAME BITS` of a map before a cut and `found NAME BITS` after it; and
    `tally WHAT VERDICT` where a cut has several right outcomes, which are counted here."""

    name = "power"
    short = ("6.12",)
    about = "power cuts while a filter with a snapshot is written"
    maps_mib = 160

    def __init__(self, folder, long):
        super().__init__(folder, long)
        self.cuts = 20 if long else 2
        self.recorded = {}
        self.tally = collections.Counter()

    def disks(self):
        quiet = [make_disk(f"{self.folder}/{name}.img", 8 * MIB) for name in ("raw", "guarded")]
        return [*super().disks(), make_disk(f"{self.folder}/bursts.img", 16 * MIB), *quiet]

    def hear(self, line, report):
        match line.split():
            case ["recorded", name, bits]:
                self.recorded[name] = bits
            case ["found", name, bits]:
                self.found(name, bits, report)
            case ["tally", what, verdict]:
                self.tally[what, verdict] += 1
            case _:
                return False
        return True

    def found(self, name, bits, report):
        before = self.recorded.pop(name, None)
        # All of a kind would prove nothing: nothing or everything is what a lost map says.
        if bits == before and set(bits) not in ({"0"}, {"f"}):
            self.tally["saved", "exact"] += 1
        else:
            report.fail(f"power.{name}.saved_map_is_what_it_was_before_the_cut",
                        f"before {before}, after {bits}")

    def check(self, report):
        report_clean(report, "power.maps_are_clean_afterwards", "e2fsck", "-f", "-n",
                     f"{self.folder}/maps.img")
        if self.whole:
            self.judge(report)

    def judge(self, report):
        """Whether the outcomes of all cuts, taken together, are right."""
        said = ", ".join(f"{what} {verdict} {count}"
                         for (what, verdict), count in sorted(self.tally.items()))
        note(f"after {self.cuts} cuts: {said}")
        # Of each cut: two kinds of attach, two maps.
        self.verdict(report, "power.saved_maps_are_exact_after_every_cut",
                     self.tally["saved", "exact"] == 4 * self.cuts)
        self.verdict(report, "power.every_resumed_snapshot_was_valid_and_true",
                     self.tally["snapshot", "true"] == self.cuts)
        raw = [self.tally["raw", verdict] for verdict in ("exact", "everything", "window")]
        self.verdict(report, "power.raw_maps_are_exact_or_everything_or_of_the_known_window",
                     sum(raw) == 2 * self.cuts and (not self.long or (raw[0] > 0 and raw[1] > 0)))

    def verdict(self, report, test, holds):
        if holds:
            report.ok(test)
        else:
            report.fail(test, str(dict(self.tally)))


class Backup(OnTrak):
    """trak-backup stops at a named step, and the power goes; each boot is about the next step."""

    name = "backup"
    short = ()
    about = "power cuts at each step of a backup, and what the next one restores to"
    tools = (*OnTrak.tools, "trak-backup", "qemu-img", "qemu-nbd")
    disk_mib, maps_mib, memory_mib = 8, 256, 1536
    cut_within = (0, 0.5)

    def files(self, initramfs):
        steps = [line.split() for line in tool(f"{BIN}/trak-backup", "--list-steps").splitlines()]
        points = [f"{kind} {words[0]}" for kind in ("incr", "full", "diff") for words in steps
                  if kind in words[1:4]]
        # Coprime with their number: few boots see steps of every part.
        points = [points[n * 37 % len(points)] for n in range(len(points))]
        self.cuts = len(points) if self.long else 4
        initramfs.put("etc/points", "".join(f"{point}\n" for point in points).encode())


SUITES = {suite.name: suite for suite in (Aged, Contract, Module, Control, Requests, Fs,
                                          User, Faults, Inject, Memory, Io, Power, Backup)}
