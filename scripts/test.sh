#!/usr/bin/env bash
# Sets up the machine, builds Velix with its tests and runs every test inside a network
# namespace that has only loopback. Pass --sanitize for an AddressSanitizer+UBSan build, or
# --sanitize=thread for a ThreadSanitizer build. Then, in a clang tree of their own
# (build-fuzz), the parsers' fuzz targets each run over their corpus and a fixed number of new
# inputs; tests/fuzz/README.md has the longer run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build"
fuzz="$root/build-fuzz"
extra=()
if [ "${1:-}" = "--sanitize" ]; then
  build="$root/build-asan"
  extra=(-DVELIX_SANITIZE=ON -DVELIX_BENCH=OFF)
  fuzz=""
  export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
elif [ "${1:-}" = "--sanitize=thread" ]; then
  build="$root/build-tsan"
  extra=(-DVELIX_TSAN=ON -DVELIX_BENCH=OFF)
  fuzz=""
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
fi
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$build" -DVELIX_TESTS=ON "${extra[@]}"
if [ -n "$fuzz" ]; then
  CC=clang-14 CXX=clang++-14 bash "$root/scripts/build.sh" "$fuzz" -DVELIX_FUZZ=ON -DVELIX_TESTS=OFF -DVELIX_BENCH=OFF
fi
# The client for the agent-protocol test comes from the npm registry, outside the namespace.
if [ -f "$build/tests/mcp-client/package-lock.json" ]; then
  npm ci --prefix "$build/tests/mcp-client" --no-audit --no-fund --loglevel=error
fi
export QT_QPA_PLATFORM=offscreen VELIX_SILENT=1
status=0
"$root/scripts/loopback-only" ctest --test-dir "$build" --output-on-failure -j 2 --timeout 900 || status=$?
if [ -n "$fuzz" ]; then
  ctest --test-dir "$fuzz" --output-on-failure -j 2 --timeout 900 || status=$?
fi
exit $status
