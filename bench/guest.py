#!/usr/bin/env python3
# bench/guest.py: the module beside the kernel's own in a virtual machine: medians and ratios
# SPDX-License-Identifier: GPL-2.0-only
"""guest.py [--kernel SERIES | --kernel-tree FOLDER] [--rounds N] [--seconds N] [--size MIB]
[--media LIST] [--only REGEX] [--profile REGEX] [--json FILE]

All contenders are in one guest, each on a disk of its own, and take turns at every load, each round
another one first (guest_loads.sh). So what else the host does meets all of them alike. A ratio is the
median of the rounds' ratios; the range beside it is that of the middle half of the rounds.

Kinds of disk: `virtio`, images on a disk of the host, in a guest with two processors on the host's clock;
`memory` (brd, which takes no time) and `timed` (null_blk in memory, 50 us for a request), in a guest with
one processor whose clock counts instructions, each as a nanosecond: there nothing of the host shows.
Kernels 2.6 have neither dm-era nor null_blk: there the filter is beside the disk alone, and no disk is
`timed`.

--only: loads whose "MEDIUM LOAD" it is found in, such as 'virtio first' or 'memory .*4k-q1$'.
--profile: where the processor's time goes during loads whose "MEDIUM LOAD ON" it is found in. (perf slows
what it watches.)
"""
import argparse
import json
import os
import platform
import re
import shlex
import shutil
import statistics
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "vm"))

import vm  # noqa: E402
import vm_kernels  # noqa: E402
from vm_report import CannotRun, Report, note, warn  # noqa: E402
from vm_suites import MIB, OnTrak, tool  # noqa: E402

FIGURE = re.compile(r"^figure (\S+) (\S+) (\S+) (\d+) (\d+) (\d+) (\d+) (\d+)$")
BASE = "bare"


class Bench(OnTrak):
    """Disks of the same size for every contender, on the host in one folder, with real blocks."""

    name = "bench"
    about = "loads on the filter, on snapshots and on what the kernel has of the kind"
    modules = (*OnTrak.modules, "dm_mod", "dm_era", "dm_snapshot", "brd", "null_blk")
    tools = (*OnTrak.tools, "dmsetup", "mke2fs", "fio")
    not_in_2_6 = ("dm_era", "null_blk")
    checked = False

    def __init__(self, folder, options, media):
        super().__init__(folder, False)
        self.options, self.media = options, media
        if options.profile:
            self.tools = (*self.tools, "perf")
        self.counted = media != ["virtio"]
        # Some disks are larger than `size`, and what they take in one medium is free for the next.
        self.memory_mib = 900 + (options.size * 8 if self.counted else 0)
        self.limit = 600 + options.rounds * 1200

    def disks(self):
        if self.counted:
            return []
        size = self.options.size
        sizes = (size, size * 3 // 2, size, size, 8, size, size, size * 5 // 4)
        block = os.urandom(MIB)
        made = []
        for number, mib in enumerate(sizes):
            made.append(f"{self.folder}/disk{number}.img")
            with open(made[-1], "wb") as file:
                for _ in range(mib):
                    file.write(block)
        tool("sync", "-f", self.folder)
        return made

    def files(self, initramfs):
        words = {"media": " ".join(self.media), "rounds": self.options.rounds,
                 "mib": self.options.size, "profile": self.options.profile,
                 "time": "150ms" if self.counted else f"{self.options.seconds}000ms",
                 "loads": self.options.only or "."}
        initramfs.put("etc/bench", "".join(
            f"{name}={shlex.quote(str(value))}\n" for name, value in words.items()).encode())
        initramfs.file("suites/bench.sh", f"{HERE}/guest_loads.sh")


class Figures(Report):
    """The guest's lines: tests, and figures by medium, load, contender and round."""

    def __init__(self, title):
        super().__init__(title)
        self.results = {}

    def line(self, text):
        match = FIGURE.match(text.strip())
        if not match:
            return super().line(text)
        medium, load, who, turn = match.groups()[:4]
        kib, ms, p50, p99 = (int(number) for number in match.groups()[4:])
        one = {"iops": kib / size_kib(load) * 1000 / max(ms, 1), "p50_us": p50, "p99_us": p99}
        self.results.setdefault((medium, load), {}).setdefault(who, {})[int(turn)] = one
        print(f"  {turn} {medium:6} {load:24} {who:10} {one['iops']:8.0f} /s  p99 {p99} us",
              flush=True)
        return True


def size_kib(load):
    """Of one of its requests."""
    return 1024 if load.endswith("-1m") else 4


def ratios(rounds, base):
    """By round, where both were measured."""
    return sorted(rounds[turn]["iops"] / base[turn]["iops"] for turn in rounds
                  if turn in base and base[turn]["iops"])


def ratio_text(values):
    if not values:
        return ""
    quarter = len(values) // 4
    return (f"{statistics.median(values):.2f} ({values[quarter]:.2f} to "
            f"{values[len(values) - 1 - quarter]:.2f})")


def table(results):
    lines = ["| disk | load | on | IOPS | MiB/s | p50 us | p99 us | of bare | trak to this |",
             "|---|---|---|---|---|---|---|---|---|"]
    for (medium, load), contenders in results.items():
        ours = next((name for name in contenders if name.startswith("trak")), None)
        for who, rounds in contenders.items():
            iops, p50, p99 = (statistics.median(one[key] for one in rounds.values())
                              for key in ("iops", "p50_us", "p99_us"))
            of_bare = ratio_text(ratios(rounds, contenders.get(BASE, {}))) if who != BASE else ""
            ahead = ""
            if ours and who not in (BASE, ours):
                ahead = ratio_text(ratios(contenders[ours], rounds))
            lines.append(f"| {medium} | `{load}` | {who} | {iops:.0f} | "
                         f"{iops * size_kib(load) / 1024:.0f} | {p50:.0f} | {p99:.0f} | {of_bare} | "
                         f"{ahead} |")
    return "\n".join(lines)


def run_guest(options, media, kernel, figures):
    """One guest with its media; true when nothing was wrong."""
    folder = tempfile.mkdtemp(prefix="trak-bench.", dir=os.environ.get("TMPDIR") or "/var/tmp")
    try:
        suite = Bench(folder, options, media)
        disks = suite.disks()
        vm.initramfs_of(suite, kernel).write(f"{folder}/initramfs")
        return vm.boots(kernel, suite, disks, figures, vm.Deadline(float("inf")), "")
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def run(options):
    """The figures of both guests, or None where something was wrong."""
    kernel = vm.kernel_of(options.kernel, options)
    figures = Figures(f"bench-{kernel.series}")
    if kernel.series.startswith("2.6.") and "timed" in options.media:
        note("no disk is timed: this series has no null_blk")
        options.media.remove("timed")
    guests = (("virtio",), ("memory", "timed"))
    asked = [[medium for medium in guest if medium in options.media] for guest in guests]
    good = [run_guest(options, media, kernel, figures) for media in asked if media]
    print(f"\n{kernel.release} under {platform.release()}, {os.cpu_count()} processors, load "
          f"{os.getloadavg()[0]:.1f}\n\n{table(figures.results)}\n")
    return figures if all(good) and not figures.count("not ok") else None


def main():
    parser = argparse.ArgumentParser(prog="./run bench vm", description=(
        "Measures the module in a virtual machine beside dm-era and dm-snapshot."))
    parser.add_argument("--kernel", choices=list(vm_kernels.SERIES), default="6.12")
    parser.add_argument("--kernel-tree", metavar="FOLDER", help="a built tree, as in ./run vm")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=1, help="for each load")
    parser.add_argument("--media", default="virtio,memory,timed", help="kinds of disk")
    parser.add_argument("--size", type=int, default=128, help="MiB of each disk")
    parser.add_argument("--only", default="", help="loads that this regular expression is found in")
    parser.add_argument("--profile", default="", help="loads whose profile is printed")
    parser.add_argument("--json", default="build/bench-vm.json")
    options = parser.parse_args()
    options.media, options.update = options.media.split(","), False
    if not set(options.media) <= {"virtio", "memory", "timed"}:
        parser.error("--media: virtio, memory, timed, with commas between")
    if min(options.rounds, options.seconds) < 1 or options.size < 64 or options.size % 64:
        parser.error("at least one round of a second, on disks of a multiple of 64 MiB")
    try:
        figures = run(options)
    except (CannotRun, AssertionError) as why:
        warn(str(why))
        return 1
    if figures is None:
        return 1
    if not figures.results:
        warn(f"no load is called {options.only}")
        return 1
    os.makedirs(os.path.dirname(os.path.abspath(options.json)), exist_ok=True)
    with open(options.json, "w", encoding="utf-8") as file:
        json.dump({"kernel": figures.title.removeprefix("bench-"), "rounds": [
            {"medium": medium, "load": load, "on": who, "round": turn, **one}
            for (medium, load), contenders in figures.results.items()
            for who, rounds in contenders.items() for turn, one in rounds.items()]}, file, indent=1)
    note(f"every round is in {options.json}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
