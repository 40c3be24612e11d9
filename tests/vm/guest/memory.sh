# tests/vm/guest/memory.sh: a machine that has hardly any memory, and what it hasn't is wanted
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# etc/memory: rounds of the pressure, the file system on the node.
read -r rounds node_fs </etc/memory

# eat_all_but MIB: a process takes the rest and rewrites it again and again.
eat_all_but() {
  vm_tool eat $(($(available_kib) / 1024 - $1)) /tmp/stop &
  eater=$!
  end_first $eater
}

# true_or_given_up MINOR SUMS: the files of a snapshot are those of SUMS, or it says that it is invalid, and
# then it shows nothing.
true_or_given_up() {
  if [ "$(info "$1" valid)" = true ]; then
    mkdir -p "/mnt/snap$1"
    # ext3's noload is for file systems without a journal.
    if [ "$node_fs" = ext4 ]; then options=ro,noload; else options=ro; fi
    mount -t "$node_fs" -o $options "/dev/trak/trak$1" "/mnt/snap$1"
    vm_tool sums "/mnt/snap$1/tree" >/tmp/shown
    umount "/mnt/snap$1"
    cmp /tmp/shown "$2"
    echo "tally snapshot true" >>/tmp/tally
  else
    refuse dd if="/dev/trak/trak$1" of=/dev/null bs=4k count=1
    echo "tally snapshot invalid" >>/tmp/tally
  fi
}

# Files are written through the cache and past it, and snapshots start, are read and go.
pressure() {
  local writers='' n=0
  mount_maps
  load
  "mkfs.$node_fs" -q -F "$(disk 0)"
  add_filter 64K
  mkdir -p /mnt/node
  mount -t "$node_fs" /dev/trak/trak0 /mnt/node
  mkdir /mnt/node/tree /mnt/node/a /mnt/node/b
  vm_tool age /mnt/node/tree 1 300 9000
  vm_tool sums /mnt/node/tree >/tmp/sums
  rm -f /tmp/stop /tmp/tally
  for folder in a b; do
    vm_tool churn /mnt/node/$folder 3 /tmp/stop &
    writers="$writers $!"
  done
  # trakctl makes no snapshot while less is available than its creation could need. Kernels 2.6 have no sum
  # of what is available, and what stands in for it leaves out what they could get back of their own.
  if [ "$own_fs" = ext4 ]; then eat_all_but 32; else eat_all_but 46; fi
  while [ $n -lt "$rounds" ]; do
    eventually add_snap 1 4K
    trakctl start 1
    dd if=/dev/zero of=/mnt/node/large bs=1M count=40 conv=fsync
    eventually add_snap 2 4K
    trakctl start 2
    dd if=/dev/zero of=/mnt/node/large bs=64k count=400 oflag=direct conv=notrunc
    true_or_given_up 1 /tmp/sums
    true_or_given_up 2 /tmp/sums
    rm /mnt/node/large
    eventually trakctl delete 1
    eventually trakctl delete 2
    n=$((n + 1))
  done
  touch /tmp/stop
  # The writers ended of themselves, and well; the eater may have been ended.
  for pid in $writers; do wait "$pid"; done
  wait $eater || echo "the eater was ended: $?"
  umount /mnt/node
  "fsck.$node_fs" -f -n /dev/trak/trak0
  cat /tmp/tally
  # Giving up each of them would be an easy way out.
  grep -q true /tmp/tally
}

# The kernel ended nobody but the one that was made for it.
nobody_else_ended() {
  dmesg | grep -E 'Killed process|oom-kill:' | grep -v vm_tool >/tmp/killed || return 0
  cat /tmp/killed
  return 1
}

try memory.snapshots_are_true_or_given_up_while_memory_lacks pressure
try memory.nobody_is_ended_for_lack_of_it nobody_else_ended
