#!/bin/sh
# os/linux/check.sh: refuses, with a reason, a kernel that the module can't be built for
# SPDX-License-Identifier: GPL-2.0-only
# check.sh KDIR RELEASE LINE SUPPORTED_LINES
set -eu
kdir=$1 release=$2 line=$3 lines=$4

refuse() {
  printf 'trak: %s\n' "$*" >&2
  exit 1
}

[ -d "$kdir" ] || refuse "there is no kernel tree in $kdir; give one with KDIR=/lib/modules/RELEASE/build"
[ -n "$release" ] || refuse "$kdir is not a configured kernel tree (it has no utsrelease.h)"
case " $lines " in
*" $line "*) ;;
*) refuse "kernel $release is not supported; supported lines: $lines" ;;
esac
grep -qs '^CONFIG_X86_64=y' "$kdir/include/config/auto.conf" ||
  refuse "kernel $release is not for x86-64, the one processor that the module is built for"
for option in MODULES BLOCK PROC_FS; do
  grep -qs "^CONFIG_$option=y" "$kdir/include/config/auto.conf" ||
    refuse "kernel $release was configured without CONFIG_$option, which the module needs"
done
