# tests/system/demo_snap.sh: the demo's steps with snapshots
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=bash
#
# Part of demo.sh, which has the functions used here. COW files and bitmap files need a file system
# on a block device: a small one on a loop device, so that it can be filled up.

: "${dir:?}" "${here:?}"

now() { python3 -c 'import time; print(time.monotonic())'; }

# A snapshot of filter 0 with its COW files in directory $2, and the times around its start.
take_snapshot() { # MINOR DIRECTORY
  do_ trakctl add-snap --filter 0 --minor "$1" --chunk-size 64K --cow-bmp "$2/cow$1.map" \
    --cow-data "$2/cow$1.data" | show
  now >"$dir/from.$1"
  do_ trakctl start "$1" | show
  now >"$dir/to.$1"
}
# The files on a snapshot are those of one moment within its start.
check_snapshot() { # MINOR
  python3 "$here/demo_churn.py" check "$dir/snap$1/churn" "$dir/journal" "$(cat "$dir/from.$1")" \
    "$(cat "$dir/to.$1")" | show
  (cd "$dir/snap$1" && sha1sum --quiet -c "$dir/sums") || fail "files that nobody touched differ"
}
snap_is() { # MINOR FIELD VALUE
  [ "$(value "['$2']" info "$1")" = "$3" ] || fail "snapshot $1: $2 is $(value "['$2']" info "$1")"
}

start_churn() {
  mkdir "$dir/mnt/churn"
  (cd "$dir/mnt" && find usr -type f | sort | sed -n 1,1000p | xargs -d '\n' sha1sum) >"$dir/sums"
  mkfifo "$dir/hold"
  : >"$dir/journal"
  python3 "$here/demo_churn.py" run "$dir/mnt/churn" "$dir/journal" 0.001 <"$dir/hold" \
    >"$dir/churned" &
  churn=$!
  exec 8>"$dir/hold"
  wait_for_steps 300
}
wait_for_steps() { # COUNT more
  local from
  from=$(wc -l <"$dir/journal")
  for _ in $(seq 600); do
    [ "$(wc -l <"$dir/journal")" -lt $((from + $1)) ] || return 0
    sleep 0.1
  done
  fail "the writing program stands still"
}

first_snapshots() {
  step "Snapshots while a program writes, renames and deletes files"
  truncate -s 160M "$dir/cow.img"
  mke2fs -q -F -t ext4 "$dir/cow.img"
  do_ mount -o loop "$dir/cow.img" "$dir/cow"
  mount_node trak0 "$dir/mnt"
  start_churn
  take_snapshot 1 "$dir/cow"
  mount_node trak1 "$dir/snap1" ro,noload --read-only
  check_snapshot 1
  wait_for_steps 500
  take_snapshot 2 "$dir/cow"
  mount_node trak2 "$dir/snap2" ro,noload --read-only
  check_snapshot 2
}

overwritten() {
  step "The disk is overwritten several times: both snapshots still hold"
  for _ in 1 2 3; do
    dd if=/dev/urandom of="$dir/mnt/large" bs=64k count=100 conv=notrunc,fsync status=none
    wait_for_steps 200
  done
  sync -f "$dir/mnt"
  # Mounted afresh, so that the files are read from the snapshots and not from memory.
  for minor in 1 2; do
    unmount_node trak$minor "$dir/snap$minor"
    mount_node trak$minor "$dir/snap$minor" ro,noload --read-only
    check_snapshot $minor
  done
  do_ trakctl status | show
}

stopped() {
  step "The newer snapshot is stopped while the older runs (postponed), then the older"
  unmount_node trak2 "$dir/snap2"
  do_ trakctl stop 2 | show
  snap_is 2 started True
  snap_is 2 stop_pending True
  check_snapshot 1
  unmount_node trak1 "$dir/snap1"
  do_ trakctl stop 1 | show
  snap_is 1 started False
  snap_is 2 started False
  do_ trakctl delete 2 >"$dir/said"
  do_ trakctl delete 1 >"$dir/said"
}

# Writes into free space cost a snapshot nothing: the file system's own bitmaps say what is free.
free_space() {
  step "A snapshot of a half-empty disk: what is written into free space is not preserved"
  do_ trakctl bitmap clear 0 incr >"$dir/said"
  take_snapshot 5 "$dir/cow"
  local data written preserved
  data=$(value "['marked_extents']" datablock 5 --extent-size 64K)
  dd if=/dev/urandom of="$dir/mnt/fresh" bs=64k count=1000 conv=fsync status=none
  written=$(value "['marked_extents']" map 0 incr)
  preserved=$(value "['cow']['chunks_preserved']" info 5)
  note "$data of 8192 chunks hold data; $written chunks were written since, $preserved of them" \
    "preserved: without the map it would be $written, $((written / (preserved + 1))) times as many"
  [ "$written" -ge 900 ] || fail "the file is not on the disk"
  [ $((preserved * 3)) -lt "$written" ] || fail "free space was preserved"
  do_ trakctl stop 5 >"$dir/said"
  do_ trakctl delete 5 >"$dir/said"
  rm "$dir/mnt/fresh"
}

cow_full() {
  step "The room for COW files runs out: the snapshot is invalid, the disk goes on"
  mkdir "$dir/tight"
  truncate -s 8M "$dir/tight.img"
  mke2fs -q -F -t ext4 -O ^has_journal "$dir/tight.img"
  do_ mount -o loop "$dir/tight.img" "$dir/tight"
  # Only what holds data when the snapshot starts is preserved.
  dd if=/dev/urandom of="$dir/mnt/large" bs=64k count=400 conv=fsync status=none
  take_snapshot 3 "$dir/tight"
  dd if=/dev/urandom of="$dir/mnt/large" bs=64k count=400 conv=notrunc,fsync status=none ||
    fail "the disk does not go on"
  snap_is 3 valid False
  if do_ dd if="$TRAK_ROOT/dev/trak/trak3" of="$dir/said" bs=64k count=1 2>"$dir/why"; then
    fail "an invalid snapshot was read"
  fi
  note "$(head -n 1 "$dir/why")"
  wait_for_steps 100
  do_ trakctl delete 3 >"$dir/said"
  do_ umount "$dir/tight"
}

resumed() {
  step "trakd is restarted, and a snapshot goes on from its COW files"
  take_snapshot 4 "$dir/cow"
  mount_node trak4 "$dir/snap4" ro,noload --read-only
  wait_for_steps 300
  check_snapshot 4
  unmount_node trak4 "$dir/snap4"
  exec 8>&-
  wait "$churn"
  show <"$dir/churned"
  unmount_node trak0 "$dir/mnt"
  stop_trakd
  start_trakd
  add_filter
  do_ trakctl add-snap --filter 0 --minor 4 --chunk-size 64K --cow-bmp "$dir/cow/cow4.map" \
    --cow-data "$dir/cow/cow4.data" | show
  do_ trakctl resume 4 | show
  mount_node trak4 "$dir/snap4" ro,noload --read-only
  check_snapshot 4
  unmount_node trak4 "$dir/snap4"
  stop_trakd
}

the_snapshots() {
  first_snapshots
  overwritten
  stopped
  free_space
  cow_full
  resumed
}
