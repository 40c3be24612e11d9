# tests/vm/guest/io.sh: verified I/O of every size on a filter while snapshots come and go
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# etc/io: MiB of each job, how often it is repeated.
read -r mib loops </etc/io

# snapshots_while PID: until it ends snapshots are made, read and deleted; says how many.
snapshots_while() {
  local made=0
  while kill -0 "$1" 2>/dev/null; do
    add_snap 1 64K
    trakctl start 1
    add_snap 2 64K
    trakctl start 2
    dd if=/dev/trak/trak1 of=/dev/null bs=256k count=64
    eventually trakctl delete 1
    eventually trakctl delete 2
    made=$((made + 2))
  done
  echo "$made snapshots came and went"
  [ $made -ge 2 ]
}

# verified ARGS...: fio's own checksums hold after and during everything.
verified() {
  local writer
  mount_maps
  load
  add_filter 64K
  fio --name=io --filename=/dev/trak/trak0 --size="${mib}M" --loops="$loops" --bsrange=512-1M \
    --verify=crc32c --verify_fatal=1 --randseed=7 --allow_mounted_write=1 --output-format=terse \
    "$@" &
  writer=$!
  snapshots_while $writer
  wait $writer
}

# Discards between the writes: what was discarded is no longer looked at.
discards() {
  local writer
  lacks "a disk of the guest that takes discards"
  mount_maps
  load
  add_filter 64K
  rm -f /tmp/stop
  (
    n=0
    while [ ! -e /tmp/stop ]; do
      blkdiscard -o $((n % 30 * 1048576)) -l 1048576 /dev/trak/trak0
      n=$((n + 7))
    done
  ) &
  fio --name=io --filename=/dev/trak/trak0 --offset=32M --size="${mib}M" --bsrange=512-256k --rw=randwrite \
    --direct=1 --verify=crc32c --randseed=8 --output-format=terse &
  writer=$!
  snapshots_while $writer
  wait $writer
  touch /tmp/stop
  wait
}

try io.random_direct_writes_verify verified --rw=randwrite --direct=1 --ioengine=libaio --iodepth=16
try io.random_buffered_writes_verify verified --rw=randwrite --direct=0 --fsync=50
try io.sequential_writes_verify verified --rw=write --direct=1
try io.writes_verify_between_discards discards
