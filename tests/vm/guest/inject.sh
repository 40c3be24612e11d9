# tests/vm/guest/inject.sh: allocations, pages and requests fail where the kernel is told to let them
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
debug=/sys/kernel/debug
spared=/sys/module/trak_spare/parameters/spared

# Nothing fails any more; then what was mounted goes.
down() {
  set -e
  for kind in failslab fail_page_alloc fail_make_request; do
    [ ! -d $debug/$kind ] || echo 0 >$debug/$kind/times
  done
  for mark in /sys/block/vd*/make-it-fail; do
    [ ! -e "$mark" ] || echo 0 >"$mark"
  done
  if [ -e $spared ]; then rmmod trak_spare; fi
  all_down
  if grep -q ' /mnt/cow ' /proc/mounts; then umount /mnt/cow; fi
  umount $debug
}
# shellcheck disable=SC2034  # lib.sh calls it
cleanup=down

# Where the scheduler CFQ of the 2.6.32 series has no memory for what it keeps of a task
# (cfq_set_request, block/cfq-iosched.c), the task waits for another's request to end (get_request_wait,
# block/blk-core.c), for ever where there is none. The other schedulers keep nothing of tasks.
quiet_scheduler() {
  local at
  for at in /sys/block/vd*/queue/scheduler; do
    if grep -q cfq "$at"; then echo noop >"$at"; fi
  done
}

prepare() {
  mount -t debugfs none $debug
  [ -d "$debug/$1" ] || skip "this kernel lets nothing fail (CONFIG_FAULT_INJECTION and its $1)"
  quiet_scheduler
  mount_maps
  mkdir -p /mnt/maps/failing
  load
  trakctl list
  held | tee /tmp/held_before
}

# spare WORDS...: trak_spare.ko with these parameters, for what must not fail (tests/vm/inject/spare.c).
spare() {
  [ -e /lib/modules/trak_spare.ko ] || skip "this kernel can't be kept from failing itself (CONFIG_KPROBES)"
  insmod /lib/modules/trak_spare.ko "$@"
}

# held: what the module holds of memory: objects by who asked for them, areas of pages.
held() {
  cat /sys/kernel/slab/*/alloc_calls 2>/dev/null |
    awk '$2 ~ /\[trak\]|alloc_disk_node|blk_alloc_queue_node|__proc_create/ || $3 == "[trak]" {
        sub(/\+.*/, "", $2); objects[$2] += $1 }
      END { for (one in objects) print one, objects[one] }' | sort
  grep -c '\[trak\]' /proc/vmallocinfo || true
}

# lets_fail DISK: requests to it may fail.
lets_fail() {
  local name
  name=$(disk "$1")
  echo 1 >"/sys/block/${name#/dev/}/make-it-fail"
}

# Nothing that the module recognises is on the disk: everything is preserved.
wipe() { dd if=/dev/urandom of="$(disk 0)" bs=1M count=4 conv=fsync; }

# Functions of the kernel's own that take no failure, of the 2.6.32 series. add_disk (block/genhd.c) returns
# nothing and goes on with a half-made disk; sysfs_slab_add (mm/slub.c) lets go of a cache that
# kmem_cache_create then frees once more; what alloc_page_buffers (fs/buffer.c) gets no memory for ends in
# grow_dev_page's BUG().
case $(uname -r) in
2.6.*) untried=functions=add_disk,sysfs_slab_add,alloc_page_buffers ;;
*) untried= ;;
esac

# Of the driver's own: the memory for a snap's record, whose failure is known to leave the node table locked
# (docs/compatibility.md).
spare_in_creations() {
  local add_snap
  add_snap=$(awk '$4 == "[trak]" && $3 ~ /^_Z[0-9]+trak_ioctl_add_snap_node/ { print $3 }' /proc/kallsyms)
  spare ${untried:+"$untried"} inner=os_kzalloc outer="$add_snap" "$@"
}

# sweep KIND WHAT: every one of these calls with every one of its steps failing once.
sweep() {
  vm_tool failing "$1" "$2" /dev/trakctl "$(disk 0)" /mnt/maps/failing | tee /tmp/injected
  say "   $1, $2: $(tail -n 1 /tmp/injected)"
  grep -q '[1-9][0-9]* failures in all' /tmp/injected
}

holds_as_before() {
  held >/tmp/held_after
  cmp -s /tmp/held_before /tmp/held_after
}

# Nothing of what was made is left.
swept() {
  (eventually holds_as_before) || fail "left: $(diff /tmp/held_before /tmp/held_after)"
}

# What must not fail was met: the sweep came that far.
were_spared() { [ "$(cat $spared)" != 0 ] || fail "nothing was kept from failing"; }

# A disk with a file system, and one more filter, which keeps the module's caches: they are not what is swept.
begin_sweep() {
  prepare "$1"
  wipe
  mke2fs -q -F "$(disk 0)" 4096
  trakctl add-filter --disk "$(disk 2)" --extent-size 64K --bmp-dir /mnt/maps/failing --minor 2
  refuse holds_as_before
  [ "$1" != fail_make_request ] || lets_fail 0
}

calls_fail() {
  begin_sweep "$1"
  [ "$1" = fail_make_request ] || spare ${untried:+"$untried"} counted=should_fail
  sweep "$1" calls
  trakctl delete 2
  swept
}

creations_fail() {
  begin_sweep "$1"
  spare_in_creations counted=should_fail
  sweep "$1" creations
  were_spared
  trakctl delete 2
  swept
}

# The first filter of all makes the module's caches and fills its pools.
first_fails() {
  prepare "$1"
  spare_in_creations
  sweep "$1" first
  were_spared
  swept
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
  wipe
  add_filter 64K
  [ "$1" = fail_make_request ] || spare ${untried:+"$untried"}
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
  wipe
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
# A creation makes no request.
for kind in failslab fail_page_alloc; do
  try inject.every_creation_ends_as_stated_under_$kind creations_fail $kind
  try inject.first_creation_ends_as_stated_under_$kind first_fails $kind
done
try inject.image_is_true_or_given_up_under_failslab writes_fail failslab 2
try inject.image_is_true_or_given_up_under_fail_page_alloc writes_fail fail_page_alloc 5
try inject.image_is_true_or_given_up_under_fail_make_request writes_fail fail_make_request 10
try inject.failing_cow_disk_gives_up_the_snapshot_alone cow_fails 20
