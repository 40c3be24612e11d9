#!/bin/sh
# tests/vm/guest/init.sh: the first process of a guest: runs the suites of the command line, then ends
# SPDX-License-Identifier: GPL-2.0-only
# The kernel hands `suite=a,b` of its command line over as a variable.
/bin/busybox mkdir -p /bin
/bin/busybox --install -s /bin
export PATH=/bin HOME=/root
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev || mount -t tmpfs dev /dev
mdev -s 2>/dev/null
mkdir -p /dev/shm
mount -t tmpfs -o size=70% tmp /tmp
exec </dev/null >/dev/console 2>&1
# shellcheck source=tests/vm/guest/lib.sh
. /lib.sh
echo begin >&3
# What the kernel says from here on is judged; what it warned of while it started is its own.
echo "--- init"
tainted_before=$(cat /proc/sys/kernel/tainted)
echo 8 >/proc/sys/kernel/printk
echo 300 >/proc/sys/kernel/hung_task_timeout_secs
while read -r module; do
  insmod "/lib/modules/$module.ko" || echo "not ok boot.modules_load: $module" >&3
done </etc/modules
mdev -s 2>/dev/null

# Shortly before the host loses patience: what every task that waits is waiting for.
(
  sleep "${watch:-800}"
  echo w >/proc/sysrq-trigger
  echo l >/proc/sysrq-trigger
) 3>&- &

if [ "${suite:-}" = shell ]; then
  setsid cttyhack sh
else
  for one in $(echo "${suite:-}" | tr , ' '); do
    echo "--- suite $one"
    # shellcheck disable=SC1090  # made by the host
    . "/suites/$one.sh"
  done
  # The kernel keeps its own account of warnings, oopses, bad pages, lockups: 12 and 13 are modules
  # that are not its own, 16 is a distribution's auxiliary bit. /tmp/provoked has what a test provokes.
  tainted=$(cat /proc/sys/kernel/tainted)
  provoked=$(cat /tmp/provoked 2>/dev/null || echo 0)
  if [ $((tainted & ~(tainted_before | provoked | 1 << 12 | 1 << 13 | 1 << 16))) = 0 ]; then
    echo "ok ${suite:-none}.kernel_is_not_tainted" >&3
  else
    echo "not ok ${suite:-none}.kernel_is_not_tainted: $tainted" >&3
  fi
  [ -z "${stacks:-}" ] || echo t >/proc/sysrq-trigger
  echo end >&3
fi
sync
umount -a -r 2>/dev/null
# Without ACPI a machine can't be switched off; the host takes a restart for the end.
reboot -f
