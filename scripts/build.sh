#!/usr/bin/env bash
# Configures and builds Velix into build/ (or the directory given as $1 with extra CMake flags).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
shift || true
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
