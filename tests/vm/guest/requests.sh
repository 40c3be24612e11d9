# tests/vm/guest/requests.sh: requests that are no plain reads and writes, and what is counted of all
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh

mib=1048576

# marks FIRST LAST: of 64 KiB extents those and no others are marked.
marks() {
  trakctl bitmap get 0 incr | grep -v '^#' >/tmp/marks
  cat /tmp/marks
  [ "$(wc -l </tmp/marks)" = 1 ]
  grep -q "^ *$1 *$(($2 - $1 + 1)) " /tmp/marks
}

# A request KIND over 3 MiB and a half changes the disk, marks what it touched, and a snapshot shows what
# was there.
changes_as_a_write() {
  case $1 in
  discard) lacks "a disk of the guest that takes discards" ;;
  zeroes) lacks "write zeroes" ;;
  esac
  mount_maps
  dd if=/dev/urandom of="$(disk 0)" bs=1M count=24 conv=fsync
  load
  add_filter 64K
  trakctl bitmap clear 0 incr
  vm_tool hash /dev/trak/trak0 4096 /tmp/before
  add_snap 1 4K
  trakctl start 1
  # Beyond what is preserved at once, and ending within an extent and a chunk.
  [ "$(vm_tool request /dev/trak/trak0 "$1" $((5 * mib)) $((3 * mib + 512 * 1024 + 1024)))" = passed ]
  marks 80 136
  vm_tool hash /dev/trak/trak1 4096 /tmp/shown
  cmp /tmp/before /tmp/shown
  vm_tool hash /dev/trak/trak0 4096 /tmp/now
  refuse cmp -s /tmp/before /tmp/now
  vm_tool hash "$(disk 0)" 4096 /tmp/below
  cmp /tmp/now /tmp/below
  # What is preserved already goes straight through, and again into an image that stays.
  [ "$(vm_tool request /dev/trak/trak0 "$1" $((6 * mib)) $mib)" = passed ]
  [ "$(vm_tool request /dev/trak/trak0 "$1" 0 $((20 * mib)))" = passed ]
  vm_tool hash /dev/trak/trak1 4096 /tmp/shown
  cmp /tmp/before /tmp/shown
  [ "$(info 1 valid)" = true ]
  # A snapshot takes none of them.
  [ "$(vm_tool request /dev/trak/trak1 "$1" 0 $mib 2>&1)" != passed ]
}

reads_zeros() {
  lacks "write zeroes"
  mount_maps
  load
  add_filter 64K
  dd if=/dev/urandom of=/dev/trak/trak0 bs=1M count=4 conv=fsync
  [ "$(vm_tool request /dev/trak/trak0 zeroes $mib $((2 * mib)))" = passed ]
  dd if=/dev/trak/trak0 bs=1M skip=1 count=2 | cmp -n $((2 * mib)) - /dev/zero
  dd if=/dev/trak/trak0 of=/tmp/rest bs=1M count=1
  refuse cmp -s -n $mib /tmp/rest /dev/zero
}

# What the disk can't do the node can't, and no extent is marked for it.
unsupported() {
  local kind below refused=
  for kind in secure zeroes discard; do
    below=$(vm_tool request "$(disk 0)" $kind 0 $mib || true)
    echo "the disk itself: $kind: $below"
    [ "$below" = passed ] || refused="$refused $kind"
    echo "$below" >/tmp/below.$kind
  done
  mount_maps
  load
  add_filter 64K
  trakctl bitmap clear 0 incr
  for kind in $refused; do
    [ "$(vm_tool request /dev/trak/trak0 "$kind" 0 $mib)" = "$(cat "/tmp/below.$kind")" ]
  done
  grep -q 'supported\|Inappropriate' /tmp/below.secure
  [ "$(vm_tool request /dev/trak/trak0 zones 0 0)" != passed ]
  [ "$(vm_tool request /dev/trak/trak0 reset-zone 0 $mib)" != passed ]
  trakctl bitmap get 0 incr >/tmp/marks
  refuse grep -v '^#' /tmp/marks
}

# A node over a disk with zones has none: what asks for them is refused, what the disk refuses is an
# error of the node.
zoned() {
  local host=/sys/kernel/config/nullb/zoned
  lacks "disks with zones, null_blk"
  mount_maps
  mkdir -p /sys/kernel/config
  mount -t configfs none /sys/kernel/config
  ls /sys/block >/tmp/disks
  mkdir $host
  for word in size=64 zoned=1 zone_size=4 memory_backed=1 blocksize=512 power=1; do
    echo "${word#*=}" >"$host/${word%%=*}"
  done
  for one in /sys/block/*; do
    grep -qxF "${one##*/}" /tmp/disks || zoned_disk=/dev/${one##*/}
  done
  [ "$(cat "/sys/block/${zoned_disk#/dev/}/queue/zoned")" = host-managed ]
  [ "$(vm_tool request "$zoned_disk" zones 0 0)" = passed ]
  load
  mkdir -p /mnt/maps/bmp
  trakctl add-filter --disk "$zoned_disk" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 0
  trakctl start 0
  eventually test -b /dev/trak/trak0
  [ "$(cat /sys/block/trak0/queue/zoned)" = none ]
  [ "$(vm_tool request /dev/trak/trak0 zones 0 0)" != passed ]
  [ "$(vm_tool request /dev/trak/trak0 reset-zone 0 $((4 * mib)))" != passed ]
  dd if=/dev/urandom of=/dev/trak/trak0 bs=64k count=4 oflag=direct
  # Not where the zone's writing stands.
  refuse dd if=/dev/urandom of=/dev/trak/trak0 bs=64k count=1 seek=30 oflag=direct
  dd if=/dev/trak/trak0 of=/dev/null bs=64k count=8 iflag=direct
  trakctl delete 0
  echo 0 >$host/power
  rmdir $host
  umount /sys/kernel/config
}

# counted NODE FIELD: a number of /sys/block/NODE/stat, by its place.
counted() { tr -s ' ' <"/sys/block/$1/stat" | sed 's/^ //' | cut -d ' ' -f "$2"; }

# Reads (1, in sectors 3), writes (5, 7), in flight (9), discards (12, 14; not in every kernel).
statistics() {
  mount_maps
  load
  add_filter 64K
  [ "$(counted trak0 1) $(counted trak0 5)" = "0 0" ]
  dd if=/dev/zero of=/dev/trak/trak0 bs=64k count=16 oflag=direct
  dd if=/dev/trak/trak0 of=/dev/null bs=32k count=8 iflag=direct
  cat /sys/block/trak0/stat
  [ "$(counted trak0 5) $(counted trak0 7)" = "16 2048" ]
  [ "$(counted trak0 1) $(counted trak0 3)" = "8 512" ]
  add_snap 1 4K
  trakctl start 1
  before=$(counted trak0 7)
  dd if=/dev/zero of=/dev/trak/trak0 bs=64k count=16 oflag=direct
  [ $(($(counted trak0 7) - before)) = 2048 ]
  # The driver has looked for a file system there.
  before=$(counted trak1 3)
  dd if=/dev/trak/trak1 of=/dev/null bs=64k count=16 iflag=direct
  cat /sys/block/trak0/stat /sys/block/trak1/stat
  [ $(($(counted trak1 3) - before)) = 2048 ]
  # While chunks are preserved a write takes its time.
  [ "$(counted trak0 8)" -gt 0 ]
  if [ "$(wc -w </sys/block/trak0/stat)" -ge 15 ]; then
    vm_tool request /dev/trak/trak0 discard 0 $mib
    [ "$(counted trak0 12) $(counted trak0 14)" = "1 2048" ]
  fi
  [ "$(counted trak0 9) $(counted trak1 9)" = "0 0" ]
  grep ' trak0 ' /proc/diskstats
  # Whoever wants no counting has none.
  echo 0 >/sys/block/trak0/queue/iostats
  before=$(counted trak0 7)
  dd if=/dev/zero of=/dev/trak/trak0 bs=64k count=4 oflag=direct
  [ "$(counted trak0 7)" = "$before" ]
}

# What is counted is in flight when it is switched off, and the other way round.
statistics_switched() {
  local n=0
  mount_maps
  load
  add_filter 64K
  add_snap 1 4K
  trakctl start 1
  vm_tool scribble /dev/trak/trak0 9 400 65536 &
  writer=$!
  while kill -0 $writer 2>/dev/null; do
    echo $((n % 2)) >/sys/block/trak0/queue/iostats
    n=$((n + 1))
  done
  wait $writer
  cat /sys/block/trak0/stat
  [ $n -gt 2 ]
  [ "$(counted trak0 9)" = 0 ]
}

try requests.discard_is_marked_and_preserved_as_a_write changes_as_a_write discard
try requests.write_zeroes_are_marked_and_preserved_as_a_write changes_as_a_write zeroes
try requests.write_zeroes_reads_zeros_there_and_nowhere_else reads_zeros
try requests.unsupported_ones_are_refused_and_mark_nothing unsupported
try requests.disk_with_zones_is_a_node_without zoned
try requests.are_counted_for_nodes_and_snapshots statistics
try requests.counting_may_be_switched_while_they_run statistics_switched
