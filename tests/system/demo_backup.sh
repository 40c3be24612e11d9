# tests/system/demo_backup.sh: the demo's steps with trak-backup
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=bash
#
# Part of demo.sh, which has the functions used here. Every point of a chain, made while a program keeps
# writing, is restored and compared with what the files were when that point was frozen.

: "${dir:?}" "${here:?}" "${churn:=}"

points=()

# What all files but the writing program's are: nobody else changes them while a backup is made.
sums_of() { # DIRECTORY
  (cd "$1" && find . -path ./churn -prune -o -type f -print0 | LC_ALL=C sort -z |
    xargs -0 -r sha1sum)
}
# A backup while the program writes; it and nothing else has to be the store's new one.
back_up() { # KIND
  local id
  sync -f "$dir/mnt"
  sums_of "$dir/mnt" >"$dir/sums.new"
  [ "$1" = full ] || set -- "$1" --no-full
  do_ trak-backup "$@" --disk 0 --store "$dir/store" --cow-dir "$dir/cow" |& show
  id=$(python3 "$here/demo_backup.py" latest "$dir/store")
  [ "${id#*-}" = "$1" ] || fail "the new backup is $id"
  mv "$dir/sums.new" "$dir/sums.$id"
  points+=("$id")
  wait_for_steps 100
}

the_full() {
  step "A full backup with trak-backup while a program writes: only what holds data is read"
  rm -f "$dir/hold" "$dir/journal"
  start_trakd
  add_filter
  mount_node trak0 "$dir/mnt"
  rm -rf "$dir/mnt/churn"
  start_churn
  dd if=/dev/urandom of="$dir/mnt/same" bs=64k count=20 status=none
  back_up full
}

some_changes() { # ROUND
  local n=0 name
  while read -r name; do
    n=$((n + 1))
    [ -e "$dir/mnt/$name" ] || continue
    case $(((n + $1) % 120)) in
    0) echo "changed in round $1" >>"$dir/mnt/$name" ;;
    40) rm "$dir/mnt/$name" ;;
    80) cp "$dir/mnt/$name" "$dir/mnt/$name.round$1" ;;
    esac
  done <"$dir/list"
  dd if=/dev/urandom of="$dir/mnt/large" bs=64k count=20 seek=$(($1 * 30)) conv=notrunc status=none
  # Written again as it was: reported as changed, and in no need of a copy.
  cp "$dir/mnt/same" "$dir/same" && cat "$dir/same" 1<>"$dir/mnt/same"
}

the_rounds() {
  step "Three rounds of changes, an incremental backup after each, the program writing all the time"
  for round in 1 2 3; do
    some_changes $round
    back_up incr
  done
  step "A differential backup: all that changed since the full one"
  back_up diff
  exec 8>&-
  wait "$churn"
  show <"$dir/churned"
  unmount_node trak0 "$dir/mnt"
  stop_trakd
}

# A point in a new image: other tools see the same bytes, the file system is whole, the files are those
# of the moment at which it was frozen.
check_point() { # ID
  local image=$dir/restored.img times loop
  do_ trak-backup restore --store "$dir/store" --point "$1" --to "$image" |& show
  do_ qemu-img compare -q -f raw -F qcow2 "$image" "$dir/store/$1.qcow2" ||
    fail "qemu-img reads other bytes from $1"
  e2fsck -fn "$image" >"$dir/said" 2>&1 || fail "e2fsck of $1: $(tail -n 5 "$dir/said")"
  mkdir -p "$dir/restored"
  loop=$(do_ losetup --find --show --read-only "$image")
  do_ mount -t ext3 -o ro,noload "$loop" "$dir/restored"
  sums_of "$dir/restored" >"$dir/sums.restored"
  cmp "$dir/sums.$1" "$dir/sums.restored" || fail "$1 has other files than there were"
  times=$(python3 "$here/demo_backup.py" times "$dir/store" "$1")
  # shellcheck disable=SC2086
  python3 "$here/demo_churn.py" check "$dir/restored/churn" "$dir/journal" $times | show
  do_ umount "$dir/restored"
  do_ losetup -d "$loop"
  rm "$image"
}

the_restores() {
  step "Every point is restored and checked: file system, checksums of all files, and by qemu-img"
  local id
  for id in "${points[@]}"; do
    check_point "$id"
  done
  note "$(wc -l <"$dir/sums.${points[0]}") files of each were compared by checksum"
}

the_sizes() {
  step "What the backups cost"
  do_ trak-backup list --store "$dir/store" >"$dir/said"
  python3 "$here/demo_backup.py" table "$dir/store" "${points[@]}" | show
  do_ trak-backup verify --store "$dir/store" |& show
  do_ trak-backup report --store "$dir/store" --to "$dir/report.html" | show
  [ "$(grep -c '<svg class="map"' "$dir/report.html")" = ${#points[@]} ] ||
    fail "the report lacks a map"
}

the_backups() {
  the_full
  the_rounds
  the_restores
  the_sizes
}
