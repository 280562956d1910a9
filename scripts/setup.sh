#!/usr/bin/env bash
# Installs every Debian package that building, testing and running Velix needs.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build ccache pkg-config git
  # the parsers' fuzz targets: clang with libFuzzer, AddressSanitizer and UBSan
  clang-14 libfuzzer-14-dev
  # swarm and player
  libtorrent-rasterbar-dev libmpv-dev
  # desktop toolkit
  qt6-base-dev qt6-declarative-dev qt6-tools-dev-tools
  qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-dialogs
  qml6-module-qtquick-window qml6-module-qtquick-layouts qml6-module-qtqml-workerscript
  qml6-module-qtquick-templates qml6-module-qt-labs-folderlistmodel qml6-module-qttest
  qcoro-qt6-dev qtkeychain-qt6-dev
  # the interface's symbols: an icon theme to fall back on and the SVG icon engine that draws it
  adwaita-icon-theme libqt6svg6
  # Qt's own texts (file chooser, standard buttons) in Russian
  qt6-translations-l10n
  # media, text, compression, crypto
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libicu-dev zlib1g-dev libssl-dev
  # tests: unit framework, a display, software OpenGL, media generation, a second torrent client
  libgtest-dev libgmock-dev xvfb xauth libgl1-mesa-dri ffmpeg python3-libtorrent iproute2 util-linux
  # tests: a private session bus and a media-key client for the desktop media controls
  dbus-daemon playerctl
)

# The agent-protocol bridge is tested with a real client from the npm registry.
command -v node >/dev/null 2>&1 || packages+=(nodejs npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

SUDO=""
[ "$(id -u)" = 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${packages[@]}"
echo "setup: installed ${#missing[@]} packages"
