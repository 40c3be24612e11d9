# tests/vm/guest/module.sh: the module comes and goes, and leaves nothing
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh

loads() {
  nothing_left
  load
  for file in chr_major debug blk_major; do
    [ -r "/proc/trak/$file" ] || fail "there is no /proc/trak/$file"
  done
  [ "$(cat /sys/module/trak/parameters/trak_debug)" = 1 ]
  [ "$(cat /sys/module/trak/parameters/trak_max_blk_minor)" = 255 ]
  [ "$(grep -cw trak /proc/devices)" = 2 ] || fail "/proc/devices: $(cat /proc/devices)"
  eventually thread kdirtyd
  trakctl list
  [ "$(stat -c %a /dev/trakctl)" = 600 ]
  unload
}

describes_itself() {
  load
  grep -q 'Block Filtering and Snap Driver' /lib/modules/trak.ko
  trakctl debug 3
  [ "$(cat /proc/trak/debug)" = 3 ]
  [ "$(cat /sys/module/trak/parameters/trak_debug)" = 3 ]
}

reloads() {
  local n=0
  while [ $n -lt "$1" ]; do
    load
    unload
    n=$((n + 1))
  done
}

# A parameter that is no number; a major that somebody else has, of either kind.
wrong_parameters() {
  refuse load_with trak_debug=loud
  nothing_left
  refuse load_with trak_blk_major="$(sed -n 's/^ *\([0-9]*\) virtblk$/\1/p' /proc/devices)"
  nothing_left
  refuse load_with trak_chr_major=1
  nothing_left
}

dynamic_major() {
  load_with trak_chr_major=0
  major=$(cat /proc/trak/chr_major)
  [ "$major" != 0 ]
  grep -q "^ *$major trak$" /proc/devices
  trakctl list
  unload
}

# A node that is open, and the control device that is, hold the module.
unload_refused() {
  mount_maps
  load
  add_filter 64K
  exec 4</dev/trak/trak0
  refuse rmmod trak
  refuse trakctl stop 0
  refuse trakctl delete 0
  exec 4<&-
  exec 4</dev/trakctl
  refuse rmmod trak
  exec 4<&-
  dd if=/dev/trak/trak0 of=/dev/null bs=1M count=4
}

# Nodes are not what holds it: they go with it, saved.
unload_takes_nodes_along() {
  mount_maps
  load
  add_filter 64K
  trakctl bitmap clear 0 incr
  dd if=/dev/zero of=/dev/trak/trak0 bs=64k count=1 seek=5 conv=fsync
  add_snap 1 64K
  trakctl start 1
  unload
  # The bit of extent 5 and no other; but for the marker of trakctl, who was not asked.
  rm /mnt/maps/bmp/trak0.session
  load
  trakctl add-filter --disk "$(disk 0)" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 0
  trakctl bitmap get 0 incr | tee /tmp/marks
  [ "$(grep -vc '^#' /tmp/marks)" = 1 ]
  grep -q '^ *5 *1 ' /tmp/marks
}

# The exit function can't refuse. Where it finds a node open, which the kernel keeps from happening, it waits
# for the node's end and takes nothing away before.
exit_waits() {
  mount_maps
  load
  add_filter 64K
  trakctl bitmap clear 0 incr
  dd if=/dev/zero of=/dev/trak/trak0 bs=64k count=1 seek=5 conv=fsync
  insmod /lib/modules/trak_contract.ko hold=$((100 << 20))
  [ "$(cat /proc/trak/trak0/use_cnt)" = 1 ]
  refusals_before=$(refusals)
  rmmod trak &
  eventually tried_again
  [ "$(cat /sys/module/trak/initstate)" = going ]
  [ "$(cat /proc/trak/trak0/use_cnt)" = 1 ]
  thread kdirtyd
  refuse dd if=/dev/trak/trak0 of=/dev/null bs=4k count=1
  rmmod trak_contract
  wait $!
  rm -f /dev/trakctl
  nothing_left
  # Saved as in any unload.
  rm /mnt/maps/bmp/trak0.session
  load
  trakctl add-filter --disk "$(disk 0)" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 0
  trakctl bitmap get 0 incr | tee /tmp/marks
  [ "$(grep -vc '^#' /tmp/marks)" = 1 ]
  grep -q '^ *5 *1 ' /tmp/marks
}

refusals() { dmesg | grep -c 'trak_block_stop_device(): trak(100, 0) is still being used' || true; }
tried_again() { [ "$(refusals)" -ge $((refusals_before + 2)) ]; }

mounted_refused() {
  mount_maps
  load
  "mkfs.$own_fs" -q -F "$(disk 0)" 60M
  add_filter 64K
  mkdir -p /mnt/node
  mount -t "$own_fs" /dev/trak/trak0 /mnt/node
  refuse trakctl delete 0
  refuse trakctl stop 0
  refuse rmmod trak
  # Files of its own on the filter itself.
  refuse trakctl add-snap --filter 0 --minor 1 --chunk-size 64K --cow-bmp /mnt/node/map \
    --cow-data /mnt/node/data
  refuse trakctl add-snap --filter 0 --minor 1 --chunk-size 64K --cow-bmp /mnt/maps/map \
    --cow-data /mnt/node/data
  # A disk that is mounted gets no filter.
  mkdir -p /mnt/node/bmp
  refuse trakctl add-filter --disk "$(disk 1)" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 3
  umount /mnt/node
  # Neither do bitmaps lie there: the disk has a filter already, and one of another disk would.
  "fsck.$own_fs" -f -n "$(disk 0)"
}

# A bitmap that would be written through its own node is not written at all.
own_bitmaps_refused() {
  mount_maps
  load
  "mkfs.$own_fs" -q -F "$(disk 0)" 60M
  mkdir -p /mnt/node/bmp
  trakctl add-filter --disk "$(disk 0)" --extent-size 64K --bmp-dir /mnt/node/bmp --minor 0
  trakctl start 0
  eventually test -b /dev/trak/trak0
  mount -t "$own_fs" /dev/trak/trak0 /mnt/node
  mkdir /mnt/node/bmp
  refuse trakctl bitmap save 0 incr
  refuse trakctl bitmap save 0 diff
  [ -z "$(ls /mnt/node/bmp)" ]
}

not_while_loaded_twice() {
  load
  refuse load
  unload
}

# The disk under a node is nobody else's to write, and a snapshot nobody's.
disk_claimed() {
  mount_maps
  load
  add_filter 64K
  add_snap 1 64K
  trakctl start 1
  refuse trakctl add-filter --disk "$(disk 0)" --extent-size 64K --bmp-dir /mnt/maps --minor 5
  refuse trakctl add-filter --disk "$(disk 1)" --extent-size 64K --bmp-dir /mnt/maps --minor 5
  mke2fs -F -b 4096 /dev/trak/trak0
  refuse mount_ext2 "$(disk 0)" /mnt
  refuse dd if=/dev/zero of=/dev/trak/trak1 bs=4k count=1
  dd if="$(disk 0)" of=/dev/null bs=4k count=4
}

# The disk is pulled out under a mounted file system and a snapshot: errors for all, and an orderly end.
disk_gone() {
  mount_maps
  load
  add_filter 64K
  mke2fs -F -b 4096 /dev/trak/trak0
  mkdir -p /mnt/gone
  mount_ext2 /dev/trak/trak0 /mnt/gone
  dd if=/dev/urandom of=/mnt/gone/file bs=64k count=16 conv=fsync
  add_snap 1 64K
  trakctl start 1
  pulled=$(disk 0)
  slot=$(readlink -f "/sys/block/${pulled#/dev/}/device/..")
  echo "${slot##*/}" >/sys/bus/pci/drivers/virtio-pci/unbind
  [ ! -e "/sys/block/${pulled#/dev/}" ]
  refuse dd if=/dev/trak/trak0 of=/dev/null bs=4k count=1 skip=900 iflag=direct
  refuse dd if=/dev/zero of=/dev/trak/trak0 bs=4k count=1 seek=900 oflag=direct
  refuse dd if=/dev/trak/trak1 of=/dev/null bs=4k count=1 skip=900 iflag=direct
  refuse dd if=/dev/zero of=/mnt/gone/file bs=64k count=16 conv=notrunc,fsync
  umount /mnt/gone
  trakctl stop 1
  trakctl delete 1
  trakctl stop 0
  trakctl delete 0
  unload
  # The host lets that one report pass (vm_suites.py), this its bit among the kernel's taints.
  if dmesg | grep -q 'WARNING: at .*fs/buffer.c:[0-9]* mark_buffer_dirty'; then echo 512 >/tmp/provoked; fi
}

try module.loads_and_unloads_with_its_files_threads_and_numbers loads
try module.describes_itself describes_itself
try module.is_loaded_and_unloaded_again_and_again reloads "$(cat /etc/reloads)"
try module.wrong_parameters_are_refused_and_leave_nothing wrong_parameters
try module.takes_a_major_of_the_kernels_choice dynamic_major
try module.is_loaded_once not_while_loaded_twice
try module.stays_while_a_node_or_the_control_device_is_open unload_refused
try module.takes_its_nodes_along unload_takes_nodes_along
try module.exit_waits_for_a_node_that_is_open_all_the_same exit_waits
try module.mounted_nodes_are_neither_stopped_nor_deleted mounted_refused
try module.bitmaps_on_the_node_itself_are_refused own_bitmaps_refused
try module.disk_of_a_node_is_claimed disk_claimed
try module.disk_that_is_pulled_out_gives_errors_and_an_orderly_end disk_gone
try module.leaves_nothing_in_the_end nothing_left
