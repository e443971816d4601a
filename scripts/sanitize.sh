#!/usr/bin/env bash
# Builds the tree with AddressSanitizer and UndefinedBehaviorSanitizer into
# build-asan/ and runs the test suite there; the end-to-end tests then drive
# a sanitized worker too. Arguments go to ctest (for example -L unit).
# Installs what the tests need, as scripts/setup.sh does.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
. scripts/lib/build.sh
ensure_packages "${TEST_PACKAGES[@]}"
build_tree build-asan -DHALVARINE_SANITIZE=ON

# Any report fails the test that caused it (leaks at exit included); an
# undefined-behaviour report comes with its whole stack.
export ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}"
# Tells the tests that the worker carries a sanitizer runtime.
export HALVARINE_SANITIZED=1
export UBSAN_OPTIONS="print_stacktrace=1:${UBSAN_OPTIONS:-}"
cd build-asan
ctest --output-on-failure -j2 --timeout 600 "$@"
