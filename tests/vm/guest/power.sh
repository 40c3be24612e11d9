# tests/vm/guest/power.sh: the machine dies at any moment; what the next boot finds must hold
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# Nothing is taken down here: `round` of the kernel's command line says which boot this is, `last`
# that no cut follows. The host cuts some time after the line "cut".
#
# node  disk  what is done with it until the cut                        what its maps must be after it
# 0     0     a snapshot (node 1) runs, and it is written without rest  no change missed
# 2     2     written in short bursts, a save after each                as `judge` says; guarded: none
#                                                                       missed
# 3     3     written, saved, then open to writes but not written;      bit for bit what the host
#             attached past the guard                                   recorded before the cut
# 4     4     written, stopped in order, attached by the guard          the same
# shellcheck disable=SC2034  # lib.sh reads it
cleanup=
: "${round:?}" "${last:=0}"
maps=/mnt/maps

attach() { trakctl add-filter --disk "$(disk "$1")" --extent-size 16K --bmp-dir "$2" --minor "$1"; }

begin() {
  mount_maps
  mkdir -p $maps/bmp
  load
  vm_tool scribble "$(disk 0)" 1 200 1048576
  vm_tool hash "$(disk 0)" 16384 $maps/before.16
  vm_tool hash "$(disk 0)" 4096 $maps/before.4
  dd if=/dev/urandom of="$(disk 2)" bs=1M count=16
  for node in 0 2 3 4; do
    attach $node $maps/bmp
    trakctl bitmap clear $node incr
    trakctl bitmap clear $node diff
  done
  trakctl start 0
  add_snap 1 4K
  trakctl start 1
}

# Every change since the beginning is marked, whatever was not written when the power went.
busy_map_holds() {
  mount_maps
  load
  attach 0 $maps/bmp
  vm_tool hash "$(disk 0)" 16384 /tmp/now.16
  trakctl bitmap get 0 diff --file /tmp/bits
  vm_tool changed $maps/before.16 /tmp/now.16 /tmp/bits 100
  refuse cmp -s $maps/before.16 /tmp/now.16
}

# tell WORD NAME NODE: both maps of a node, for the host.
tell() {
  for kind in incr diff; do
    trakctl bitmap get "$3" $kind --file /tmp/bits
    say "$1 $2.$kind $(od -An -v -tx1 /tmp/bits | tr -d ' \n')"
  done
}

# What was saved and not written since is what it was: past the guard, and after an orderly stop for it.
saved_maps_found() {
  rm $maps/bmp/trak3.session
  attach 3 $maps/bmp
  tell found raw 3
  [ ! -e $maps/bmp/trak4.session ]
  attach 4 $maps/bmp
  tell found guarded 4
}

# The maps of the bursts as the files alone tell them, then as the guard does. Only the files are
# copied: the first look must not make them better.
burst_maps_judged() {
  mkdir -p /tmp/raw
  cp $maps/bmp/trak2.incr $maps/bmp/trak2.diff /tmp/raw/
  [ -e $maps/bmp/trak2.session ]
  vm_tool hash "$(disk 2)" 16384 /tmp/bursts.now
  attach 2 /tmp/raw
  for kind in incr diff; do
    trakctl bitmap get 2 $kind --file /tmp/bits
    verdict=$(vm_tool judge $maps/bursts.$kind /tmp/bursts.now /tmp/bits) ||
      fail "$kind: $verdict: $(od -An -v -tx1 /tmp/bits | tr -d ' \n')"
    # The window is for files that look clean.
    [ "$verdict" != window ] || [ "$(od -An -j 7 -N 1 -tu1 /tmp/raw/trak2.$kind | tr -d ' ')" = 0 ]
    say "tally raw $verdict"
  done
  trakctl delete 2
  attach 2 $maps/bmp
  for kind in incr diff; do
    trakctl bitmap get 2 $kind --file /tmp/bits
    vm_tool changed $maps/bursts.$kind /tmp/bursts.now /tmp/bits 100
  done
}

# The snapshot that ran goes on, and shows the disk as it was at the beginning.
snapshot_holds() {
  trakctl start 0
  add_snap 1 4K
  trakctl resume 1
  eventually test -b /dev/trak/trak1
  [ "$(info 1 valid)" = true ]
  vm_tool hash /dev/trak/trak1 4096 /tmp/shown.4
  cmp $maps/before.4 /tmp/shown.4
  say "tally snapshot true"
}

# It holds still when more was written on top.
snapshot_goes_on() {
  vm_tool scribble /dev/trak/trak0 77 150 65536
  vm_tool hash /dev/trak/trak1 4096 /tmp/shown.4
  cmp $maps/before.4 /tmp/shown.4
  all_down
}

# quiet_writes NODE: other extents each time, and not the same in both maps.
quiet_writes() {
  trakctl bitmap clear "$1" incr
  [ $((round % 3)) = 0 ] || trakctl bitmap clear "$1" diff
  trakctl start "$1"
  eventually test -b "/dev/trak/trak$1"
  vm_tool writes "/dev/trak/trak$1" "$((round * 10 + $1))" 25 8192
  trakctl bitmap clear "$1" incr
  vm_tool writes "/dev/trak/trak$1" "$((round * 10 + $1 + 5))" 12 8192
}

# Everything that must be as it is at the cut, down to the disk. The quiet node that stays open to
# writes has a marker from its start; who attaches past the guard has none.
prepare() {
  quiet_writes 3
  tell recorded raw 3
  quiet_writes 4
  trakctl stop 4
  [ ! -e $maps/bmp/trak4.session ]
  tell recorded guarded 4
  vm_tool hash "$(disk 2)" 16384 $maps/bursts.incr
  trakctl bitmap clear 2 incr
  if [ ! -e $maps/bursts.diff ] || [ $((round % 2)) = 0 ]; then
    trakctl bitmap clear 2 diff
    cp $maps/bursts.incr $maps/bursts.diff
  fi
  trakctl start 2
  eventually test -b /dev/trak/trak2
  sync
}

# Until the power goes. Every second round rests between its bursts, so that cuts fall there too.
bursts() {
  local n=0
  while vm_tool writes /dev/trak/trak2 "$((round * 1000 + n))" 6 16384; do
    n=$((n + 1))
    [ $((round % 2)) = 0 ] || usleep 400000
  done
}

if [ "$round" = 0 ]; then
  try power.begins begin
else
  try "power.map_tells_of_every_change_after_cut_$round" busy_map_holds
  try "power.saved_maps_are_found_after_cut_$round" saved_maps_found
  try "power.maps_of_bursts_after_cut_$round" burst_maps_judged
  try "power.snapshot_is_resumed_after_cut_$round" snapshot_holds
fi
if [ "$last" = 1 ]; then
  try power.snapshot_goes_on_after_the_last_cut snapshot_goes_on
else
  try "power.is_ready_for_cut_$((round + 1))" prepare
  echo cut >&3
  # Small ones and large ones at once, so that chunks are preserved while others are.
  bursts &
  vm_tool scribble /dev/trak/trak0 "$((round + 10))" 0 4096 &
  vm_tool scribble /dev/trak/trak0 "$((round + 100))" 0 262144
  echo "not ok power.writes_until_the_cut: the writer ended" >&3
fi
