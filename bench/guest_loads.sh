# bench/guest_loads.sh: the loads of ./run bench vm, in the guest
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# etc/bench sets: media, rounds, time (of a load, in ms), mib (of a disk); loads and profile: which loads,
# and of which also a profile (extended regular expressions).
: "${profile:=}" "${media:=}" "${rounds:=}" "${time:=}" "${mib:=}" "${loads:=}"
. /etc/bench

# Each contender has a disk of its own, so that all are there at once and take turns at every load:
#
#   bare    the disk                         trak       a filter without a snapshot
#   era     dm-era, blocks of 64 KiB         trak-snap  a filter with a snapshot, files on an ext4
#           (where the kernel has it)                   (ext3 in old kernels)
#                                            dm-snap    dm-snapshot, persistent, its store a disk
#
# A line of figures: figure MEDIUM LOAD CONTENDER ROUND KIB MS P50_US P99_US. KiB and milliseconds are those
# of the load's requests.

# generate DEVICE RW BLOCK DEPTH OFFSET_MIB SIZE_MIB AMOUNT: the load generator: direct I/O for an AMOUNT
# of time (200ms) or of requests (200); prints "KIB MS P50_US P99_US". The only place that knows how.
generate() {
  local amount field=6
  case $7 in
  *ms) amount="--time_based --runtime=$7" ;;
  *) amount="--number_ios=$7" ;;
  esac
  case $2 in *write*) field=47 ;; esac
  # shellcheck disable=SC2086  # two words
  fio --name=load --thread --filename="$1" --rw="$2" --bs="$3" --blockalign="$align" --iodepth="$4" \
    --offset="$5M" --size="$6M" $amount --direct=1 --ioengine=libaio --norandommap=1 \
    --randrepeat=1 --randseed="$round" --allow_mounted_write=1 --output-format=terse \
    --terse-version=3 --output=/tmp/fio 2>&1 || cat /tmp/fio >&2
  awk -F ';' -v at=$field '/^3;/ {
    split($(at + 18), median, "="); split($(at + 24), most, "=")
    print $at, $(at + 3), median[2], most[2] }' /tmp/fio
}

# profiled WHAT COMMAND...: the same, and where it matches, where the processors' time went meanwhile.
profiled() {
  local what="$medium $1"
  shift
  if [ -z "$profile" ] || ! echo "$what" | grep -qE "$profile"; then
    "$@"
    return
  fi
  rm -f /tmp/perf
  perf record -q -a -e cpu-clock -F 20000 -o /tmp/perf 2>/tmp/perf.out &
  recorder=$!
  eventually test -s /tmp/perf
  "$@"
  kill -INT $recorder
  wait $recorder || true
  perf report -i /tmp/perf --stdio -s comm,symbol --percent-limit 0.4 2>/dev/null |
    sed "s/^/profile of $what: /" >&4
}

# has_era: the kernel has dm-era.
has_era() { dmsetup targets | grep -q '^era'; }

# wanted LOAD
wanted() { echo "$medium $1" | grep -qE "$loads"; }

# device CONTENDER: what its load runs on.
device() {
  case $1 in
  bare) place bare ;;
  trak) echo /dev/trak/trak0 ;;
  trak-snap) echo /dev/trak/trak1 ;;
  trak-image) echo /dev/trak/trak2 ;;
  era | dm-snap | dm-image) mapped "$1" ;;
  esac
}

# place ROLE: the disk of this medium that has it.
place() {
  local number=0 role
  for role in bare cow trak era era-maps snap origin store; do
    [ "$role" != "$1" ] || break
    number=$((number + 1))
  done
  case $medium in
  virtio) disk $number ;;
  memory) echo "/dev/ram$number" ;;
  timed) echo "/dev/nullb$number" ;;
  esac
}

mapped() { echo "/dev/dm-$(dmsetup info -c --noheadings -o minor "$1")"; }
sectors() { cat "/sys/block/${1#/dev/}/size"; }

# map NAME TABLE: a mapped disk.
map() {
  echo "$2" | dmsetup create "$1" --noudevsync --noudevrules
  dmsetup mknodes
}
unmap() { dmsetup remove --noudevsync --noudevrules "$1"; }

# turn LOAD CONTENDERS RW BLOCK DEPTH OFFSET SIZE AMOUNT: every contender once, each round another one first.
turn() {
  local load=$1 order="$2" n=0 who
  wanted "$load" || return 0
  shift 2
  while [ $n -lt "$round" ]; do
    order="${order#* } ${order%% *}"
    n=$((n + 1))
  done
  for who in $order; do
    sync
    figures=$(profiled "$load $who" generate "$(device "$who")" "$@")
    [ -n "$figures" ] || fail "$load on $who gave no figures"
    echo "figure $medium $load $who $round $figures" >&4
  done
}

# --- a filter without snapshots ------------------------------------------------------------------

filter_up() {
  local disk filters=trak
  trakctl add-filter --disk "$(place trak)" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 0
  trakctl start 0
  if has_era; then
    filters="trak era"
    dd if=/dev/zero of="$(place era-maps)" bs=4k count=1 oflag=direct
    disk=$(place era)
    map era "0 $(sectors "$disk") era $(place era-maps) $disk 128"
  fi
  # All of the disk is written once: the marks of the loads that follow are there.
  for disk in $filters; do
    dd if=/dev/zero of="$(device "$disk")" bs=1M count="$mib" oflag=direct
  done
}

filter_loads() {
  local who="bare trak" half=$((mib / 2))
  if has_era; then who="$who era"; fi
  turn write-4k-q1 "$who" randwrite 4k 1 0 "$mib" "$time"
  turn write-4k-q16 "$who" randwrite 4k 16 0 "$mib" "$time"
  turn write-1m "$who" write 1M 4 0 "$mib" "$time"
  turn read-4k-q1 "$who" randread 4k 1 0 "$mib" "$time"
  turn read-4k-q16 "$who" randread 4k 16 0 "$mib" "$time"
  turn read-1m "$who" read 1M 4 0 "$mib" "$time"
  # From here on each write is the first to its extent since the maps were taken and cleared.
  wanted mark-4k-q16 || return 0
  trakctl bitmap get-clear 0 incr --file /tmp/incr
  trakctl bitmap get-clear 0 diff --file /tmp/diff
  if has_era; then dmsetup message era 0 checkpoint; fi
  align=64k
  turn mark-4k-q16 "$who" randwrite 4k 16 0 "$mib" $((half * 8))
  align=4k
}

filter_down() {
  trakctl stop 0
  trakctl delete 0
  if has_era; then unmap era; fi
}

# --- snapshots -----------------------------------------------------------------------------------

snap_parent_up() {
  trakctl add-filter --disk "$(place snap)" --extent-size 64K --bmp-dir /mnt/maps/bmp --minor 1
  trakctl start 1
}

# snap_up CHUNK_KIB: new snapshots with chunks of that size.
snap_up() {
  local origin
  trakctl add-snap --filter 1 --minor 2 --chunk-size "$1K" --cow-bmp /mnt/maps/map \
    --cow-data /mnt/maps/data
  trakctl start 2
  origin=$(place origin)
  dd if=/dev/zero of="$(place store)" bs=1M count=1 oflag=direct
  map dm-snap "0 $(sectors "$origin") snapshot-origin $origin"
  map dm-image "0 $(sectors "$origin") snapshot $origin $(place store) P $(($1 * 2))"
}

snap_down() {
  trakctl stop 2
  trakctl delete 2
  unmap dm-image
  unmap dm-snap
}

# A quarter of the disk for the first touches of each depth, half of it for those of 1 MiB, which are
# written and read again afterwards.
snap_loads() {
  local name="$1k" half=$((mib / 2)) quarter=$((mib / 4))
  local writers="bare trak-snap dm-snap" readers="bare trak-image dm-image"
  turn "unpreserved-$name-4k-q1" "$readers" randread 4k 1 0 "$half" "$time"
  turn "unpreserved-$name-4k-q16" "$readers" randread 4k 16 0 "$half" "$time"
  turn "unpreserved-$name-1m" "$readers" read 1M 4 0 "$half" "$time"
  # Aligned to chunks: of a load's requests nearly all are the first to theirs.
  align=$name
  turn "first-$name-4k-q1" "$writers" randwrite 4k 1 0 "$quarter" $((quarter * 8))
  turn "first-$name-4k-q16" "$writers" randwrite 4k 16 "$quarter" "$quarter" $((quarter * 8))
  align=4k
  turn "first-$name-1m" "$writers" write 1M 4 "$half" "$half" "$half"
  if ! wanted "first-$name-1m"; then
    for who in trak-snap dm-snap; do
      dd if=/dev/zero of="$(device $who)" bs=1M seek="$half" count="$half" oflag=direct
    done
  fi
  turn "again-$name-4k-q1" "$writers" randwrite 4k 1 "$half" "$half" "$time"
  turn "again-$name-4k-q16" "$writers" randwrite 4k 16 "$half" "$half" "$time"
  turn "again-$name-1m" "$writers" write 1M 4 "$half" "$half" "$time"
  echo 3 >/proc/sys/vm/drop_caches
  turn "preserved-$name-4k-q1" "$readers" randread 4k 1 "$half" "$half" "$time"
  turn "preserved-$name-4k-q16" "$readers" randread 4k 16 "$half" "$half" "$time"
  turn "preserved-$name-1m" "$readers" read 1M 4 "$half" "$half" "$time"
}

# --- one medium ----------------------------------------------------------------------------------

# A disk in memory that takes 50 us for a request, on its own clock, and any number of them at once.
timed_disk() {
  local folder=/sys/kernel/config/nullb/nullb$1
  mkdir "$folder"
  echo 1 >"$folder/memory_backed"
  echo 4096 >"$folder/blocksize"
  echo 2 >"$folder/irqmode"
  echo 50000 >"$folder/completion_nsec"
  echo "$2" >"$folder/size"
  echo 1 >"$folder/power"
}


fill() { dd if=/dev/zero of="$(place "$1")" bs=1M count="$2" oflag=direct; }

medium_up() {
  local number role
  case $medium in
  memory)
    rmmod brd
    insmod /lib/modules/brd.ko rd_nr=8 rd_size=$((mib * 1024 * 3 / 2))
    ;;
  timed)
    rmmod null_blk
    insmod /lib/modules/null_blk.ko nr_devices=0
    mount -t configfs none /sys/kernel/config
    for number in 0 1 2 3 4 5 6 7; do timed_disk $number $((mib * 3 / 2)); done
    ;;
  esac
  # The memory of a disk that was never written would be made in the middle of a load.
  for role in bare trak era snap origin; do fill $role "$mib"; done
  for role in cow store; do fill $role $((mib * 5 / 4)); done
  "mkfs.$own_fs" -q -F -E nodiscard "$(place cow)"
  mkdir -p /mnt/maps
  mount -t "$own_fs" "$(place cow)" /mnt/maps
  mkdir -p /mnt/maps/bmp
  load
}

medium_down() {
  trakctl stop 1
  trakctl delete 1
  unload
  umount /mnt/maps
  case $medium in
  memory) rmmod brd ;;
  timed)
    rmdir /sys/kernel/config/nullb/nullb*
    umount /sys/kernel/config
    ;;
  esac
}

# measure MEDIUM: every load on it, in rounds.
measure() {
  medium=$1
  align=4k round=0
  medium_up
  filter_up
  snap_parent_up
  while [ $round -lt "$rounds" ]; do
    round=$((round + 1))
    echo "$medium, round $round of $rounds" >&4
    filter_loads
    for chunk in 4 64; do
      snap_up $chunk
      snap_loads $chunk
      snap_down
    done
  done
  filter_down
  medium_down
}

for what in $media; do
  # Descriptor 3 is not for tests; the figures go out by 4.
  exec 4>&3
  try "bench.$what" measure "$what"
done
