#!/usr/bin/env bash
# tools/run_fuzz.sh: the verb fuzz of ./run, which reads this file and has its functions
# SPDX-License-Identifier: GPL-2.0-only
: "${root:?this file is read by ./run}"

verb_fuzz() {
  [ $# -gt 0 ] || die "fuzz what? TARGET [ARGS], sim [SECONDS], or backup [N]"
  local target=$1 arg bound=-max_total_time=60 corpus
  shift
  if [ "$target" = sim ]; then
    fuzz_sim "${1:-60}"
    return
  fi
  if [ "$target" = backup ]; then
    fuzz_backup "${1:-500}"
    return
  fi
  corpus=build/fuzz/corpus/$target
  for arg in "$@"; do
    case $arg in
    -runs=* | -max_total_time=*) bound= ;;
    -*) ;;
    *) corpus= ;; # inputs or folders of the caller's own
    esac
  done
  need build clang
  case $target in ext2 | reiserfs | xfs)
    need runtime
    bounded 120 "making images" tools/fuzz_images.sh build/fuzz/images
    export TRAK_FUZZ_IMAGES=build/fuzz/images
    ;;
  esac
  build fuzz "fuzz_$target"
  mkdir -p build/fuzz/found ${corpus:+"$corpus"}
  # shellcheck disable=SC2046
  "build/fuzz/bin/fuzz_$target" $(fuzz_flags "$target") \
    -artifact_prefix="build/fuzz/found/$target-" ${corpus:+$bound} "$@" ${corpus:+"$corpus"}
}

# fuzz_flags TARGET: beyond these lengths programs look at nothing, or at no more that is new; the runs of
# control differ a hundredfold in cost, and the cheap ones shall be most; its leaks are the simulated
# kernel's to find, not by running each input twice.
fuzz_flags() {
  case $1 in
  control) echo -max_len=96 -entropic=1 -entropic_scale_per_exec_time=1 -detect_leaks=0 ;;
  *) echo -max_len=136 -entropic=0 ;;
  esac
}

# fuzz_backup ROUNDS: see tests/system/backup_kill_test.py; TRAK_SEED decides which.
fuzz_backup() {
  case $1 in *[!0-9]*) die "backup takes a number of rounds" ;; esac
  need build runtime
  build dev trakd trakctl trak-backup
  TRAK_BIN_DIR=$root/build/bin TRAK_BACKUP_ROUNDS=$1 python3 tests/system/backup_kill_test.py
}

# fuzz_sim SECONDS: the scenario programs in turn, with twice as many seeds each round.
fuzz_sim() {
  case $1 in *[!0-9]*) die "sim takes a number of seconds" ;; esac
  need build
  build dev tests_all
  local until=$((SECONDS + $1)) seeds=2000 programs program
  programs=$(ctest --test-dir build/dev -N -L '^scenario$' |
    sed -n 's/^ *Test *#[0-9]*: \([^.]*\)\..*/\1/p' | sort -u)
  [ -n "$programs" ] || die "there is no scenario program"
  while [ "$1" = 0 ] || [ $SECONDS -lt $until ]; do
    for program in $programs; do
      say "$program with TRAK_SEEDS=$seeds"
      TRAK_SEEDS=$seeds "build/bin/$program" --gtest_brief=1 || die "$program failed"
    done
    seeds=$((seeds * 2))
  done
}
