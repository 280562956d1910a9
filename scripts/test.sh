#!/usr/bin/env bash
# Sets up the machine, builds Velix with its tests and runs every test inside a network
# namespace that has only loopback.
#   --sanitize (or --sanitize=address)  AddressSanitizer+UBSan build in build-asan/
#   --sanitize=thread                   ThreadSanitizer build in build-tsan/
# Arguments after the switch go to ctest, e.g. -R 'Bridge|Engine|Player' for a part of the suite.
# Without a sanitizer, the parsers' fuzz targets then run in a clang tree of their own
# (build-fuzz), each over its corpus and a fixed number of new inputs; tests/fuzz/README.md has
# the longer run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build"
fuzz="$root/build-fuzz"
extra=()
runner=()
case "${1:-}" in
  --sanitize|--sanitize=address)
    shift
    build="$root/build-asan"
    fuzz=""
    extra=(-DVELIX_SANITIZE=ON -DVELIX_BENCH=OFF)
    export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    ;;
  --sanitize=thread)
    shift
    build="$root/build-tsan"
    fuzz=""
    extra=(-DVELIX_TSAN=ON -DVELIX_BENCH=OFF)
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 history_size=4"
    # The sanitizer's shadow memory needs the fixed layout that randomised mappings break on
    # kernels with many random bits.
    runner=(setarch "$(uname -m)" -R)
    ;;
  --sanitize=*)
    echo "unknown sanitizer: $1 (address or thread)" >&2
    exit 2
    ;;
esac
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
"$root/scripts/loopback-only" "${runner[@]}" ctest --test-dir "$build" --output-on-failure -j 2 --timeout 900 "$@" || status=$?
if [ -n "$fuzz" ]; then
  ctest --test-dir "$fuzz" --output-on-failure -j 2 --timeout 900 || status=$?
fi
exit $status
