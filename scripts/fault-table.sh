#!/usr/bin/env bash
# The fault table (tools/mmsserver/faults.tsv) written out for its readers
# by halvarine-fault-table, built here first (in BUILD_DIR, default build):
#
#   fault-table.sh [doc]   rewrites tools/mmsserver/fault_table.inc (the C++
#                          the servers and the tests include, committed) and
#                          the fault tables of docs/RELIABILITY.md
#   fault-table.sh check   fails when either is behind the table
#
# Both check the rows first and name the first bad one.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
case "${1:-doc}" in
  doc) mode=write ;;
  check) mode=check ;;
  *)
    echo "usage: fault-table.sh [doc|check]" >&2
    exit 2
    ;;
esac
build=${BUILD_DIR:-$top/build}
[ -f "$build/CMakeCache.txt" ] || cmake -S "$top" -B "$build" >/dev/null
cmake --build "$build" --target halvarine-fault-table -j2 >/dev/null
exec "$build/tools/mmsserver/halvarine-fault-table" "$mode" "$top"
