#!/usr/bin/env bash
# packaging/build.sh: builds the Debian packages into build/packages, and asks lintian about them
# SPDX-License-Identifier: GPL-2.0-only
# build.sh [--test | --reproduce]: ./run package. The sources are copied first: nothing is made in the tree.
# The same tree gives the same packages, to the byte. --test: they are tried in a clean root too, and that is
# booted. --reproduce: they are built twice more, elsewhere, and compared (reproduce.py).
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
version=$(sed -nE 's/^project\(trak VERSION ([0-9.]+) .*/\1/p' CMakeLists.txt)
log=build/logs/package.log out=build/packages source=build/packages/trak-$version

die() {
  printf 'packaging: %s\n' "$*" >&2
  exit 1
}

case ${1:-} in
'' | --test) ;;
--reproduce) exec timeout -k 60 7200 python3 packaging/reproduce.py ;;
*) die "package takes --test, --reproduce or nothing" ;;
esac
umask 022
[ -n "$version" ] || die "CMakeLists.txt names no version"
changed=$(dpkg-parsechangelog -l packaging/debian/changelog -S Version)
[ "$changed" = "$version" ] || die "packaging/debian/changelog is of $changed, CMakeLists.txt of $version"

rm -rf "$out"
mkdir -p "$source" "$(dirname "$log")"
# What git knows and what is new; in an unpacked archive all but what was built.
if git rev-parse --git-dir >/dev/null 2>&1; then
  git ls-files -co --exclude-standard -z | while IFS= read -r -d '' file; do
    [ ! -e "$file" ] || printf '%s\0' "$file"
  done
else
  find . -path ./build -prune -o -type f -print0
fi | tar -c --null -T - | tar -x -C "$source"
cp -R "$source/packaging/debian" "$source/debian"
export SOURCE_DATE_EPOCH DEB_BUILD_OPTIONS="parallel=${TRAK_JOBS:-$(nproc)} noautodbgsym"
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l packaging/debian/changelog -S Timestamp)
# Modes and times are the same whoever made the tree, and when.
chmod -R u=rwX,go=rX "$source"
find "$source" -exec touch -h -d "@$SOURCE_DATE_EPOCH" '{}' +
# No package takes debug information, which would only decide about the build ids.
export DEB_CFLAGS_STRIP=-g DEB_CXXFLAGS_STRIP=-g
# The compilers' cache of the tree's other builds (debhelper has a home folder of its own).
CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir 2>/dev/null || true)}
export CCACHE_DIR CCACHE_NOHASHDIR=1
if ! (cd "$source" && CCACHE_BASEDIR=$PWD timeout -k 10 2400 dpkg-buildpackage -us -uc -F) \
  >"$log" 2>&1 </dev/null; then
  grep -A 10 -m 4 -E '(error:|Error|FAILED)' "$log" || tail -n 40 "$log"
  die "the packages can't be built; the whole log is in $log"
fi
rm -rf "$source"

echo "--- lintian"
lintian --fail-on error,warning,info --display-info --pedantic --tag-display-limit 0 "$out"/*.changes
echo "--- packages"
(cd "$out" && ls -l -- *.deb && sha256sum -- *.deb)
[ "${1:-}" != --test ] || exec timeout -k 60 10800 python3 packaging/clean_root.py
