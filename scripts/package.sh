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
. scripts/lib/packages.sh
ensure_packages "${PACKAGES[@]}"

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
