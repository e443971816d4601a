#!/usr/bin/env bash
# Installs what the build and the tests need (Debian), then configures and
# builds into build/. Safe to run again; later runs only rebuild.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
. scripts/lib/build.sh
ensure_packages "${TEST_PACKAGES[@]}"
build_tree build -DHALVARINE_TESTS=ON
