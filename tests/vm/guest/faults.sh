# tests/vm/guest/faults.sh: full and failing disks below the filter and below the COW files; no memory
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh

# Takes away the mapped disks and mounts of this suite after trak's own.
down() {
  set -e
  all_down
  if grep -q ' /mnt/cow ' /proc/mounts; then umount /mnt/cow; fi
  for name in $(dmsetup ls 2>/dev/null | sed -n 's/^\(below\|cow\)[^a-z].*/\1/p'); do
    dmsetup remove --noudevsync --noudevrules "$name"
  done
}
# shellcheck disable=SC2034  # lib.sh calls it
cleanup=down

sectors() { cat "/sys/block/${1#/dev/}/size"; }

# map NAME DISK KIND: a mapped disk that passes everything on (linear) or nothing (error).
table() {
  case $3 in
  linear) echo "0 $(sectors "$2") linear $2 0" ;;
  error) echo "0 $(sectors "$2") error" ;;
  part) # all is well but for the sixth 64 KiB
    echo "0 640 linear $2 0"
    echo "640 128 error"
    echo "768 $(($(sectors "$2") - 768)) linear $2 768"
    ;;
  flakey) echo "0 $(sectors "$2") flakey $2 0 0 1000 1 error_writes" ;;
  esac
}
map() {
  table "$@" | dmsetup create "$1" --noudevsync --noudevrules
  dmsetup mknodes
}
becomes() {
  table "$@" >/tmp/table
  dmsetup load "$1" --noudevsync --noudevrules /tmp/table
  # No freezing of the file system: it would wait for the disk that has failed.
  dmsetup suspend --nolockfs --noflush --noudevsync --noudevrules "$1"
  dmsetup resume --noudevsync --noudevrules "$1"
}
mapped() { echo "/dev/dm-$(dmsetup info -c --noheadings -o minor "$1")"; }

put() { dd if=/dev/urandom of=/dev/trak/trak0 bs=64k count="$2" seek="$1" oflag=direct conv=notrunc; }
image_is() { vm_tool hash /dev/trak/trak1 4096 /tmp/shown && cmp /tmp/before /tmp/shown; }

# The snapshot is given up, the disk's own writes are not.
cow_full() {
  mount_maps
  mkdir -p /mnt/cow
  mount -t "$own_fs" "$(disk 2)" /mnt/cow
  load
  add_filter 64K
  trakctl bitmap clear 0 incr
  vm_tool hash "$(disk 0)" 65536 /tmp/before
  add_snap 1 64K /mnt/cow
  trakctl start 1
  dd if=/dev/urandom of=/dev/trak/trak0 bs=1M count=32 conv=fsync
  [ "$(info 1 valid)" = false ] || fail "$(trakctl info 1)"
  refuse dd if=/dev/trak/trak1 of=/dev/null bs=1M count=4
  vm_tool hash "$(disk 0)" 65536 /tmp/after
  trakctl bitmap get 0 incr --file /tmp/bits
  vm_tool changed /tmp/before /tmp/after /tmp/bits 51
  trakctl stop 1
  trakctl delete 1
}

# A started filter over disk 0, whose table can be changed under it.
filter_mapped() {
  mount_maps
  map below "$(disk 0)" linear
  load
  mkdir -p /mnt/maps/bmp
  trakctl add-filter --disk "$(mapped below)" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 0
  trakctl start 0
}

# Errors of the disk are the writer's; the filter goes on when the disk does.
disk_fails() {
  [ "$1" != flakey ] || lacks "a mapped disk that fails writes alone (dm-flakey)"
  filter_mapped
  put 0 16
  becomes below "$(disk 0)" "$1"
  refuse put 4 4
  if [ "$1" = error ]; then refuse dd if=/dev/trak/trak0 of=/dev/null bs=4k count=1 iflag=direct; fi
  becomes below "$(disk 0)" linear
  put 4 4
  dd if=/dev/trak/trak0 of=/dev/null bs=64k count=16 iflag=direct
}

# One place of the disk fails: a request that touches it fails, those around it don't.
place_fails() {
  filter_mapped
  put 0 16
  becomes below "$(disk 0)" part
  refuse put 5 1
  refuse put 4 2
  refuse dd if=/dev/trak/trak0 of=/dev/null bs=128k count=1 skip=2 iflag=direct
  put 4 1
  put 6 1
  becomes below "$(disk 0)" linear
  put 5 1
}

# A chunk that can't be read can't be preserved: the image is given up or true, never wrong.
disk_fails_under_snapshot() {
  filter_mapped
  put 0 64
  vm_tool hash /dev/trak/trak0 4096 /tmp/before
  add_snap 1 4K
  trakctl start 1
  put 3 5
  becomes below "$(disk 0)" error
  refuse put 30 4
  becomes below "$(disk 0)" linear
  if [ "$(info 1 valid)" = true ]; then
    image_is
  else
    refuse dd if=/dev/trak/trak1 of=/dev/null bs=64k count=1
  fi
  put 40 8
}

# The COW files' disk fails: the snapshot is given up, the filter's disk goes on.
cow_disk_fails() {
  mount_maps
  map cow "$(disk 2)" linear
  mkdir -p /mnt/cow
  mount -t "$own_fs" "$(mapped cow)" /mnt/cow
  load
  add_filter 64K
  add_snap 1 4K /mnt/cow
  trakctl start 1
  put 0 4
  becomes cow "$(disk 2)" error
  put 10 40
  [ "$(info 1 valid)" = false ] || fail "$(trakctl info 1)"
  refuse dd if=/dev/trak/trak1 of=/dev/null bs=64k count=50
  put 60 20
}

# The same image, while there is next to no memory.
little_memory() {
  mount_maps
  load
  add_filter 64K
  vm_tool hash "$(disk 0)" 4096 /tmp/before
  add_snap 1 4K
  trakctl start 1
  rm -f /tmp/stop
  vm_tool eat $(($(available_kib) / 1024 - 60)) /tmp/stop &
  eater=$!
  vm_tool scribble /dev/trak/trak0 5 300 262144
  dd if=/dev/zero of=/dev/trak/trak0 bs=1M count=24 conv=fsync
  touch /tmp/stop
  wait $eater
  [ "$(info 1 valid)" = true ]
  image_is
}

try faults.full_cow_volume_gives_up_the_snapshot_alone cow_full
try faults.failing_disk_is_the_writers_error disk_fails error
try faults.disk_that_fails_writes_is_the_writers_error disk_fails flakey
try faults.failing_place_of_a_disk_fails_no_other place_fails
try faults.failing_disk_makes_no_wrong_image disk_fails_under_snapshot
try faults.failing_cow_disk_gives_up_the_snapshot_alone cow_disk_fails
try faults.image_is_true_with_little_memory little_memory
