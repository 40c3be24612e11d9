# tests/vm/guest/contract.sh: the contracts of the seam, held by this kernel
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# The tests run inside the module's load; each result is a line of the kernel's log.

runs_to_its_end() {
  insmod /lib/modules/trak_contract.ko
  dmesg | grep 'trak_contract: end: '
}

unloads() {
  rmmod trak_contract
  refuse grep trak_contract /proc/modules
  refuse ls /proc/trak_contract
}

try contract.suite_runs_to_its_end runs_to_its_end
dmesg | sed -nE 's/^.*trak_contract: ((not )?ok .*)$/\1/p' >&3
try contract.suite_unloads unloads
