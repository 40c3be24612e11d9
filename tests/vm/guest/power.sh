# tests/vm/guest/power.sh: the machine dies at any moment; what the next boot finds must hold
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# Nothing is taken down here: `round` of the kernel's command line says which boot this is, `last`
# that no cut follows. The host cuts some time after the line "cut".
# shellcheck disable=SC2034  # lib.sh reads it
cleanup=
: "${round:?}" "${last:=0}"

begin() {
  vm_tool scribble "$(disk 0)" 1 200 1048576
  mount_maps
  load
  add_filter 16K
  trakctl bitmap clear 0 incr
  trakctl bitmap clear 0 diff
  vm_tool hash "$(disk 0)" 16384 /mnt/maps/before.16
  vm_tool hash "$(disk 0)" 4096 /mnt/maps/before.4
  add_snap 1 4K
  trakctl start 1
  sync
}

# Every change since the beginning is marked, whatever was not written when the power went.
map_holds() {
  mount_maps
  load
  mkdir -p /mnt/maps/bmp
  trakctl add-filter --disk "$(disk 0)" --extent-size 16K --bmp-dir /mnt/maps/bmp --minor 0
  vm_tool hash "$(disk 0)" 16384 /tmp/now.16
  trakctl bitmap get 0 diff --file /tmp/bits
  vm_tool changed /mnt/maps/before.16 /tmp/now.16 /tmp/bits 100
  refuse cmp -s /mnt/maps/before.16 /tmp/now.16
}

# The snapshot that ran goes on, and shows the disk as it was at the beginning.
snapshot_holds() {
  trakctl start 0
  add_snap 1 4K
  trakctl resume 1
  eventually test -b /dev/trak/trak1
  vm_tool hash /dev/trak/trak1 4096 /tmp/shown.4
  cmp /mnt/maps/before.4 /tmp/shown.4
}

# It holds still when more was written on top.
snapshot_goes_on() {
  vm_tool scribble /dev/trak/trak0 77 150 65536
  vm_tool hash /dev/trak/trak1 4096 /tmp/shown.4
  cmp /mnt/maps/before.4 /tmp/shown.4
  all_down
}

if [ "$round" = 0 ]; then
  try power.begins begin
else
  try "power.map_tells_of_every_change_after_cut_$round" map_holds
  try "power.snapshot_is_resumed_after_cut_$round" snapshot_holds
fi
if [ "$last" = 1 ]; then
  try power.snapshot_goes_on_after_the_last_cut snapshot_goes_on
else
  echo cut >&3
  # Small ones and large ones at once, so that chunks are preserved while others are.
  vm_tool scribble /dev/trak/trak0 "$((round + 10))" 0 4096 &
  vm_tool scribble /dev/trak/trak0 "$((round + 100))" 0 262144
  echo "not ok power.writes_until_the_cut: the writer ended" >&3
fi
