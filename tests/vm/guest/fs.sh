# tests/vm/guest/fs.sh: change tracking and snapshots under mounted file systems
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# etc/fs: one line per disk: NUMBER NAME KIND OPTIONS, the last for mounting a snapshot. etc/scale: how
# many times as many files as in the short form.
read -r scale </etc/scale
: "${suite:?}"

extent=16384

mount_node() { mount_on 0 /mnt/node "$1"; }

# What the disk holds now, past every cache.
look() { vm_tool hash "$(disk "$1")" $extent "$2"; }

# Every extent that is another one on the disk is marked, and the map is no empty caution.
tracks() {
  local number=$1 kind=$2
  mount_maps
  load
  add_filter $extent "$number"
  trakctl bitmap clear 0 incr
  trakctl bitmap clear 0 diff
  look "$number" /tmp/before
  mount_node "$kind"
  vm_tool age /mnt/node 1 $((120 * scale)) 6000
  cp -r /mnt/node/d0 /mnt/node/copied
  sync
  unmount /mnt/node
  look "$number" /tmp/after
  trakctl bitmap get-clear 0 incr --file /tmp/incr
  trakctl bitmap get 0 diff --file /tmp/diff
  vm_tool changed /tmp/before /tmp/after /tmp/incr 80
  vm_tool changed /tmp/before /tmp/after /tmp/diff 80
  # From the moment of the first map on, in the incremental one alone.
  mount_node "$kind"
  rm -r /mnt/node/copied
  unmount /mnt/node
  look "$number" /tmp/last
  trakctl bitmap get 0 incr --file /tmp/incr
  trakctl bitmap get 0 diff --file /tmp/diff
  vm_tool changed /tmp/after /tmp/last /tmp/incr 60
  vm_tool changed /tmp/before /tmp/last /tmp/diff 80
}

# show MINOR KIND OPTIONS SUMS: the snapshot's files are those of SUMS.
show() {
  mount_on "$1" "/mnt/snap$1" "$2" "$3"
  vm_tool sums "/mnt/snap$1/tree" >/tmp/shown
  unmount "/mnt/snap$1"
  [ -s /tmp/shown ]
  cmp /tmp/shown "$4"
}

# Trees that nobody writes while a snapshot starts are in it as they were, whatever becomes of them
# afterwards, and whatever a program that never rests does beside them.
snapshots() {
  local number=$1 kind=$2 options=$3 writer
  mount_maps
  load
  add_filter $extent "$number"
  mount_node "$kind"
  mkdir /mnt/node/tree /mnt/node/other /mnt/node/new
  vm_tool age /mnt/node/tree 2 $((120 * scale)) 9000
  rm -f /tmp/stop
  vm_tool churn /mnt/node/other 3 /tmp/stop &
  writer=$!
  vm_tool sums /mnt/node/tree >/tmp/sums1
  add_snap 1 4K
  trakctl start 1
  rm -r /mnt/node/tree/d0
  vm_tool age /mnt/node/tree 4 $((80 * scale)) 9000
  vm_tool sums /mnt/node/tree >/tmp/sums2
  add_snap 2 4K
  trakctl start 2
  show 1 "$kind" "$options" /tmp/sums1
  rm -r /mnt/node/tree/d0
  vm_tool age /mnt/node/new 5 $((150 * scale)) 9000
  show 2 "$kind" "$options" /tmp/sums2
  show 1 "$kind" "$options" /tmp/sums1
  touch /tmp/stop
  wait $writer
  sync
  show 2 "$kind" "$options" /tmp/sums2
  trakctl info 1
  [ "$(info 1 valid)" = true ]
  trakctl delete 1
  trakctl delete 2
  unmount /mnt/node
}

# map_is MINOR built|none: a snapshot that has a map knows of much that is free here; one without takes
# everything for data.
map_is() {
  trakctl datablock "$1" --file /tmp/data
  local all ones
  all=$(wc -c </tmp/data)
  ones=$(od -An -v -tx1 /tmp/data | tr ' ' '\n' | grep -cx ff || true)
  echo "$ones of $all bytes of the map of snapshot $1 say that all is data"
  case $2 in
  built) [ "$ones" -lt $((all / 2)) ] ;;
  none) [ "$ones" = "$all" ] ;;
  esac || fail "the map is not $2"
}

# XFS answers for its free space where its log holds nothing more: frozen under the start of a snapshot,
# and unmounted. Where the machine was cut off the log has to be replayed first.
xfs_map() {
  local number=$1
  mount_maps
  load
  add_filter $extent "$number"
  mount_node xfs
  rm -rf /mnt/node/*
  vm_tool age /mnt/node 6 $((100 * scale)) 9000
  add_snap 1 4K
  trakctl start 1
  map_is 1 built
  vm_tool sums /mnt/node >/tmp/sums
  unmount /mnt/node
  add_snap 2 4K
  trakctl start 2
  map_is 2 built
  mount_node xfs
  rm -r /mnt/node/d0
  vm_tool age /mnt/node 7 50 9000
  vm_tool shut-down /mnt/node
  unmount /mnt/node
  add_snap 3 4K
  trakctl start 3
  map_is 3 none
  # What the first map left out of preserving is nothing that its files need.
  mount_on 1 /mnt/snap1 xfs "$2"
  vm_tool sums /mnt/snap1 >/tmp/shown
  cmp /tmp/sums /tmp/shown
  unmount /mnt/snap1
  mount_node xfs
  unmount /mnt/node
  add_snap 4 4K
  trakctl start 4
  map_is 4 built
}

while read -r number name kind options; do
  try "$suite.$name.every_change_is_marked" tracks "$number" "$kind"
  try "$suite.$name.snapshots_hold_their_files_under_load" snapshots "$number" "$kind" "$options"
  # The readers know XFS without checksums.
  [ "$name" != xfs-v4 ] ||
    try "$suite.$name.map_is_built_frozen_and_unmounted_and_not_cut_off" xfs_map "$number" "$options"
done </etc/fs
