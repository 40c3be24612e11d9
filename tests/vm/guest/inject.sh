# tests/vm/guest/inject.sh: allocations, pages and requests fail where the kernel is told to let them
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
debug=/sys/kernel/debug

# Nothing fails any more; then what was mounted goes.
down() {
  set -e
  for kind in failslab fail_page_alloc fail_make_request; do
    [ ! -d $debug/$kind ] || echo 0 >$debug/$kind/times
  done
  for mark in /sys/block/vd*/make-it-fail; do
    [ ! -e "$mark" ] || echo 0 >"$mark"
  done
  all_down
  if grep -q ' /mnt/cow ' /proc/mounts; then umount /mnt/cow; fi
  umount $debug
}
# shellcheck disable=SC2034  # lib.sh calls it
cleanup=down

prepare() {
  mount -t debugfs none $debug
  [ -d "$debug/$1" ] || skip "this kernel lets nothing fail (CONFIG_FAULT_INJECTION and its $1)"
  mount_maps
  mkdir -p /mnt/maps/failing
  load
  trakctl list
}

# lets_fail DISK: requests to it may fail.
lets_fail() {
  local name
  name=$(disk "$1")
  echo 1 >"/sys/block/${name#/dev/}/make-it-fail"
}

# Every call with every one of its steps failing once: it ends with what is stated, and leaves nothing.
calls_fail() {
  prepare "$1"
  dd if=/dev/urandom of="$(disk 0)" bs=1M count=4 conv=fsync
  [ "$1" != fail_make_request ] || lets_fail 0
  vm_tool failing "$1" /dev/trakctl "$(disk 0)" /mnt/maps/failing | tee /tmp/injected
  say "   $(tail -n 1 /tmp/injected)"
  grep -q '[1-9][0-9]* failures in all' /tmp/injected
}

# attributes KIND PERCENT: from now on so many fail, of marked tasks.
attributes() {
  local at=$debug/$1
  echo "$2" >"$at/probability"
  echo 1 >"$at/interval"
  echo 0 >"$at/space"
  echo 0 >"$at/verbose"
  echo Y >"$at/task-filter"
  [ ! -e "$at/ignore-gfp-wait" ] || echo N >"$at/ignore-gfp-wait"
  [ ! -e "$at/min-order" ] || echo 0 >"$at/min-order"
  echo -1 >"$at/times"
}

# The threads that preserve chunks.
mark_threads() {
  for stat in /proc/[0-9]*/stat; do
    if grep -q '^[0-9]* (kcowd' "$stat" 2>/dev/null; then echo 1 >"${stat%stat}make-it-fail"; fi
  done
}

# The image is the one of its beginning, or the snapshot says that it is invalid and shows nothing.
true_or_given_up() {
  # The taint of the kernel's own report that the host lets pass, as in module.sh.
  if dmesg | grep -q 'WARNING: at .*fs/buffer.c:[0-9]* mark_buffer_dirty'; then echo 512 >/tmp/provoked; fi
  if [ "$(info 1 valid)" = true ]; then
    vm_tool hash /dev/trak/trak1 4096 /tmp/shown
    cmp /tmp/before /tmp/shown
    echo true >>/tmp/tally
  else
    refuse dd if=/dev/trak/trak1 of=/dev/null bs=4k count=1 iflag=direct
    echo invalid >>/tmp/tally
  fi
}

# writes_fail KIND PERCENT: the writer and who preserves for it, again and again.
writes_fail() {
  local round
  prepare "$1"
  add_filter 64K
  rm -f /tmp/tally
  for round in 1 2 3 4 5 6; do
    vm_tool hash /dev/trak/trak0 4096 /tmp/before
    add_snap 1 4K
    trakctl start 1
    [ "$1" != fail_make_request ] || lets_fail 0
    mark_threads
    attributes "$1" "$2"
    vm_tool failing-writes /dev/trak/trak0 "$round" 60
    echo 0 >"$debug/$1/times"
    true_or_given_up
    trakctl stop 1
    trakctl delete 1
  done
  sort /tmp/tally | uniq -c
  # The filter's disk goes on.
  dd if=/dev/urandom of=/dev/trak/trak0 bs=64k count=8 oflag=direct
}

# cow_fails PERCENT: of all requests to the disk of the COW files.
cow_fails() {
  local round at=$debug/fail_make_request
  prepare fail_make_request
  add_filter 64K
  mkdir -p /mnt/cow
  rm -f /tmp/tally
  for round in 1 2 3; do
    mke2fs -q -F -b 4096 "$(disk 2)"
    mount_ext2 "$(disk 2)" /mnt/cow
    vm_tool hash /dev/trak/trak0 4096 /tmp/before
    add_snap 1 4K /mnt/cow
    trakctl start 1
    lets_fail 2
    attributes fail_make_request "$1"
    echo N >$at/task-filter
    vm_tool failing-writes /dev/trak/trak0 "$round" 40 | tee /tmp/writes
    # None of the writes is the COW files'.
    refuse grep -v passed /tmp/writes
    echo 0 >$at/times
    true_or_given_up
    trakctl stop 1
    trakctl delete 1
    umount /mnt/cow
  done
  sort /tmp/tally | uniq -c
}

for kind in failslab fail_page_alloc fail_make_request; do
  try inject.every_call_ends_as_stated_under_$kind calls_fail $kind
done
try inject.image_is_true_or_given_up_under_failslab writes_fail failslab 2
try inject.image_is_true_or_given_up_under_fail_page_alloc writes_fail fail_page_alloc 5
try inject.image_is_true_or_given_up_under_fail_make_request writes_fail fail_make_request 10
try inject.failing_cow_disk_gives_up_the_snapshot_alone cow_fails 20
