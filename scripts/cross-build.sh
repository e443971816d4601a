#!/usr/bin/env bash
# Cross-builds the worker for 32-bit ARM hard-float (armhf) into build-armhf/,
# strips a copy (build-armhf/halvarine.stripped) and reports both sizes
# against the board's budget. Installs the cross compiler, the armhf
# libraries (Debian multiarch) and qemu-user when they are missing.
#
#   scripts/cross-build.sh            the worker only
#   scripts/cross-build.sh --tests    also the unit and end-to-end test
#                                     programs (armhf; run through qemu-arm)
#
# Environment: BUILD_TYPE (default MinSizeRel), SIZE_LIMIT in bytes for the
# stripped worker (default 49152; 0 turns the check off).
set -euo pipefail
cd "$(dirname "$0")/.."

TESTS=OFF
for arg in "$@"; do
  case "$arg" in
    --tests) TESTS=ON ;;
    *) echo "usage: $0 [--tests]" >&2; exit 2 ;;
  esac
done
BUILD_TYPE=${BUILD_TYPE:-MinSizeRel}
SIZE_LIMIT=${SIZE_LIMIT:-49152}
TRIPLE=arm-linux-gnueabihf

# libstdc++6:armhf: qemu-arm runs target programs against the multiarch libc
# that libmms0:armhf brings, and needs the C++ runtime beside it.
PACKAGES=(cmake make "g++-$TRIPLE" libmms-dev:armhf libstdc++6:armhf
          libboost-dev qemu-user)
[ "$TESTS" = ON ] && PACKAGES+=(libgtest-dev:armhf)

# The target's libraries come from Debian's own armhf archive.
. scripts/lib/packages.sh
ensure_architecture armhf
ensure_packages "${PACKAGES[@]}"

WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
cmake -S . -B build-armhf \
  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
  -DCMAKE_BUILD_TYPE="$BUILD_TYPE" \
  -DHALVARINE_TESTS="$TESTS" \
  -DHALVARINE_WERROR="$WERROR" --no-warn-unused-cli >/dev/null
# TARGETS (space-separated) builds those alone, the worker always among them.
cmake --build build-armhf -j"$(nproc)" --target halvarine ${TARGETS:-all}

$TRIPLE-strip -o build-armhf/halvarine.stripped build-armhf/halvarine
full=$(stat -c %s build-armhf/halvarine)
stripped=$(stat -c %s build-armhf/halvarine.stripped)
echo "armhf worker ($BUILD_TYPE): $full bytes, stripped $stripped bytes ($((stripped / 1024)) KiB)"
$TRIPLE-readelf -d build-armhf/halvarine.stripped | sed -n 's/.*(NEEDED).*\[\(.*\)\]/  needs \1/p'
if [ "$SIZE_LIMIT" -gt 0 ] && [ "$stripped" -gt "$SIZE_LIMIT" ]; then
  echo "cross-build: stripped worker is over the $SIZE_LIMIT-byte budget" >&2
  exit 1
fi
