#!/usr/bin/env python3
# bench/run.py: every figure of docs/performance.md, in one run
# SPDX-License-Identifier: GPL-2.0-only
"""run.py [--rounds N] [--seconds N] [--size MIB] [--only PART] [--json FILE]

Parts: io (node files beside the bare image and a peer), snap (the same under a snapshot), inproc
(the request path without I/O), maps (data-block maps: maps.py). The contenders of a part take turns
within each round, so that what else the machine does meets all of them; figures are medians of the
rounds, ratios are of medians.
"""
import argparse
import json
import os
import platform
import statistics
import subprocess
import sys

from io_peers import Bare, Qsd, QsdCbw, Trak, TrakSnap, TrakSnap4k, fio, seconds_of, wait_for_quiet

import maps
from trak_machine import BIN, MIB, Machine
from trak_testing import Failed

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


def measure(peer, loads, seconds, results):
    with peer:
        for name, load in loads.items():
            before = seconds_of(peer.cpu_pids())
            one = fio(peer.loop, load, seconds)
            one["cpu_us_per_io"] = (seconds_of(peer.cpu_pids()) - before) * 1e6 / max(one["ios"], 1)
            results.setdefault(name, {}).setdefault(peer.name, []).append(one)
            print(f"  {peer.name:14} {name:13} {one['iops']:9.0f} /s {one['mib_s']:7.0f} MiB/s "
                  f"p99 {one['p99_us']:7.0f} us", flush=True)


def io_part(machine, image, options, results):
    for turn in range(options.rounds):
        print(f"io, round {turn + 1} of {options.rounds}", flush=True)
        for kind in (Bare, Trak, Qsd):
            wait_for_quiet()
            measure(kind(machine, image), LOADS, options.seconds, results)


def first_touch(requests, name, load):
    return {name: [*load, f"--number_ios={requests if '4k' in name else requests // 16}"]}


def snap_part(machine, image, options, results):
    """Each first-touch load meets a new snapshot; then the second touch, and reads."""
    cow = machine.volume("cow", 2 * options.size * MIB)
    requests = options.size * MIB // 65536 // 2
    for turn in range(options.rounds):
        print(f"snap, round {turn + 1} of {options.rounds}", flush=True)
        for name, load in FIRST.items():
            for kind in (Bare, TrakSnap, TrakSnap4k, QsdCbw):
                wait_for_quiet()
                peer = kind(machine, image) if kind is Bare else kind(machine, image, cow)
                measure(peer, first_touch(requests, name, load), 0, results)
        for kind in (Trak, TrakSnap):
            wait_for_quiet()
            peer = kind(machine, image) if kind is Trak else kind(machine, image, cow)
            touched_again(peer, options, results)


def touched_again(peer, options, results):
    def add(name, device, load):
        results.setdefault(name, {}).setdefault(peer.name, []).append(
            fio(device, LOADS[load], options.seconds))

    with peer:
        fio(peer.loop, ["--rw=write", "--bs=1M", "--iodepth=4", f"--size={options.size}M"], 0)
        for load in ("write-4k", "read-4k"):
            add(f"again-{load}", peer.loop, load)
        if isinstance(peer, TrakSnap):
            loop = peer.m.loop(peer.d.node("trak1"), "--direct-io=on", "--read-only")
            for load in ("read-4k", "read-1m"):
                add(f"snap-{load}", loop, load)
            peer.m.unloop(loop)


def inproc_part():
    program = os.path.join(BIN, "bench_inproc")
    if not os.path.exists(program):
        print("inproc: bench_inproc is not built (libbenchmark-dev)")
        return []
    done = subprocess.run([program, "--benchmark_format=json", "--benchmark_min_time=0.5",
                           "--benchmark_repetitions=3", "--benchmark_report_aggregates_only=true"],
                          stdout=subprocess.PIPE, text=True, timeout=600, check=True)
    return [one for one in json.loads(done.stdout)["benchmarks"]
            if one.get("aggregate_name", "median") == "median"]


def median(rounds, key):
    return statistics.median(one[key] for one in rounds)


def table(results):
    lines = ["| load | on | IOPS | MiB/s | p99 us | p99.9 us | CPU us/request | of bare | of trak "
             "|", "|---|---|---|---|---|---|---|---|---|"]
    for name, peers in results.items():
        iops = {peer: median(rounds, "iops") for peer, rounds in peers.items()}
        for peer, rounds in peers.items():
            ratio = [f"{iops[peer] / iops[base]:.2f}" if iops.get(base) else "" for base in
                     ("bare", "trak")]
            cpu = median(rounds, "cpu_us_per_io") if "cpu_us_per_io" in rounds[0] else 0
            mib_s, p99, p999 = (median(rounds, key) for key in ("mib_s", "p99_us", "p999_us"))
            lines.append(f"| `{name}` | {peer} | {iops[peer]:.0f} | {mib_s:.0f} | {p99:.0f} | "
                         f"{p999:.0f} | {f'{cpu:.1f}' if cpu else ''} | {ratio[0]} | {ratio[1]} |")
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
    parser.add_argument("--only", choices=("io", "snap", "inproc", "maps"))
    parser.add_argument("--json", default="build/bench.json")
    options = parser.parse_args()
    wanted = [options.only] if options.only else ["io", "snap", "inproc", "maps"]
    results, rows, built, left = {}, [], [], []
    machine = Machine()
    try:
        if "io" in wanted or "snap" in wanted:
            image = machine.path("disk.img")
            fill(image, options.size * MIB)
        if "io" in wanted:
            io_part(machine, image, options, results)
        if "snap" in wanted:
            snap_part(machine, image, options, results)
        if "inproc" in wanted:
            rows = inproc_part()
        if "maps" in wanted:
            built = maps.part(machine, options.rounds)
    finally:
        left = machine.close()
    print(f"\n{json.dumps(made_on())}\n")
    if results:
        print(table(results))
    if rows:
        print(f"\n{inproc_table(rows)}")
    if built:
        print(f"\n{maps.tables(built)}")
    with open(options.json, "w", encoding="utf-8") as file:
        json.dump({"machine": made_on(), "rounds": results, "inproc": rows, "maps": built}, file,
                  indent=1)
    if left:
        raise Failed(f"left behind: {left}")


if __name__ == "__main__":
    sys.exit(main())
