# bench/maps.py: what data-block maps cost and what they save
# SPDX-License-Identifier: GPL-2.0-only
"""The part `maps` of run.py: building the map of sparse file systems of 1 and 4 TiB, the memory that it
takes, and the copies that it spares a fixed workload.
"""
import json
import os
import random
import statistics
import subprocess
import time

from trak_machine import BIN, MIB
from trak_testing import Failed, run

TIB = 1 << 40
GROUP = 32768  # blocks of 4 KiB in a group
MADE = {
    "ext3": "mke2fs -q -F -t ext3 -b 4096 -N 65536 -J size=4",
    "xfs": "mkfs.xfs --unsupported -q -f -m crc=0,finobt=0",
    "reiserfs": "mkreiserfs -q -f -f",
}


def build(image, times=3):
    """The median build of the image's map; what is cached of the image is dropped before each."""
    rounds = []
    for _ in range(times):
        fd = os.open(image, os.O_RDWR)
        os.fsync(fd)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(fd)
        done = subprocess.run([os.path.join(BIN, "bench_maps"), image], stdout=subprocess.PIPE,
                              text=True, timeout=600, check=True)
        rounds.append(json.loads(done.stdout))
    return {**rounds[0], "seconds": statistics.median(one["seconds"] for one in rounds)}


def make(machine, name, size, command):
    image = machine.image(f"{name}.img", size)
    run(*command.split(), image, timeout=900)
    return image


def rewrite_groups(image, size, bits_of):
    """Replaces each group's block bitmap, and its count of free blocks. bits_of(group) is one byte
    for each 8 blocks; what they say need not be a file system any more."""
    with open(image, "r+b", buffering=0) as file:
        groups = size // (GROUP * 4096)
        table = bytearray(os.pread(file.fileno(), groups * 32, 4096))
        for group in range(groups):
            bits = bits_of(group)
            free = GROUP - sum(map(int.bit_count, bits))
            where = int.from_bytes(table[group * 32:group * 32 + 4], "little")
            os.pwrite(file.fileno(), bits, where * 4096)
            table[group * 32 + 12:group * 32 + 14] = free.to_bytes(2, "little")
        os.pwrite(file.fileno(), table, 4096)


def builds(machine, results):
    for kind, command in MADE.items():
        for tib in (1, 4):
            image = make(machine, f"{kind}-{tib}", tib * TIB, command)
            results.append({"map": f"{kind}, empty", "tib": tib, **build(image)})
            print(f"  {results[-1]}", flush=True)
            if (kind, tib) != ("ext3", 1):
                os.unlink(image)


def fillings(machine, results):
    """The same disk of 1 TiB half full: in runs of 32 MiB, and by a coin for each chunk of 64 KiB."""
    image, dice = machine.path("ext3-1.img"), random.Random(1)
    runs = (b"\xff" * 1024 + b"\0" * 1024) * 2
    coin = [b"".join(b"\xff\xff" if byte >> bit & 1 else b"\0\0" for bit in range(8))
            for byte in range(256)]
    for name, bits_of in (("half full in runs", lambda _: runs),
                          ("half full, fragmented",
                           lambda _: b"".join(coin[byte] for byte in dice.randbytes(256)))):
        rewrite_groups(image, TIB, bits_of)
        results.append({"map": f"ext3, {name}", "tib": 1, **build(image)})
        print(f"  {results[-1]}", flush=True)
    os.unlink(image)


def fill(path, size):
    block = random.Random(size).randbytes(MIB)
    with open(path, "r+b" if os.path.exists(path) else "wb") as file:
        for _ in range(size // MIB):
            file.write(block)
        file.flush()
        os.fsync(file.fileno())


def workload(machine, name, features, snapshot):
    """256 MiB into free space and 64 MiB over what there was: seconds, and bytes preserved.

    The two kinds of ext4 differ by the size of their group descriptors alone; of one of them the
    driver has a map."""
    image = make(machine, name, 1024 * MIB, f"mke2fs -q -F -t ext4 -O {features},^metadata_csum "
                                            "-E lazy_itable_init=0,lazy_journal_init=0")
    daemon = machine.trakd(images={"d": image}, root=f"tree-{name}")
    with daemon.control() as control:
        control.add_filter("/dev/image/d", machine.folder(f"maps-{name}"))
        control.start(0)
        loop = machine.loop(daemon.node(), "--direct-io=on")
        point = machine.mount(loop, f"mnt-{name}")
        fill(f"{point}/old", 300 * MIB)
        preserved = 0
        if snapshot:
            control.add_snap(0, machine.path("map-cow/map"), machine.path("map-cow/data"), 65536, 1)
            control.start(1)
        begin = time.monotonic()
        fill(f"{point}/new", 256 * MIB)
        fill(f"{point}/old", 64 * MIB)
        seconds = time.monotonic() - begin
        if snapshot:
            info = json.loads(daemon.trakctl("--json", "info", "1").out)
            if info["datablocks"]["built"] != (features == "^64bit"):
                raise Failed(f"the map of {features} is not as expected: {info['datablocks']}")
            preserved = info["cow"]["bytes_preserved"]
            control.stop(1)
            control.delete(1)
        machine.umount(point)
        machine.unloop(loop)
    daemon.stop()
    os.unlink(image)
    return {"seconds": seconds, "preserved": preserved}


def workloads(machine, rounds, results):
    machine.volume("map-cow", 1024 * MIB)
    kinds = (("no snapshot", "^64bit", False), ("snapshot with a map", "^64bit", True),
             ("snapshot without", "64bit", True))
    measured = {}
    for turn in range(rounds):
        for number, (name, features, snapshot) in enumerate(kinds):
            one = workload(machine, f"w{turn}-{number}", features, snapshot)
            print(f"  {name}: {one}", flush=True)
            measured.setdefault(name, []).append(one)
    for name, all_rounds in measured.items():
        results.append({"workload": name,
                        "seconds": statistics.median(one["seconds"] for one in all_rounds),
                        "preserved": statistics.median(one["preserved"] for one in all_rounds)})


def part(machine, rounds):
    """All rows, in the order of the tables."""
    if not os.path.exists(os.path.join(BIN, "bench_maps")):
        raise Failed("bench_maps is not built")
    results = []
    print("maps", flush=True)
    builds(machine, results)
    fillings(machine, results)
    workloads(machine, rounds, results)
    return results


def tables(results):
    lines = ["| map of | TiB | seconds | reads | KiB in memory | KiB as a plain bitmap |",
             "|---|---|---|---|---|---|"]
    lines += [f"| {row['map']} | {row['tib']} | {row['seconds']:.2f} | {row['reads']} | "
              f"{row['memory'] / 1024:.0f} | {row['plain'] / 1024:.0f} |"
              for row in results if "map" in row]
    lines += ["", "| 256 MiB into free space, 64 MiB over old data | seconds | MiB preserved |",
              "|---|---|---|"]
    lines += [f"| {row['workload']} | {row['seconds']:.2f} | {row['preserved'] / MIB:.0f} |"
              for row in results if "workload" in row]
    return "\n".join(lines)
