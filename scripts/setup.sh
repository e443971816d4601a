#!/usr/bin/env bash
# Installs what the build and the tests need (Debian), then configures and
# builds into build/. Safe to run again; later runs only rebuild.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
ensure_packages "${TEST_PACKAGES[@]}"

WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVARINE_TESTS=ON -DHALVARINE_WERROR="$WERROR" >/dev/null
cmake --build build -j"$(nproc)"
