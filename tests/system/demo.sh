#!/usr/bin/env bash
# tests/system/demo.sh: the main job on real input, each step checked
# SPDX-License-Identifier: GPL-2.0-only
#
# Tracks the changes of a real file system through trakd, checks every extent against the image byte
# by byte, restarts and crashes the daemon, takes snapshots under a program that keeps writing, and makes
# and restores a chain of backups.
# Exit status 0 only when every check held; 77 where this machine can't mount (1 with CI=true).
set -Eeuo pipefail
here=$(dirname "$(readlink -f "$0")")
export PATH=${TRAK_BIN_DIR:-$here/../../build/bin}:$PATH
export PYTHONDONTWRITEBYTECODE=1
extent=65536

dir=$(mktemp -d "${TMPDIR:-/var/tmp}/trak-demo.XXXXXX")
export TRAK_ROOT=$dir/tree
trap finish EXIT
trap 'exit 1' INT TERM HUP
trap 'failed_at="${BASH_SOURCE[0]##*/} line $LINENO"' ERR

# Everything goes, whatever state it is in; a failure shows what trakd logged last.
finish() {
  local status=$?
  trap - EXIT
  if [ "$status" != 0 ] && [ "$status" != 77 ]; then
    printf '\nDEMO FAILED in step %s: %s (%s)\n' "$step" "$title" "${failed_at:-}"
    [ ! -f "$dir/trakd.log" ] || tail -n 25 "$dir/trakd.log"
  fi
  if ! timeout -k 5 120 python3 "$here/trak_sweep.py" "$dir"; then
    [ "$status" != 0 ] || status=1
  fi
  exit "$status"
}

step=0 title='the start'
step() {
  step=$((step + 1)) title=$*
  printf '\n%2d. %s\n' "$step" "$title"
}
note() { printf '    %s\n' "$*"; }
show() { sed 's/^/    /'; }
fail() {
  printf '    FAILED: %s\n' "$*"
  exit 1
}
cannot() {
  if [ "${CI:-}" = true ]; then fail "can't run here, and CI=true: $*"; fi
  printf 'SKIPPED: %s\n' "$*"
  exit 77
}

# --- what several steps need ------------------------------------------------------------------------

# Each command that may wait for trakd has a limit: a hang is a failure.
do_() { timeout -k 5 180 "$@"; }

start_trakd() {
  do_ trakd --disk demo="$dir/disk.img" --log-file "$dir/trakd.log" "$TRAK_ROOT" ||
    fail "trakd does not start"
}
pid_of_trakd() { pgrep -f "^[^ ]*trakd .*$dir/tree\$"; }
# In order: SIGTERM, and the process is gone.
stop_trakd() {
  local pid
  pid=$(pid_of_trakd)
  kill -TERM "$pid"
  for _ in $(seq 600); do
    [ -e "/proc/$pid" ] || break
    sleep 0.1
  done
  [ ! -e "/proc/$pid" ] || fail "trakd does not end: $(tail -n 1 "$dir/trakd.log")"
  grep -q 'trakd: ended in order' <(tail -n 1 "$dir/trakd.log") || fail "trakd did not end in order"
}

add_filter() {
  do_ trakctl add-filter --disk /dev/image/demo --extent-size 64K --bmp-dir "$dir/maps" |& show
  do_ trakctl start 0 | show
}
# The file system on a node, through a loop device.
mount_node() { # NODE DIR OPTIONS
  local loop
  mkdir -p "$2"
  loop=$(do_ losetup --find --show --direct-io=on ${4:+"$4"} \
    "$TRAK_ROOT/dev/trak/$1")
  echo "$loop" >"$dir/loop.$1"
  do_ mount -t ext3 ${3:+-o "$3"} "$loop" "$2"
}
unmount_node() { # NODE DIR
  do_ umount "$2"
  do_ losetup -d "$(cat "$dir/loop.$1")"
}
# The bitmap as the driver has it now, unchanged by the asking.
map_of() { do_ trakctl bitmap get 0 "$1" --file "$2" >"$dir/said"; }
value() {
  do_ trakctl "${@:2}" --json | python3 -c "import json, sys; print(json.load(sys.stdin)$1)"
}

# --- tracking ---------------------------------------------------------------------------------------

the_disk() {
  step "A disk of 512 MiB with an ext3 file system, and trakd over it"
  truncate -s 512M "$dir/disk.img"
  mke2fs -q -F -t ext3 "$dir/disk.img"
  mkdir "$dir/tree" "$dir/maps" "$dir/cow"
  start_trakd
  note "trakd serves at $TRAK_ROOT: $(cd "$TRAK_ROOT" && echo *)"
  add_filter
}

the_files() {
  step "A real tree of files is copied onto it"
  mount_node trak0 "$dir/mnt" || cannot "loop devices or ext3 can't be used on this machine"
  (cd / && find usr/include usr/share/doc -type f -size -64k 2>/dev/null | sort | sed -n 1,4000p) \
    >"$dir/list"
  local files
  files=$(wc -l <"$dir/list")
  [ "$files" -ge 2000 ] || cannot "this machine has only $files files to copy"
  tar -C / -c -T "$dir/list" | tar -C "$dir/mnt" -x
  sync -f "$dir/mnt"
  note "$files files, $(du -sm "$dir/mnt" | cut -f1) MiB"
}

the_base() {
  step "The incremental map is taken and cleared, and a copy of the disk is kept"
  do_ fsfreeze -f "$dir/mnt"
  do_ trakctl bitmap get-clear 0 incr --file "$dir/first.map" | show
  cp --sparse=always "$dir/disk.img" "$dir/base.img"
  do_ fsfreeze -u "$dir/mnt"
  map_of incr "$dir/cleared.map"
}

the_changes() {
  step "Files are changed, added and deleted"
  local n=0 name
  while read -r name; do
    n=$((n + 1))
    case $((n % 40)) in
    0) echo "changed by the demo" >>"$dir/mnt/$name" ;;
    7) rm "$dir/mnt/$name" ;;
    11) cp "$dir/mnt/$name" "$dir/mnt/$name.new" ;;
    esac
  done <"$dir/list"
  dd if=/dev/urandom of="$dir/mnt/large" bs=64k count=100 status=none
  sync -f "$dir/mnt"
  note "$((n / 40)) changed, as many deleted and added, and one new file of 6 MiB"
}

the_comparison() {
  step "Every extent of the disk is compared with the copy, byte for byte, past the driver"
  do_ fsfreeze -f "$dir/mnt"
  map_of incr "$dir/incr.map"
  python3 "$here/demo_compare.py" "$dir/base.img" "$dir/disk.img" "$dir/incr.map" $extent | show
  do_ fsfreeze -u "$dir/mnt"
  local size
  size=$(python3 -c "print(sum(bin(b).count('1') for b in open('$dir/incr.map','rb').read()))")
  if [ "$size" -eq 0 ] || [ "$size" -ge 8192 ]; then fail "$size of 8192 extents are marked"; fi
  do_ trakctl map 0 incr | show
  do_ trakctl map 0 incr --svg "$dir/map.svg" >"$dir/said"
  grep -q '<svg' "$dir/map.svg" || fail "the picture is empty"
}

the_restart() {
  step "trakd ends in order and starts again: both maps are what they were"
  unmount_node trak0 "$dir/mnt"
  map_of incr "$dir/incr.before"
  map_of diff "$dir/diff.before"
  stop_trakd
  start_trakd
  add_filter
  map_of incr "$dir/incr.after"
  map_of diff "$dir/diff.after"
  cmp "$dir/incr.before" "$dir/incr.after"
  cmp "$dir/diff.before" "$dir/diff.after"
  note "incremental and differential map: the same bytes"
}

the_crash() {
  step "trakd is killed while files are written: both maps say that everything changed"
  local pid
  do_ trakctl bitmap clear 0 incr >"$dir/said"
  do_ trakctl bitmap clear 0 diff >"$dir/said"
  mount_node trak0 "$dir/mnt"
  cp "$dir/mnt/large" "$dir/mnt/larger"
  sync -f "$dir/mnt"
  pid=$(pid_of_trakd)
  kill -KILL "$pid"
  for _ in $(seq 600); do
    [ -e "/proc/$pid" ] || break
    sleep 0.1
  done
  do_ umount -l "$dir/mnt"
  do_ losetup -d "$(cat "$dir/loop.trak0")"
  start_trakd
  add_filter
  for kind in incr diff; do
    [ "$(value "['$kind']['full']" info 0)" = True ] || fail "the $kind map is not full"
  done
  local status=0
  e2fsck -p "$dir/disk.img" >"$dir/said" || status=$?
  [ $status -lt 4 ] || fail "the file system is damaged"
}

# shellcheck source=tests/system/demo_snap.sh
. "$here/demo_snap.sh"
# shellcheck source=tests/system/demo_backup.sh
. "$here/demo_backup.sh"

started=$SECONDS
[ "$(id -u)" = 0 ] || cannot "mounting takes root"
[ -c /dev/fuse ] || cannot "there is no /dev/fuse"
the_disk
the_files
the_base
the_changes
the_comparison
the_restart
the_crash
the_snapshots
the_backups
printf '\nThe demo held in all %s steps, in %s seconds.\n' "$step" "$((SECONDS - started))"
