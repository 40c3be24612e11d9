#!/usr/bin/env python3
# bench/run.py: every figure of docs/performance.md, in one run
# SPDX-License-Identifier: GPL-2.0-only
"""run.py [--rounds N] [--seconds N] [--size MIB] [--only PART] [--filter REGEX] [--json FILE]

Parts: io (node files beside the bare image and a peer), snap (the same under a snapshot), inproc
(the request path without I/O), maps (data-block maps: maps.py), backup (trak-backup: backup.py). --filter
takes the rows whose names it is found in. The contenders of a part take turns within each round, so
that what else the machine does meets all of them; figures are medians of the rounds, ratios are of
medians.
"""
import argparse
import json
import os
import platform
import re
import statistics
import subprocess
import sys
import threading
import time

from io_peers import (Bare, Qsd, QsdCbw, Trak, TrakSnap, TrakSnap4k, TrakStarting, fio,
                      longest_write, seconds_of, wait_for_quiet)

import backup
import maps
from trak_machine import BIN, MIB, Machine
from trak_testing import Failed, run

LOADS = {
    "write-4k": ["--rw=randwrite", "--bs=4k", "--iodepth=16"],
    "read-4k": ["--rw=randread", "--bs=4k", "--iodepth=16"],
    "write-1m": ["--rw=write", "--bs=1M", "--iodepth=4"],
    "read-1m": ["--rw=read", "--bs=1M", "--iodepth=4"],
}
# Of a snapshot's first touches there are only so many: a number of requests, and no time.
# Writes aligned to 64 KiB hit a chunk of that size (the peer's cluster) once each, nearly always.
FIRST = {
    "first-4k-q16": ["--rw=randwrite", "--bs=4k", "--blockalign=64k", "--iodepth=16"],
    "first-4k-q64": ["--rw=randwrite", "--bs=4k", "--blockalign=64k", "--iodepth=64"],
    "first-1m": ["--rw=write", "--bs=1M", "--iodepth=4"],
}


def fill(image, size):
    """Real blocks everywhere: a hole would be quicker to read and slower to write."""
    with open(image, "wb") as file:
        block = os.urandom(MIB)
        for _ in range(size // MIB):
            file.write(block)
        file.flush()
        os.fsync(file.fileno())


def cow_volume(machine, size):
    """A file system for COW files on another image of the same disk: like the image itself with real
    blocks everywhere and direct I/O underneath, so that no contender's copies stay in memory."""
    image = machine.path("cow.img")
    fill(image, size)
    run("mke2fs", "-q", "-F", "-t", "ext4", "-E", "nodiscard", image)
    return machine.mount(machine.loop(image, "--direct-io=on"), "cow")


def wanted(options, names):
    return [name for name in names if re.search(options.filter, name)]


def add(results, name, peer, one):
    results.setdefault(name, {}).setdefault(peer.name, []).append(one)
    print(f"  {peer.name:14} {name:20} {one['iops']:9.0f} /s {one['mib_s']:7.0f} MiB/s "
          f"p99 {one['p99_us']:7.0f} us", flush=True)


def load_on(peer, device, load, seconds):
    """One load, with what the peer's processes did meanwhile."""
    cpu, (calls, waited) = seconds_of(peer.cpu_pids()), peer.syncs()
    one = fio(device, load, seconds)
    calls_after, waited_after = peer.syncs()
    one["cpu_us_per_io"] = (seconds_of(peer.cpu_pids()) - cpu) * 1e6 / max(one["ios"], 1)
    one["syncs"] = calls_after - calls
    one["sync_share"] = (waited_after - waited) / max(one["seconds"], 1e-3)
    return one


def measure(peer, loads, seconds, results):
    with peer:
        for name, load in loads.items():
            add(results, name, peer, load_on(peer, peer.loop, load, seconds))


def io_part(machine, image, options, results):
    loads = {name: LOADS[name] for name in wanted(options, LOADS)}
    for turn in range(options.rounds if loads else 0):
        print(f"io, round {turn + 1} of {options.rounds}", flush=True)
        for kind in (Bare, Trak, Qsd):
            wait_for_quiet()
            measure(kind(machine, image), loads, options.seconds, results)


def first_touch(options, machine, image, cow, results):
    """Each load meets a new snapshot."""
    requests = options.size * MIB // 65536 // 4
    for name in wanted(options, FIRST):
        number = requests if "4k" in name else requests // 16
        load = {name: [*FIRST[name], f"--number_ios={number}"]}
        for kind in (Bare, TrakSnap, TrakSnap4k, QsdCbw):
            wait_for_quiet()
            peer = kind(machine, image) if kind is Bare else kind(machine, image, cow)
            measure(peer, load, 0, results)


SNAP_READS = [f"snap-{load}-{state}" for state in ("unpreserved", "preserved") for load in
              ("read-4k", "read-1m")]
AGAIN = ["again-write-4k", "again-read-4k"]


def load_of(name):
    return LOADS[re.search("(read|write)-(4k|1m)", name)[0]]


def read_snap(peer, names, seconds, results):
    loop = peer.m.loop(peer.d.node("trak1"), "--direct-io=on", "--read-only")
    for name in names:
        add(results, name, peer, load_on(peer, loop, load_of(name), seconds))
    peer.m.unloop(loop)


def touched_again(options, machine, image, cow, results):
    """The second touch, and reads of the snapshot: before anything is preserved, and afterwards."""
    reads, again = wanted(options, SNAP_READS), wanted(options, AGAIN)
    seconds = max(1, options.seconds - 1)
    for kind in (Bare, Trak, TrakSnap):
        if not (again if kind is Trak else reads if kind is Bare else reads + again):
            continue
        wait_for_quiet()
        with kind(machine, image, cow) if kind is TrakSnap else kind(machine, image) as peer:
            if kind is Bare:
                for load in {name.rpartition("-")[0] for name in reads}:
                    one = load_on(peer, peer.loop, load_of(load), seconds)
                    for name in reads:
                        if name.startswith(load):
                            add(results, name, peer, one)
                continue
            if kind is TrakSnap:
                read_snap(peer, [name for name in reads if "-unp" in name], seconds, results)
            fio(peer.loop, ["--rw=write", "--bs=1M", "--iodepth=4", f"--size={options.size}M"], 0)
            for name in again:
                add(results, name, peer, load_on(peer, peer.loop, load_of(name), seconds))
            if kind is TrakSnap:
                peer.forget_cached()
                read_snap(peer, [name for name in reads if "-pre" in name], seconds, results)


def start_in_the_middle(peer, seconds, moments):
    time.sleep(seconds / 2)
    moments.append(time.time() * 1000)
    peer.control.start(1)
    moments.append(time.time() * 1000)


def started_under_load(options, machine, image, cow, results):
    """A snapshot is started in the middle of a load: on the node, and on a file system on it, which is
    frozen meanwhile."""
    for name in wanted(options, ["start-write-4k", "start-write-4k-ext4"]):
        wait_for_quiet()
        with TrakStarting(machine, image, cow) as peer:
            device, load = peer.loop, [*LOADS["write-4k"]]
            if name.endswith("ext4"):
                run("mke2fs", "-q", "-F", "-t", "ext4", "-E", "nodiscard", peer.loop)
                device = f"{machine.mount(peer.loop, 'living')}/file"
                load += [f"--size={options.size // 4}M", "--overwrite=1"]
                fio(device, ["--rw=write", "--bs=1M", f"--size={options.size // 4}M"], 0)
            log, moments = machine.path("load"), []
            load += [f"--write_lat_log={log}", "--log_unix_epoch=1"]
            starter = threading.Thread(target=start_in_the_middle,
                                       args=(peer, options.seconds, moments))
            starter.start()
            one = load_on(peer, device, load, options.seconds)
            starter.join(120)
            if len(moments) != 2:
                raise Failed("the snapshot was not started")
            one["start_ms"] = moments[1] - moments[0]
            one["longest_us"] = longest_write(f"{log}_lat.1.log", *moments)
            add(results, name, peer, one)
            if name.endswith("ext4"):
                machine.umount(machine.path("living"))


def snap_part(machine, image, options, results):
    cow = cow_volume(machine, options.size * MIB * 3 // 2)
    for turn in range(options.rounds):
        print(f"snap, round {turn + 1} of {options.rounds}", flush=True)
        first_touch(options, machine, image, cow, results)
        touched_again(options, machine, image, cow, results)
        started_under_load(options, machine, image, cow, results)


def inproc_part(options, machine):
    program = os.path.join(BIN, "bench_inproc")
    if not os.path.exists(program):
        print("inproc: bench_inproc is not built (libbenchmark-dev)")
        return []
    done = subprocess.run([program, "--benchmark_format=json", "--benchmark_min_time=0.2",
                           f"--benchmark_filter={options.filter or '.'}",
                           "--benchmark_repetitions=3", "--benchmark_report_aggregates_only=true"],
                          stdout=subprocess.PIPE, text=True, timeout=600, check=True,
                          env={**os.environ, "TRAK_BENCH_COW_DIR": machine.folder("inproc")})
    return [one for one in json.loads(done.stdout or '{"benchmarks": []}')["benchmarks"]
            if one.get("aggregate_name", "median") == "median"]


def median(rounds, key):
    return statistics.median(one[key] for one in rounds)


def more_of(rounds):
    """What only some loads have."""
    texts = []
    if rounds[0].get("syncs"):
        texts.append(f"{median(rounds, 'sync_share') * 100:.0f} % in {rounds[0]['syncs']} syncs")
    if "longest_us" in rounds[0]:
        texts.append(f"start {median(rounds, 'start_ms'):.0f} ms, longest write meanwhile "
                     f"{median(rounds, 'longest_us') / 1000:.1f} ms")
    return ", ".join(texts)


def table(results):
    lines = ["| load | on | IOPS | MiB/s | p99 us | p99.9 us | CPU us/request | of bare | of trak "
             "| more |", "|---|---|---|---|---|---|---|---|---|---|"]
    for name, peers in results.items():
        iops = {peer: median(rounds, "iops") for peer, rounds in peers.items()}
        for peer, rounds in peers.items():
            ratio = [f"{iops[peer] / iops[base]:.2f}" if iops.get(base) else "" for base in
                     ("bare", "trak")]
            cpu = median(rounds, "cpu_us_per_io")
            mib_s, p99, p999 = (median(rounds, key) for key in ("mib_s", "p99_us", "p999_us"))
            lines.append(f"| `{name}` | {peer} | {iops[peer]:.0f} | {mib_s:.0f} | {p99:.0f} | "
                         f"{p999:.0f} | {f'{cpu:.1f}' if cpu else ''} | {ratio[0]} | {ratio[1]} | "
                         f"{more_of(rounds)} |")
    return "\n".join(lines)


def inproc_table(rows):
    lines = ["| in process | ns | CPU ns | more |", "|---|---|---|---|"]
    for row in rows:
        skip = {"name", "run_name", "run_type", "family_index", "per_family_instance_index",
                "repetitions", "threads", "aggregate_name", "aggregate_unit", "iterations",
                "real_time", "cpu_time", "time_unit"}
        more = ", ".join(f"{key} {value:.4g}" for key, value in row.items()
                         if key not in skip and isinstance(value, (int, float)))
        lines.append(f"| `{row['run_name']}` | {row['real_time']:.0f} | {row['cpu_time']:.0f} | "
                     f"{more} |")
    return "\n".join(lines)


def made_on():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.partition(":")[2].strip() for line in file
                      if line.startswith("model name")), "?")
    peer = subprocess.run(["qemu-storage-daemon", "--version"], capture_output=True, text=True,
                          timeout=20, check=False).stdout.splitlines()
    return {"processors": os.cpu_count(), "model": model, "kernel": platform.release(),
            "load_average": os.getloadavg()[0], "qemu-storage-daemon": peer[0] if peer else ""}


def main():
    parser = argparse.ArgumentParser(description="Measures trak beside its peers.")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=4, help="for each load")
    parser.add_argument("--size", type=int, default=1024, help="MiB of the image")
    parser.add_argument("--backup-size", type=int, default=4096, help="MiB of the disk of backups")
    parser.add_argument("part", nargs="?", choices=("io", "snap", "inproc", "maps", "backup"))
    parser.add_argument("--only", choices=("io", "snap", "inproc", "maps", "backup"))
    parser.add_argument("--filter", default="", help="rows whose names it is found in")
    parser.add_argument("--json", default="build/bench.json")
    options = parser.parse_args()
    only = options.part or options.only
    parts = [only] if only else ["io", "snap", "inproc", "maps", "backup"]
    results, rows, built, left, backups = {}, [], [], [], {}
    machine = Machine()
    try:
        if "io" in parts or "snap" in parts:
            image = machine.path("disk.img")
            fill(image, options.size * MIB)
        if "io" in parts:
            io_part(machine, image, options, results)
        if "snap" in parts:
            snap_part(machine, image, options, results)
        if "inproc" in parts:
            rows = inproc_part(options, machine)
        if "maps" in parts and re.search(options.filter, "maps"):
            built = maps.part(machine, options.rounds)
        if "backup" in parts and re.search(options.filter, "backup"):
            backups = backup.part(machine, min(options.rounds, 3), options.backup_size)
    finally:
        left = machine.close()
    print(f"\n{json.dumps(made_on())}\n")
    if results:
        print(table(results))
    if rows:
        print(f"\n{inproc_table(rows)}")
    if built:
        print(f"\n{maps.tables(built)}")
    if backups:
        print(f"\n{backup.table(backups, options.backup_size)}")
    with open(options.json, "w", encoding="utf-8") as file:
        json.dump({"machine": made_on(), "rounds": results, "inproc": rows, "maps": built,
                   "backup": backups}, file,
                  indent=1)
    if left:
        raise Failed(f"left behind: {left}")


if __name__ == "__main__":
    sys.exit(main())
