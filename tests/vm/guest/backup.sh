# tests/vm/guest/backup.sh: the power goes at a step of a backup; the next backup must restore
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# `round` of the kernel's command line says which boot this is, `last` that no cut follows. Disk 0 is
# backed up; disk 1 holds the maps, the store, and what each backup must restore to.
# shellcheck disable=SC2034  # lib.sh reads it
cleanup=
: "${round:?}" "${last:=0}"
maps=/mnt/maps store=/mnt/maps/store known=/mnt/maps/known node=/dev/trak/trak0
uuid='{0d9f2a4e-60a3-4c44-8f0c-6a58a1c4f9d7}'
export TMPDIR=/tmp

write_some() { vm_tool writes "$node" "$((round * 100 + $1))" "$2" 8192; }
# The disk as it is, past everything that remembers.
now() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
  md5sum <"$(disk 0)" | cut -c 1-32
}
newest() {
  set -- "$store"/*-*.json
  shift $(($# - 1))
  basename "$1" .json
}
stopped() { grep -q '^State:.*T' "/proc/$1/status"; }

attach() {
  mount_maps
  mkdir -p $maps/bmp $known
  load
  trakctl add-filter --disk "$(disk 0)" --extent-size 16K --bmp-dir $maps/bmp --minor 0 --uuid "$uuid"
  trakctl start 0
  eventually test -b $node
}

first() {
  write_some 0 60
  trak-backup full --disk 0 --store $store
  now >"$known/$(newest)"
}

restored() {
  trak-backup restore --store $store --point "$1" --to /tmp/image
  [ "$(md5sum </tmp/image | cut -c 1-32)" = "$(cat $known/"$1")" ] || fail "$1 restores to other bytes"
  rm /tmp/image
}

# What the backup that was cut off must restore to was written down before it. Where it is there it must;
# and older ones as ever.
old_ones_restore() {
  for path in "$store"/*-*.json; do
    id=$(basename "$path" .json)
    [ -e "$known/$id" ] || cp $known/pending "$known/$id"
    restored "$id"
  done
}

next_one_restores() {
  write_some 1 12
  before=$(now)
  backup_and_write incr
  echo "$before" >"$known/$(newest)"
  restored "$(newest)"
  for left in "$store"/run.* "$store"/*.partial* "$store"/trak-backup-*; do
    [ ! -e "$left" ] || fail "$left is left"
  done
  trakctl list snap --json | grep -q '"minor"' && fail "a snapshot is left"
  sync
}

# A backup; the disk is written from its freeze on.
backup_and_write() {
  trak-backup "$1" --disk 0 --store $store --stop-at frozen &
  agent=$!
  eventually stopped $agent
  kill -CONT $agent
  write_some 2 12
  wait $agent
}

prepare() {
  set -- "$store"/*-*.json
  if [ $# -gt 12 ]; then rm -r $store $known && mkdir $known; fi
  write_some 3 12
  before=$(now)
  # A map that is not all ones, and a chain to build on.
  trak-backup incr --disk 0 --store $store
  echo "$before" >"$known/$(newest)"
  write_some 4 12
  now >$known/pending
  sync
}

stop_there() {
  read -r kind step <<EOF
$(sed -n "$((round + 1))p" /etc/points)
EOF
  echo "--- cut $((round + 1)): $kind at $step"
  trak-backup "$kind" --disk 0 --store $store --stop-at "$step" &
  eventually stopped $!
}

if [ "$round" = 0 ]; then
  try backup.begins attach
  try backup.first_is_made first
else
  try "backup.node_is_attached_after_cut_$round" attach
  try "backup.old_ones_restore_after_cut_$round" old_ones_restore
  try "backup.next_one_restores_after_cut_$round" next_one_restores
fi
if [ "$last" != 1 ]; then
  try "backup.is_ready_for_cut_$((round + 1))" prepare
  try "backup.stops_for_cut_$((round + 1))" stop_there
  write_some 5 12
  echo cut >&3
  vm_tool writes $node "$((round + 7000))" 0 8192
else
  try backup.all_goes_down all_down
fi
