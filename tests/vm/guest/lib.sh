# tests/vm/guest/lib.sh: what every suite in the guest shares
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# Sourced by init.sh. File descriptor 3 is the line to the host (vm_report.py).
stty -F /dev/ttyS1 raw -echo 2>/dev/null
exec 3>/dev/ttyS1

# A suite may name a function that takes down what a test left; it runs after each.
cleanup=

# try SUITE.WHAT_HOLDS COMMAND...: one test: the command (mostly a function) in a shell of its own
# that ends at the first thing that fails. What it printed last is the reason.
try() {
  local name=$1 status
  shift
  # shellcheck disable=SC2254  # a pattern is what `only` of the kernel's command line is
  case $name in ${only:-*}) ;; *) return ;; esac
  echo "--- $name"
  (
    set -eu
    [ -z "$cleanup" ] || trap 'leave $?' EXIT
    "$@"
  ) >/tmp/out 2>&1 3>&-
  status=$?
  cat /tmp/out
  case $status in
  0) echo "ok $name" >&3 ;;
  77) echo "skip $name: $(why)" >&3 ;;
  *) echo "not ok $name: $(why) (status $status)" >&3 ;;
  esac
}

# leave STATUS: what the test left is taken down; that it can't be is a failure too.
leave() {
  trap - EXIT
  set +e
  ("$cleanup" >/tmp/left 2>&1)
  left=$?
  [ "$1" = 0 ] || exit "$1"
  [ $left = 0 ] || echo "not taken down: $(cat /tmp/left)"
  exit $left
}

# say WORDS: a line to the host from within a test, which has no descriptor for it.
say() { echo "$*" >/dev/ttyS1; }

# The last lines of the test's output as one.
why() { tail -n 3 /tmp/out | tr '\n:' ' ;' | cut -c 1-400; }

fail() {
  echo "$*"
  exit 1
}

skip() {
  echo "$*"
  exit 77
}

# lacks WHAT: a test of what the kernels of the 2.6.32 series have not.
lacks() {
  case $(uname -r) in 2.6.*) skip "not there in this series: $*" ;; esac
}

# refuse COMMAND...: it must fail.
refuse() {
  if "$@"; then fail "was not refused: $*"; fi
}

# Seconds since the start.
uptime_s() {
  local now rest
  # shellcheck disable=SC2034  # read takes the line apart
  read -r now rest </proc/uptime
  echo "${now%.*}"
}

# KiB that programs could still get. Kernels that don't say so themselves: what is free, and what of files
# can be dropped, which of the guest's own (a ramfs) nothing can.
available_kib() {
  awk '/^(MemFree|MemAvailable|Active\(file\)|Inactive\(file\)):/ { kib[$1] = $2 }
    END { sum = kib["MemFree:"] + kib["Active(file):"] + kib["Inactive(file):"]
      if ("MemAvailable:" in kib) sum = kib["MemAvailable:"]
      print sum }' /proc/meminfo
}

# end_first PID: it is the one to be ended where the kernel ends one for lack of memory.
end_first() {
  if [ -e "/proc/$1/oom_score_adj" ]; then
    echo 1000 >"/proc/$1/oom_score_adj"
  else
    echo 15 >"/proc/$1/oom_adj"
  fi
}

# eventually COMMAND...: until it holds, two minutes at most.
eventually() {
  local end
  end=$(($(uptime_s) + 120))
  until "$@"; do
    [ "$(uptime_s)" -lt $end ] || fail "does not come true: $*"
    usleep 100000
  done
}

# disk N: the block device of the host's disk N, whatever the kernel named it.
disk() {
  local dir
  for dir in /sys/block/vd*; do
    if [ "$(cat "$dir/serial" 2>/dev/null)" = "disk$1" ]; then
      echo "/dev/${dir##*/}"
      return
    fi
  done
  # A kernel that doesn't tell the serial number has named them in order.
  set -- "/dev/vd$(echo abcdefghijklmnop | cut -c $(($1 + 1)))" "$1"
  if [ ! -b "$1" ] || [ -e "/sys/block/${1#/dev/}/serial" ]; then fail "there is no disk $2"; fi
  echo "$1"
}
