#!/usr/bin/env bash
# Sets up the machine, builds Velix and starts it. Without a display it runs headless.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build" -DVELIX_TESTS=OFF -DVELIX_BENCH=OFF
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  export VELIX_BACKGROUND=1 QT_QPA_PLATFORM=offscreen
  echo "No display here: starting Velix headless."
fi
exec "$root/build/stage/bin/velix" "$@"
