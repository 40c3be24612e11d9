#!/usr/bin/env python3
# packaging/boot.py: a root with the packages, booted and shut down by Debian's systemd in a guest
# SPDX-License-Identifier: GPL-2.0-only
"""boot.py ROOT [SERIES]: boots a copy of a root folder in which the packages are installed (clean_root.py
makes one, and runs this) under QEMU three times, with two disks that files in /etc/trak name, one with a
file system that fstab mounts by its node, and a third that does not exist:

    first boot   both are attached and one is mounted; maps are cleared, both disks written; shut down
    second boot  the maps tell what was written; writes go on, and the power goes
    third boot   everything counts as changed

What the guest finds out is sent by its second serial port, line by line. The root folder is only read.
"""
import os
import re
import shutil
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "tests/vm"))

import vm  # noqa: E402
import vm_kernels  # noqa: E402
from steps import Failed, all_steps, check, run  # noqa: E402
from vm_initramfs import Initramfs  # noqa: E402
from vm_machine import Machine, Timeout, faults_in  # noqa: E402
from vm_report import CannotRun  # noqa: E402

LIMIT = 1800  # seconds for one boot, without KVM on a busy machine
MIB = 1 << 20
EXTENT = 65536
DATA_MIB, RAW_MIB = 16, 8
WRITTEN = (3, 77, 100)  # extents of the disk without a file system

# The root's disk is found by its serial number. What the trial adds to the root is put there once.
INIT = """#!/bin/sh
mount -t devtmpfs dev /dev
mount -t sysfs sys /sys
exec </dev/null >/dev/console 2>&1
echo
echo "--- init"
for name in $(cat /etc/modules); do insmod /lib/modules/$name.ko; done
n=0
until disk=$(grep -lx disk0 /sys/block/vd*/serial); do
  n=$((n + 1)); [ $n -lt 1200 ] || poweroff -f; sleep 0.1
done
disk=${disk%/serial}
mount -t ext4 -o rw /dev/${disk##*/} /root || poweroff -f
[ -e /root/trial ] || { cp -a /add/. /root/ && mkdir /root/trial; } || poweroff -f
mount -o remount,ro /root
umount /sys /dev
exec switch_root /root /lib/systemd/systemd
"""

CONF = "disk = /dev/disk/by-id/virtio-{disk}\nminor = {minor}\nname = {name}\nwait = 900\n"

# Time limits are for machines that are not ten times slower than others.
SYSTEMD = """[Manager]
DefaultTimeoutStartSec=1200
DefaultTimeoutStopSec=1200
DefaultDeviceTimeoutSec=1200
"""

UNIT = """[Unit]
After=local-fs.target trak.service srv.mount
[Service]
Type=oneshot
ExecStart=/bin/sh /trial.sh
StandardOutput=file:/dev/ttyS1
StandardError=file:/dev/ttyS1
[Install]
WantedBy=multi-user.target
"""

TRIAL = r"""
boot=$(($(cat /trial/boots 2>/dev/null || echo 0) + 1))
echo $boot >/trial/boots
marks() { trakctl bitmap get $1 incr | sed -n "s/^ *\([0-9]\)/map $2 \1/p"; }
raw() { dd if=/dev/urandom of=/dev/trak/raw bs=64k seek=$1 count=1 conv=notrunc,fsync status=none; }
echo "boot $boot"
echo "mounted $(findmnt -n -o SOURCE,FSTYPE /srv)"
for unit in trak.service trak-stop.service dev-trak-data.device srv.mount; do
  echo "state $unit $(systemctl is-active $unit)"
done
journalctl -q -b -u trak.service -o cat | sed 's/^/log /'
echo "links $(find /dev/disk -lname '*/trak[0-9]*' | wc -l)"
marks 0 data
marks 1 raw
case $boot in
1)
  umount /srv
  trakctl bitmap clear 0 incr && trakctl bitmap clear 1 incr
  cat /dev/trak/data >/trial/before
  mount /srv
  dd if=/dev/urandom of=/srv/file bs=64k count=3 status=none
  WRITES
  sync
  echo end
  printf '\n--- trial ends\n' >/dev/console
  systemctl --no-block poweroff
  ;;
2)
  echo "content $(wc -c </srv/file)"
  echo more >>/srv/file
  raw 5
  sync
  echo end
  sleep infinity
  ;;
*)
  echo "content $(wc -c </srv/file)"
  echo end
  systemctl --no-block poweroff
  ;;
esac
""".replace("WRITES", "; ".join(f"raw {extent}" for extent in WRITTEN))

ADDED = {
    "etc/fstab": "LABEL=trial / ext4 defaults 0 0\n/dev/trak/data /srv ext4 defaults,nofail 0 2\n",
    "etc/trak/10-data.conf": CONF.format(disk="disk1", minor=0, name="data"),
    "etc/trak/20-gone.conf": "disk = /dev/gone\nminor = 7\nwait = 3\n",
    "etc/trak/30-raw.conf": CONF.format(disk="disk2", minor=1, name="raw"),
    "etc/systemd/system.conf.d/trial.conf": SYSTEMD,
    "etc/systemd/system/trial.service": UNIT,
    "trial.sh": TRIAL,
}
LINKS = {
    "etc/systemd/system/multi-user.target.wants/trial.service": "/etc/systemd/system/trial.service",
    "etc/systemd/system/default.target": "/lib/systemd/system/multi-user.target",
}
# What the console says at the shutdown, in this order.
IN_ORDER = (r"--- trial ends", r"Unmounted .*srv", r"node 1 \(raw\) on \S+ is stopped and deleted",
            r"node 0 \(data\) on \S+ is stopped and deleted", r"Stopped .*trak-stop")


class Guest:
    """A copy of a root folder as a machine with two more disks."""

    def __init__(self, root, folder, kernel):
        self.folder, self.kernel = folder, kernel
        self.disks = [f"{folder}/{name}.img" for name in ("root", "data", "raw")]
        for path, mib in zip(self.disks, (4096, DATA_MIB, RAW_MIB)):
            with open(path, "wb") as image:
                image.truncate(mib * MIB)
        run(["mke2fs", "-q", "-F", "-t", "ext4", "-L", "trial", "-d", str(root), self.disks[0]], 900)
        run(["mke2fs", "-q", "-F", "-t", "ext4", self.disks[1]], 120)
        self._initramfs()

    def _initramfs(self):
        made = Initramfs(self.kernel.release)
        made.program(shutil.which("busybox") or "busybox")
        for name in ("cat", "cp", "grep", "insmod", "mkdir", "mount", "poweroff", "sh", "sleep",
                     "switch_root", "umount"):
            made.link(f"bin/{name}", "busybox")
        made.kernel_modules(self.kernel, ["virtio_pci", "virtio_blk", "crc32c_generic", "ext4"])
        made.put("init", INIT.encode(), 0o100755)
        for name, text in ADDED.items():
            made.put(f"add/{name}", text.encode())
        for name, target in LINKS.items():
            made.link(f"add/{name}", target)
        made.write(f"{self.folder}/initramfs")

    def boot(self, cut=False):
        """What the guest said until it ended, or until the power goes at its line "end"; and its console."""
        said, console = vm.boot_again(lambda: self._boot_once(cut))
        report = "".join(f"    {line}\n" for line in said) + "--- its console ends so:\n" + vm.tail(console)
        check("end" in said, f"the guest has not come to its end; it said:\n{report}")
        fault = faults_in(console)
        check(not fault, f"the kernel's log: {fault}")
        return said, report, console

    def _boot_once(self, cut):
        machine = Machine(self.kernel, f"{self.folder}/initramfs", self.disks, self.folder,
                          words="systemd.journald.forward_to_console=1 systemd.show_status=1 "
                                "systemd.service_watchdogs=0")
        said = []
        machine.start()
        try:
            for line in machine.lines(LIMIT):
                said.append(line.strip())
                if cut and said[-1] == "end":
                    break
        except Timeout as what:
            raise Failed(f"{what}; it said {said}\n{vm.tail(machine.console())}") from None
        finally:
            machine.kill()
        if not said and vm.false_start(machine.console()):
            raise vm.FalseStart
        return said, machine.console()

    def debugfs(self, request):
        """An answer about the root's file system, while nothing runs."""
        return run(["debugfs", "-R", request, self.disks[0]], 300)

    def left_in(self, folder):
        return {line.split("/")[5] for line in self.debugfs(f"ls -p {folder}").splitlines()
                if line.count("/") > 5}

    def changed_extents(self):
        """Of the disk with a file system: those that are not what they were when the map was cleared."""
        self.debugfs(f"dump /trial/before {self.folder}/before")
        before = Path(self.folder, "before").read_bytes()
        now = Path(self.disks[1]).read_bytes()
        check(len(before) == len(now), f"the copy of the disk has {len(before)} bytes")
        return {at // EXTENT for at in range(0, len(now), EXTENT)
                if before[at:at + EXTENT] != now[at:at + EXTENT]}


def marked(said, name):
    """The extents that the guest's map of a disk names."""
    runs = [line.split()[2:4] for line in said if line.startswith(f"map {name} ")]
    return {extent for first, count in runs for extent in range(int(first), int(first) + int(count))}


def expect(said, report, *lines):
    for line in lines:
        check(line in said, f"the guest did not say \"{line}\":\n{report}")


class Boots:
    """Three boots of one machine, each after what the one before left."""

    def __init__(self, root, folder, kernel):
        self._guest = Guest(root, folder, kernel)

    def _attached(self, said, report):
        """What holds after every boot: two disks are there, and the third is why the unit failed."""
        check(any("trakctl: /etc/trak/20-gone.conf: there is no disk /dev/gone after 3 seconds" in line
                  for line in said), f"nobody missed /dev/gone:\n{report}")
        for minor, name, file, disk in ((0, "data", "10-data", "disk1"), (1, "raw", "30-raw", "disk2")):
            line = (f"log /etc/trak/{file}.conf: node {minor} ({name}) on /dev/disk/by-id/virtio-{disk} "
                    "is attached and started")
            expect(said, report, line)
        expect(said, report, "mounted /dev/trak/data ext4", "state srv.mount active",
               "state dev-trak-data.device active", "state trak-stop.service active",
               "state trak.service failed", "links 0")

    def configured_disks_are_attached_and_mounted_at_boot_whatever_one_lacks(self):
        said, report, self._console = self._guest.boot()
        expect(said, report, "boot 1")
        self._attached(said, report)
        self._report = report

    def a_shutdown_stops_them_in_order(self):
        at = 0
        for pattern in IN_ORDER:
            match = re.compile(pattern).search(self._console, at)
            check(match, f"at the shutdown nobody said, in its turn, \"{pattern}\":\n{self._report}")
            at = match.end()
        left = self._guest.left_in("/var/lib/trak")
        check(not any(name.endswith(".session") for name in left), f"markers were left: {left}")
        check({"trak0.incr", "trak0.diff", "trak1.incr", "trak1.diff"} <= left, f"left: {left}")

    def the_next_boot_knows_what_was_written_before_it(self):
        changed = self._guest.changed_extents()
        said, report, _ = self._guest.boot(cut=True)
        expect(said, report, "boot 2", f"content {3 * EXTENT}")
        self._attached(said, report)
        check(not any("everything counts as changed" in line for line in said), report)
        check(marked(said, "raw") == set(WRITTEN), f"the map is {marked(said, 'raw')}:\n{report}")
        data = marked(said, "data")
        check(len(changed) >= 3, f"three extents and more were written, not {changed}")
        check(changed <= data, f"the map lacks {sorted(changed - data)}:\n{report}")
        check(len(data) < DATA_MIB * MIB // EXTENT // 4, f"the map is of too much:\n{report}")
        left = self._guest.left_in("/var/lib/trak")
        check({"trak0.session", "trak1.session"} <= left, f"after the cut there are {left}")

    def after_a_power_cut_everything_counts_as_changed(self):
        said, report, _ = self._guest.boot()
        expect(said, report, "boot 3", f"content {3 * EXTENT + 5}")
        self._attached(said, report)
        whole = sum("everything counts as changed" in line for line in said)
        check(whole == 2, f"{whole} disks were said to count as changed:\n{report}")
        for name, mib in (("data", DATA_MIB), ("raw", RAW_MIB)):
            check(marked(said, name) == set(range(mib * MIB // EXTENT)), f"{name}: {report}")
        left = self._guest.left_in("/var/lib/trak")
        check(not any(name.endswith(".session") for name in left), f"markers were left: {left}")


def boots(root, series="6.1"):
    """0, or 1 when a step failed."""
    folder = vm.make_folder()
    try:
        return all_steps(Boots(root, folder, vm_kernels.get(series)))
    except (CannotRun, Failed) as why:
        print(f"not ok the_machine_is_made: {why}")
        return 1
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    if len(sys.argv) < 2 or os.geteuid() != 0:
        sys.exit(f"as root:\n{__doc__}")
    sys.exit(boots(*sys.argv[1:3]))
