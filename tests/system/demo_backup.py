#!/usr/bin/env python3
# tests/system/demo_backup.py: what the manifests of the demo's store say
# SPDX-License-Identifier: GPL-2.0-only
"""demo_backup.py latest STORE   |   times STORE ID   |   table STORE ID...

latest  the id of the backup with the highest number.
times   begin of the run and the moment after its freeze, in seconds of the clock of the machine's
        start: the state that a point shows is one from between them.
table   sizes and the share of the disk that was read; exit status 1 where a backup of changes was
        not cheaper than the full one, or the numbers contradict each other.
"""
import datetime
import glob
import json
import os
import sys
import time

MIB = 1 << 20


def manifest(store, name):
    with open(f"{store}/{name}.json", encoding="utf-8") as file:
        return json.load(file)


def latest(store):
    names = glob.glob(f"{store}/[0-9]*-*.json")
    return max(os.path.basename(name)[:-len(".json")] for name in names)


def since_start(text):
    """A manifest's time, on the clock of the machine's start, to the milliseconds that it has."""
    utc = datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%S.%fZ")
    seconds = utc.replace(tzinfo=datetime.timezone.utc).timestamp()
    return seconds - time.time() + time.monotonic()


def times(store, name):
    taken = manifest(store, name)["times"]
    return since_start(taken["begun"]) - 0.002, since_start(taken["frozen"]) + 0.002


def faults(one):
    moved, extents = one["bytes"], one["extents"]
    found = []
    if moved["read"] != moved["mapped"]:
        found.append(f"read {moved['read']} bytes of {moved['mapped']} under the map")
    if moved["written"] + moved["zero"] + moved["unchanged"] != moved["read"]:
        found.append("what was read is not what was written, zero or unchanged")
    if extents["copied"] > one["node"]["size"] // one["node"]["extent_size"]:
        found.append("more extents than the disk has")
    if one["audit"]["differing"]:
        found.append(f"the audit found {one['audit']['differing']} silent misses")
    if extents["unchanged"] * one["node"]["extent_size"] > moved["unchanged"]:
        found.append("extents that were as before have altered blocks")
    if one["kind"] == "incr" and not extents["unchanged"]:
        found.append("a file that was written again as it was cost a copy")
    return [f"{one['id']}: {text}" for text in found]


def table(store, names):
    rows = [manifest(store, name) for name in names]
    found = [text for one in rows for text in faults(one)]
    print(f"{'backup':13} {'map says':>9} {'read':>9} {'of disk':>8} {'as it was':>9} "
          f"{'image':>9} {'audited':>8} {'took':>7}")
    for one in rows:
        moved, size = one["bytes"], one["node"]["size"]
        print(f"{one['id']:13} {moved['mapped'] / MIB:5.1f} MiB {moved['read'] / MIB:5.1f} MiB "
              f"{moved['read'] * 100 / size:6.1f} % {moved['unchanged'] / MIB:5.1f} MiB "
              f"{one['image']['size'] / MIB:5.1f} MiB {one['audit']['blocks']:8} "
              f"{sum(one['seconds'].values()):5.1f} s")
    full = rows[0]
    if full["bytes"]["read"] >= full["node"]["size"]:
        found.append("the full backup read free space as well")
    for one in rows[1:]:
        if not 0 < one["bytes"]["read"] < full["bytes"]["read"]:
            found.append(f"{one['id']} read {one['bytes']['read']} bytes")
        if one["kind"] == "incr" and not one["audit"]["blocks"]:
            found.append(f"{one['id']} audited nothing")
    print("\n".join(found) if found else "what the maps called changed was read once, nothing else")
    return 1 if found else 0


if __name__ == "__main__":
    if sys.argv[1] == "latest":
        print(latest(sys.argv[2]))
    elif sys.argv[1] == "times":
        print(*times(sys.argv[2], sys.argv[3]))
    else:
        sys.exit(table(sys.argv[2], sys.argv[3:]))
