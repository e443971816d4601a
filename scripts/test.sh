#!/usr/bin/env bash
# Sets up, builds and runs the test suite. Tests that start the worker give
# each worker a private controller socket and run side by side; where the
# system allows no private sockets they share the fixed path and run one at
# a time, which the line from build/tests/serial-reason.txt says.
# Arguments go to ctest; without any, everything runs but the 10,000-cycle
# soak (ctest -L soak, about 4 minutes) and the benchmark's smoke run
# (ctest -L bench), slow tests included.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cd build
if [ -f tests/serial-reason.txt ]; then cat tests/serial-reason.txt; fi
if (($# == 0)); then
  set -- -LE 'soak|bench'
fi
# Most tests sit out waits (the worker's 7- and 60-second ones, servers'
# pauses), so six run at once even on two cores.
ctest --output-on-failure -j6 --timeout 600 "$@"
