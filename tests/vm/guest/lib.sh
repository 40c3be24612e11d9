# tests/vm/guest/lib.sh: what every suite in the guest shares
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# Sourced by init.sh. File descriptor 3 is the line to the host (vm_report.py).
stty -F /dev/ttyS1 raw -echo 2>/dev/null
exec 3>/dev/ttyS1

# try SUITE.WHAT_HOLDS COMMAND...: one test: the command (mostly a function) in a shell of its own
# that ends at the first thing that fails. What it printed last is the reason.
try() {
  local name=$1 status
  shift
  echo "--- $name"
  (
    set -eu
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

# refuse COMMAND...: it must fail.
refuse() {
  if "$@"; then fail "was not refused: $*"; fi
}

# eventually COMMAND...: until it holds, two minutes at most.
eventually() {
  local n=0
  until "$@"; do
    n=$((n + 1))
    [ $n -lt 1200 ] || fail "does not come true: $*"
    usleep 100000
  done
}

# disk N: the block device of the host's disk N, whatever the kernel named it.
disk() {
  local dir
  for dir in /sys/block/vd*; do
    if [ "$(cat "$dir/serial")" = "disk$1" ]; then
      echo "/dev/${dir##*/}"
      return
    fi
  done
  fail "there is no disk $1"
}
