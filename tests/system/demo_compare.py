#!/usr/bin/env python3
# tests/system/demo_compare.py: compares two images extent by extent, and with a map of marked extents
# SPDX-License-Identifier: GPL-2.0-only
"""demo_compare.py OLD NEW MAP EXTENT_SIZE

Reads both images byte for byte and nothing else: no file system, no driver. MAP is a bitmap, bit n
(least significant first) for extent n. Prints how many extents differ, how many are marked, and how
many differ unmarked ("missed"); exits 1 when one was missed.
"""
import sys


def main(old_name, new_name, map_name, extent_size):
    with open(map_name, "rb") as file:
        marks = file.read()
    differing = missed = extents = 0
    with open(old_name, "rb") as old, open(new_name, "rb") as new:
        while True:
            a, b = old.read(extent_size), new.read(extent_size)
            if len(a) != len(b):
                print("the images differ in size")
                return 1
            if not a:
                break
            if a != b:
                differing += 1
                if not marks[extents >> 3] >> (extents & 7) & 1:
                    missed += 1
                    print(f"extent {extents} differs and is not marked")
            extents += 1
    if len(marks) != (extents + 7) // 8:
        print(f"the map has {len(marks)} bytes for {extents} extents")
        return 1
    marked = sum(marks[n >> 3] >> (n & 7) & 1 for n in range(extents))
    print(f"{extents} extents: {differing} differ, {marked} are marked, {missed} missed")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])))
