#!/bin/sh
# os/linux/links.sh: lays out the build folder of the module: a link for each source
# SPDX-License-Identifier: GPL-2.0-only
# links.sh TOP OUT
set -eu
top=$1 out=$2

# place FILE: a link at the same path below the build folder.
place() {
  mkdir -p "$out/$(dirname "$1")"
  [ "$(readlink "$out/$1" || true)" = "$top/$1" ] || ln -sfn "$top/$1" "$out/$1"
}

mkdir -p "$out/embed"
find "$out" -type l | while read -r link; do
  [ -e "$link" ] || rm -f "$link"
done
ln -sfn "$top/os/linux/Kbuild" "$out/Kbuild"
(cd "$top" && find driver os/linux tests/vm/contract tests/vm/inject -name '*.cpp' -o -name '*.c' \
  2>/dev/null) |
  while read -r file; do place "$file"; done
