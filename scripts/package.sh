#!/usr/bin/env bash
# Builds the Debian packages of the worker into build-packages/: one for this
# machine's architecture (build tree build-packages/native) and one for armhf
# from the cross build (build-armhf/, through scripts/cross-build.sh), then
# shows each package's control fields and contents.
#
# Environment: BUILD_TYPE (default MinSizeRel) for both builds.
set -euo pipefail
cd "$(dirname "$0")/.."
export BUILD_TYPE=${BUILD_TYPE:-MinSizeRel}

# dpkg-dev: dpkg-shlibdeps works out the native package's dependencies.
PACKAGES=(cmake make g++ libmms-dev libboost-dev dpkg-dev)
missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq || echo "package: apt-get update reported errors; trying the install anyway" >&2
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

OUT=build-packages
mkdir -p "$OUT"
rm -f "$OUT"/halvarine_*.deb

cmake -S . -B "$OUT/native" -DCMAKE_BUILD_TYPE="$BUILD_TYPE" -DHALVARINE_TESTS=OFF >/dev/null
cmake --build "$OUT/native" -j"$(nproc)"
(cd "$OUT/native" && cpack -B "$PWD/.." >/dev/null)

bash scripts/cross-build.sh
(cd build-armhf && cpack -B "$PWD/../$OUT" >/dev/null)

rm -rf "$OUT/_CPack_Packages"
for deb in "$OUT"/halvarine_*.deb; do
  echo "==== $deb ($(stat -c %s "$deb") bytes)"
  dpkg-deb -I "$deb"
  dpkg-deb -c "$deb"
done
