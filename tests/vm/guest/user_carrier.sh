# tests/vm/guest/user_carrier.sh: trakd in place of the module
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# Read by trak.sh last. A node is a file of trakd's tree, and mounted by way of a loop device, whose
# program lies in a file of its own: the shell's own losetup can't do it.
export TRAK_ROOT=/mnt/root

load() {
  mkdir -p $TRAK_ROOT
  trakd --log-file /tmp/trakd.log $TRAK_ROOT
}

unload() {
  killall trakd
  eventually no_process trakd
  tail -n 1 /tmp/trakd.log | grep 'ended in order'
}

add_filter() {
  mkdir -p /mnt/maps/bmp
  trakctl add-filter --disk "$(disk "${2:-0}")" --extent-size "$1" --bmp-dir /mnt/maps/bmp --minor 0
  trakctl start 0
}

mount_on() {
  local ro=
  mkdir -p "$2"
  case ${4:-} in ro*) ro=--read-only ;; esac
  mount -t "$3" ${4:+-o "$4"} \
    "$(/bin/losetup --find --show --direct-io=on $ro "$TRAK_ROOT/dev/trak/trak$1")" "$2"
}

unmount() {
  local device
  device=$(sed -n "s|^\(/dev/[^ ]*\) $1 .*|\1|p" /proc/mounts)
  umount "$1"
  /bin/losetup -d "$device"
}

all_down() {
  local minor
  set -e
  touch /tmp/stop
  if pidof vm_tool >/dev/null; then killall vm_tool; fi
  eventually no_process vm_tool
  sed -n 's|^/dev/loop[^ ]* \([^ ]*\) .*|\1|p' /proc/mounts | while read -r point; do
    unmount "$point"
  done
  if pidof trakd >/dev/null; then
    for minor in 4 3 2 1 0; do
      if [ -e "$TRAK_ROOT/proc/trak/trak$minor" ]; then eventually trakctl delete "$minor"; fi
    done
    unload
  fi
  if grep -q ' /mnt/maps ' /proc/mounts; then umount /mnt/maps; fi
}
