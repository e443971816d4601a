#!/usr/bin/env bash
# Builds the tree with AddressSanitizer and UndefinedBehaviorSanitizer into
# build-asan/ and runs the test suite there; the end-to-end tests then drive
# a sanitized worker too. Arguments go to ctest (for example -L unit).
# Installs what the tests need, as scripts/setup.sh does.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
ensure_packages "${TEST_PACKAGES[@]}"

WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DHALVARINE_SANITIZE=ON -DHALVARINE_WERROR="$WERROR" >/dev/null
cmake --build build-asan -j"$(nproc)"

# Any report fails the test that caused it (leaks at exit included); an
# undefined-behaviour report comes with its whole stack.
export ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}"
# Tells the tests that the worker carries a sanitizer runtime.
export HALVARINE_SANITIZED=1
export UBSAN_OPTIONS="print_stacktrace=1:${UBSAN_OPTIONS:-}"
cd build-asan
ctest --output-on-failure -j2 --timeout 600 "$@"
