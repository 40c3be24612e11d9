#!/usr/bin/env bash
# tools/fuzz_images.sh: small file systems, made by their own tools, that the readers' fuzzers begin with
# SPDX-License-Identifier: GPL-2.0-only
# tools/fuzz_images.sh FOLDER: ext*, reiserfs* and xfs* in it; nothing is done where they are there.
set -euo pipefail
export PATH=$PATH:/usr/sbin:/sbin
folder=$1
[ -e "$folder/made" ] && exit 0
mkdir -p "$folder"
files=$(mktemp -d)
trap 'rm -rf "$files"' EXIT
for i in $(seq 1 40); do head -c $((i * 1500)) /dev/zero | tr '\0' x >"$files/$i"; done
printf '%s\n' /dev/null '0 0' 'd--755 0 0' "a ---644 0 0 $files/40" 'd d--755 0 0' \
  "b ---644 0 0 $files/7" '$' '$' >"$files/0"

# image NAME SIZE: an empty one.
image() {
  rm -f "$folder/$1"
  truncate -s "$2" "$folder/$1"
}
image ext2-1k 9000K
mke2fs -q -F -t ext2 -b 1024 -d "$files" "$folder/ext2-1k"
image ext3-4k 9M
mke2fs -q -F -t ext3 -b 4096 -d "$files" "$folder/ext3-4k"
image reiserfs-4k 33M
mkreiserfs -q -f -b 4096 -s 513 "$folder/reiserfs-4k" >/dev/null 2>&1
image xfs-1-group 16M
image xfs-2-groups 33M
for groups in 1-group 2-groups; do
  mkfs.xfs --unsupported -q -f -m crc=0,finobt=0 -d agcount="${groups%%-*}" -p "$files/0" \
    "$folder/xfs-$groups" >/dev/null 2>&1
done
touch "$folder/made"
