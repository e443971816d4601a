#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz/ and runs each for
# SECONDS (default 60). Prints each target's execution count; exits non-zero
# when a target found something (the input is saved in build-fuzz/findings/).
#
#   scripts/fuzz.sh [SECONDS]
#
# The committed seeds in fuzz/corpus/<target>/ (and fuzz/corpus/requests/,
# shared by the targets that take whole frames) are read, never written; the
# inputs a run discovers collect in build-fuzz/corpus/<target>/ and seed the
# next run.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_EACH="${1:-60}"
TARGETS=(fuzz_parse_packet fuzz_extract_packet fuzz_request_path)
PACKAGES=(cmake make clang libclang-rt-14-dev libmms-dev libboost-dev)

. scripts/lib/packages.sh
ensure_packages "${PACKAGES[@]}"

WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DHALVARINE_FUZZ=ON -DHALVARINE_TESTS=OFF -DHALVARINE_WERROR="$WERROR" >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target "${TARGETS[@]}"

# Longer inputs for the frame cutter, so that runs of garbage pass the limit
# at which the receive buffer drops them.
declare -A MAX_LEN=([fuzz_extract_packet]=12000)
# Seeds shared between targets (fuzz/CMakeLists.txt lists the same).
declare -A SHARED_SEEDS=([fuzz_parse_packet]=fuzz/corpus/requests [fuzz_request_path]=fuzz/corpus/requests)

mkdir -p build-fuzz/findings
failed=0
for t in "${TARGETS[@]}"; do
  mkdir -p "build-fuzz/corpus/$t"
  log="build-fuzz/$t.log"
  opts=(-max_total_time="$SECONDS_EACH" -print_final_stats=1
        -artifact_prefix="build-fuzz/findings/$t-")
  [ -n "${MAX_LEN[$t]:-}" ] && opts+=(-max_len="${MAX_LEN[$t]}")
  rc=0
  "build-fuzz/fuzz/$t" "${opts[@]}" "build-fuzz/corpus/$t" "fuzz/corpus/$t" \
    ${SHARED_SEEDS[$t]:-} >"$log" 2>&1 || rc=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if [ "$rc" -eq 0 ]; then
    echo "$t: ${runs:-?} executions, no finding"
  else
    failed=1
    echo "$t: FINDING after ${runs:-?} executions (exit $rc); log: $log"
    grep -E 'ERROR|property failed|SUMMARY|Test unit written' "$log" | head -n 10 || true
  fi
done
exit "$failed"
