# tests/vm/guest/aged.sh: ages the file systems that the host made, for its oracles to look at
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# etc/aged: one line per disk: NUMBER KIND NAME FILES BYTES OPTIONS.

age_disk() {
  mkdir -p "/mnt/$3"
  mount -t "$2" ${6:+-o "$6"} "$(disk "$1")" "/mnt/$3"
  vm_tool age "/mnt/$3" "$1" "$4" "$5"
  sync
  df -k "/mnt/$3"
  umount "/mnt/$3"
}

while read -r number kind name files bytes options; do
  try "aged.$name.is_aged_through_a_mount" \
    age_disk "$number" "$kind" "$name" "$files" "$bytes" "$options"
done </etc/aged
