#!/usr/bin/env bash
# Installs what the build and the tests need (Debian), then configures and
# builds into build/. Safe to run again; later runs only rebuild.
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(cmake make g++ libmms-dev libboost-dev libgtest-dev ffmpeg dpkg-dev
          tinyproxy vlc-bin vlc-plugin-base iproute2 nftables)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVARINE_WERROR="$WERROR" >/dev/null
cmake --build build -j"$(nproc)"
