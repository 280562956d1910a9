#!/usr/bin/env bash
# Runs the fuzz targets for longer than the test suite does: each for SECONDS (default 600),
# JOBS of them at a time (default 1), under nice. Needs the clang tree made by
# scripts/test.sh (or: CC=clang-14 CXX=clang++-14 scripts/build.sh build-fuzz -DVELIX_FUZZ=ON).
#
#   tests/fuzz/long-run.sh [--seconds N] [--jobs N] [TARGET...]
#
# New inputs collect in build-fuzz/fuzz/long/<target>/, a failing one is written beside it as
# <target>-crash-*, and each target's log ends in libFuzzer's statistics; a summary line per
# target says how many inputs ran and whether it failed.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${VELIX_FUZZ_BUILD:-$root/build-fuzz}"
seconds=600
jobs=1
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="$2"; shift 2 ;;
    --jobs) jobs="$2"; shift 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
if [ ${#targets[@]} -eq 0 ]; then
  for binary in "$build"/fuzz/velix_fuzz_*; do
    targets+=("${binary##*/velix_fuzz_}")
  done
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run() {
  local target="$1" data="$root/tests/fuzz/$1" work="$build/fuzz/long/$1"
  mkdir -p "$work"
  local dict=()
  [ -f "$data/$target.dict" ] && dict=(-dict="$data/$target.dict")
  local status=0
  nice "$build/fuzz/velix_fuzz_$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="$build/fuzz/long/$target-" "${dict[@]}" \
    "$work" "$data/corpus" >"$build/fuzz/long/$target.log" 2>&1 || status=$?
  local runs
  runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$build/fuzz/long/$target.log" | grep -o '[0-9]*$' || echo '?')
  echo "$target: $runs inputs in ${seconds} s, $([ $status = 0 ] && echo 'no failure' || echo "FAILED (see $build/fuzz/long/$target.log)")"
  return $status
}

status=0
for target in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
    wait -n || status=1
  done
  run "$target" &
done
while [ "$(jobs -rp | wc -l)" -gt 0 ]; do
  wait -n || status=1
done
exit $status
