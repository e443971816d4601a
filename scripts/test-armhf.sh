#!/usr/bin/env bash
# Tests the armhf build on this machine through user-mode qemu:
#
#   1. cross-builds the worker and the unit test programs into build-armhf/
#      and runs them there under qemu-arm (the armhf packages are built and
#      checked by scripts/package.sh);
#   2. builds the native tree (build/, scripts/setup.sh) and runs its
#      end-to-end tests against the armhf worker: the native controller
#      library starts the worker through HALVARINE_WORKER_LAUNCHER.
#
# Arguments are passed to the end-to-end ctest run (e.g. -LE slow).
set -euo pipefail
cd "$(dirname "$0")/.."

TARGETS=unit_checks bash scripts/cross-build.sh --tests
# The controller library's own unit tests are left to the native run: under
# qemu-user a failed exec in posix_spawn's child cannot be told apart from a
# started program, which those tests check.
ctest --test-dir build-armhf -L unit -E '^controller_parts$' --output-on-failure -j2 --timeout 300

bash scripts/setup.sh

# Plain qemu-arm, not -L /usr/arm-linux-gnueabihf: see cmake/toolchain-armhf.cmake.
export HALVARINE_WORKER="$PWD/build-armhf/halvarine"
export HALVARINE_WORKER_LAUNCHER="${HALVARINE_WORKER_LAUNCHER:-qemu-arm}"
echo "end-to-end tests against $HALVARINE_WORKER via '$HALVARINE_WORKER_LAUNCHER'"
# controller_library tests the client library with stand-in workers
# (/bin/true and the like), which the ARM launcher cannot run.
ctest --test-dir build -L e2e -E '^controller_library$' --output-on-failure --timeout 600 "$@"
