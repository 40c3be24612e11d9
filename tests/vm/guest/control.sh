# tests/vm/guest/control.sh: callers of the control device that mean no good, or may not call
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck source=tests/vm/guest/trak.sh
. /suites/trak.sh
# etc/calls: how many calls each hostile process makes. Disk 2 is theirs; disk 3 has a
# file system for the readers.
read -r calls </etc/calls

# A program of 32 bits: every command gets ENOTTY (25), and nothing changes.
caller_of_32_bits() {
  [ "$(cat /etc/programs_of_32_bits)" = yes ] || skip "this kernel runs no programs of 32 bits"
  mount_maps
  load
  add_filter 64K
  trakctl --json info 0 >/tmp/before
  caller32 /dev/trakctl >/tmp/said
  [ "$(wc -l </tmp/said)" = 17 ]
  refuse grep -v ' 025$' /tmp/said
  trakctl --json info 0 >/tmp/after
  cmp /tmp/before /tmp/after
}

# 0600 is what holds: whoever may not open the device can't call.
user_without_rights() {
  load
  trakctl list
  [ "$(stat -c '%a %u %g' /dev/trakctl)" = "600 0 0" ]
  [ "$(vm_tool opens-as 1000 /dev/trakctl)" = "Permission denied" ]
  [ "$(vm_tool opens-as 0 /dev/trakctl)" = passed ]
}

# Memory in KiB that is neither free nor in caches that can be dropped.
memory_taken() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
  awk '/^(MemTotal|MemFree|Cached|Buffers|SReclaimable):/ { kb[$1] = $2 }
    END { print kb["MemTotal:"] - kb["MemFree:"] - kb["Cached:"] - kb["Buffers:"] -
                kb["SReclaimable:"] }' /proc/meminfo
}

# Three processes call at once, while a filter that they share is written. Whatever they made of the
# nodes, the module goes.
hostile_round() {
  local seed pids=
  mkdir -p /mnt/maps/hostile
  load
  trakctl list
  for seed in "$1" $(($1 + 1)) $(($1 + 2)); do
    vm_tool hostile /dev/trakctl "$(disk 2)" "$(disk 3)" /mnt/maps/hostile "$seed" "$2" \
      >"/tmp/hostile.$seed" &
    pids="$pids $!"
  done
  rm -f /tmp/stop
  (
    set +e
    n=0
    while [ ! -e /tmp/stop ]; do
      for node in 0 1 2 3; do
        vm_tool scribble /dev/trak/trak$node $n 20 65536
        dd if=/dev/trak/trak$node of=/dev/null bs=64k count=16
      done
      n=$((n + 1))
    done
  ) >/dev/null 2>&1 &
  worker=$!
  for pid in $pids; do wait "$pid"; done
  touch /tmp/stop
  wait $worker
  # One line a command: its number, how often it passed, how often it was refused.
  sort -n /tmp/hostile."$1" /tmp/hostile.$(($1 + 1)) /tmp/hostile.$(($1 + 2)) |
    awk '{ passed[$1 + 0] += $2; refused[$1 + 0] += $4 }
      END { for (n = 1; n <= 17; n++) print n, passed[n], refused[n] }' | tee /tmp/calls
  unload
  rm -rf /mnt/maps/hostile
}

# What a round takes and keeps it takes again in each; what the kernel only has not got back yet it
# does not.
hostile_calls() {
  local before after seed
  mount_maps
  # The first round warms every cache.
  hostile_round 100 $((calls / 4))
  after=$(memory_taken)
  for seed in 200 300 400 500; do
    before=$after
    hostile_round $seed "$calls"
    after=$(memory_taken)
    echo "KiB taken: $before, $after"
    # None of the commands was refused or passed throughout.
    awk '$2 == 0 || $3 == 0 { print "command " $1 ": " $2 ", " $3; bad = 1 } END { exit bad }' \
      /tmp/calls
    [ $((after - before)) -ge 4096 ] || return 0
  done
  fail "each round takes memory and keeps it"
}

try control.caller_of_32_bits_is_refused caller_of_32_bits
try control.user_without_rights_cannot_open_the_device user_without_rights
try control.hostile_calls_harm_nothing hostile_calls
