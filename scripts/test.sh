#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite. Tests that start the worker
# share its fixed controller socket path and are marked to run one at a time.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cd build
ctest --output-on-failure -j2 --timeout 600 "$@"
