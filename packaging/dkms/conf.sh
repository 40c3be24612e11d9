#!/bin/sh
# packaging/dkms/conf.sh: writes dkms.conf: the kernel lines are the folders of os/linux/compat
# SPDX-License-Identifier: GPL-2.0-only
set -eu
here=$(dirname "$(readlink -f "$0")")
lines=''
for folder in "$here"/../../os/linux/compat/*/; do
  lines="$lines${lines:+|}$(basename "$folder" | sed 's/\./\\\\./g')"
done
sed "s/@LINES@/$lines/" "$here/dkms.conf.in"
