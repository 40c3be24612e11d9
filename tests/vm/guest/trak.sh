# tests/vm/guest/trak.sh: loading the module, making nodes, and what must be gone afterwards
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# Sourced by the suites that use the module. Disk 0 is the one that is filtered, disk 1 holds bitmap
# files and COW files.

# What the suites' own file systems are of in this kernel: ext3 or ext4.
read -r own_fs </etc/own_fs
# mount_ext2 DISK FOLDER: a file system of mke2fs without options.
mount_ext2() {
  if [ "$own_fs" = ext4 ]; then mount -t ext4 "$1" "$2"; else mount -t ext2 "$1" "$2"; fi
}

# The driver puts the nodes' files into /dev/trak, which trakctl makes.
load() { insmod /lib/modules/trak.ko; }
load_with() { insmod /lib/modules/trak.ko "$1"; }

# What a module that has gone must not have left.
nothing_left() {
  [ ! -e /proc/trak ] || fail "/proc/trak is left"
  [ ! -e /sys/module/trak ] || fail "/sys/module/trak is left"
  set -- /sys/block/trak*
  [ ! -e "$1" ] || fail "$1 is left"
  set -- /dev/trak/*
  [ ! -e "$1" ] || fail "$1 is left"
  ! grep -qw trak /proc/devices || fail "/proc/devices has: $(grep -w trak /proc/devices)"
  ! grep -E '^(trak|snap|dirty|cow|aio_item|aio_block)' /proc/slabinfo || fail "a slab cache is left"
  ! thread kdirtyd || fail "kdirtyd is left"
  ! thread kcowd || fail "a kernel thread is left"
}

# thread NAME: there is a kernel thread whose name begins so.
thread() { cat /proc/[0-9]*/stat 2>/dev/null | grep -q "^[0-9]* ($1"; }

# A reference is put a moment after the close that the user saw.
unload() {
  eventually rmmod trak
  rm -f /dev/trakctl
  nothing_left
}

mount_maps() {
  mkdir -p /mnt/maps
  mount -t "$own_fs" "$(disk 1)" /mnt/maps
}

# add_filter EXTENT_SIZE [DISK]: node 0 over a disk, disk 0 if none is named; started.
add_filter() {
  mkdir -p /mnt/maps/bmp
  trakctl add-filter --disk "$(disk "${2:-0}")" --extent-size "$1" --bmp-dir /mnt/maps/bmp --minor 0
  trakctl start 0
  eventually test -b /dev/trak/trak0
}

# add_snap MINOR CHUNK_SIZE [FOLDER]: a snapshot of filter 0, not started.
add_snap() {
  trakctl add-snap --filter 0 --minor "$1" --chunk-size "$2" \
    --cow-bmp "${3:-/mnt/maps}/cow$1.map" --cow-data "${3:-/mnt/maps}/cow$1.data"
}

# mount_on NODE POINT KIND [OPTIONS], and its end.
mount_on() {
  mkdir -p "$2"
  mount -t "$3" ${4:+-o "$4"} "/dev/trak/trak$1" "$2"
}
unmount() { umount "$1"; }

# info NODE FIELD: a member of a report in JSON, as it stands there.
info() {
  trakctl --json info "$1" | tr -d ' \n' | sed -n "s/.*\"$2\":\(\"[^\"]*\"\|[^,}]*\).*/\1/p" |
    tr -d '"'
}

no_process() { ! pidof "$1" >/dev/null; }

# Whatever a test left: nodes, mounts, the module. It must go in order.
all_down() {
  local minor
  set -e
  touch /tmp/stop
  if pidof vm_tool >/dev/null; then killall vm_tool; fi
  eventually no_process vm_tool
  sed -n 's|^/dev/trak/[^ ]* \([^ ]*\) .*|\1|p' /proc/mounts | while read -r point; do
    umount "$point"
  done
  if [ -e /proc/trak ]; then
    for minor in 9 8 7 6 5 4 3 2 1 0; do
      if [ -e "/proc/trak/trak$minor" ]; then eventually trakctl delete "$minor"; fi
    done
    unload
  fi
  if grep -q ' /mnt/maps ' /proc/mounts; then umount /mnt/maps; fi
}
# shellcheck disable=SC2034  # lib.sh calls it
cleanup=all_down
# The same tests over the driver in user space: what differs is in that file.
# shellcheck source=tests/vm/guest/user_carrier.sh
if [ "${carrier:-kernel}" = user ]; then . /suites/user_carrier.sh; fi
