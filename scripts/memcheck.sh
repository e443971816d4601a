#!/usr/bin/env bash
# Fetches the bundled sample through the worker over MMS over TCP and over
# HTTP with the worker running under valgrind's memcheck, and fails unless
# memcheck reports no error and no definitely lost block.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh >/dev/null
. scripts/lib/packages.sh
ensure_packages valgrind

BUILD=build
SERVER=$BUILD/tools/mmsserver/halvarine-mms-server
FETCH=$BUILD/halvarine-fetch
# Not under /tmp: the worker, and valgrind writing its log, see a private
# /tmp of their own (the controller socket's directory).
OUT=$(mktemp -d "$PWD/$BUILD/memcheck-XXXXXX")

. scripts/lib/server.sh
trap 'stop_servers; rm -rf "$OUT"' EXIT

status=0
for transport in mmst mmsh; do
  start_server "$transport"
  log="$OUT/memcheck-$transport.log"
  # The worker runs through the controller's launcher: valgrind, then it.
  HALVARINE_WORKER_LAUNCHER="valgrind --tool=memcheck --leak-check=full --error-exitcode=99 --log-file=$log" \
    "$FETCH" -q --reply-timeout 120 "$URL" -o "$OUT/sample-$transport.asf"
  errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "$log" | tail -n 1)
  definite=$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' "$log" | tail -n 1)
  echo "memcheck $transport: ${errors:-?} errors, ${definite:-0} bytes definitely lost," \
       "$(stat -c %s "$OUT/sample-$transport.asf") bytes fetched"
  if [ "${errors:-1}" != 0 ] || [ "${definite:-0}" != 0 ]; then
    cat "$log" >&2
    status=1
  fi
  stop_servers
done
exit $status
