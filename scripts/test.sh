#!/usr/bin/env bash
# Sets up, builds and runs the test suite. Tests that start the worker share
# its fixed controller socket path: as root each runs in namespaces of its own
# and they run side by side (tests/isolated.sh); otherwise one at a time.
# Arguments go to ctest; without any, everything runs but the 10,000-cycle
# soak (ctest -L soak, about 4 minutes) and the benchmark's smoke run
# (ctest -L bench), slow tests included.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cd build
if (($# == 0)); then
  set -- -LE 'soak|bench'
fi
ctest --output-on-failure -j3 --timeout 600 "$@"
