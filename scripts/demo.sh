#!/usr/bin/env bash
# The main job, end to end on this machine: installs only what its four
# programs need (the worker, halvarine-fetch, the test MMS server and the
# libmms reference client), builds just those, serves the bundled sample
# with the test MMS server on loopback, fetches it through the worker over
# MMS over TCP and over MMS over HTTP, and checks that the bytes are the
# ones libmms's own client gets. ffprobe, when installed, shows what the
# file holds.
#
#   bash scripts/demo.sh [DIR]     the fetched files go to DIR (default: a new
#                                  directory under /tmp)
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
ensure_packages cmake make g++ libmms-dev libboost-dev

BUILD=build
# A tree the tests configured already is reused as it is; a new one is
# configured without the test framework, which the demo does not need.
if [ ! -f "$BUILD/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVARINE_TESTS=OFF >/dev/null
fi
cmake --build "$BUILD" -j"$(nproc)" --target halvarine halvarine-fetch halvarine-mms-server libmms-fetch >/dev/null

SERVER=$BUILD/tools/mmsserver/halvarine-mms-server
FETCH=$BUILD/halvarine-fetch
REFERENCE=$BUILD/tools/libmms-fetch/libmms-fetch
OUT=${1:-$(mktemp -d "${TMPDIR:-/tmp}/halvarine-demo-XXXXXX")}
mkdir -p "$OUT"

# The servers are ours to stop, whichever way the script ends.
# shellcheck source=lib/server.sh
. scripts/lib/server.sh
trap stop_servers EXIT
trap 'exit 130' INT TERM

now() { date +%s.%N; }

for transport in mmst mmsh; do
  start_server "$transport"
  file="$OUT/sample-$transport.asf"
  echo
  echo "== $transport: $URL"
  start=$(now)
  "$FETCH" "$URL" -o "$file"
  end=$(now)
  "$REFERENCE" "$URL" "$OUT/reference-$transport.asf" >/dev/null
  if cmp -s "$file" "$OUT/reference-$transport.asf"; then
    echo "same bytes as libmms-fetch: $(stat -c %s "$file") bytes"
  else
    echo "demo: $file differs from what libmms-fetch got:" >&2
    cmp "$file" "$OUT/reference-$transport.asf" >&2 || true
    exit 1
  fi
  rm -f "$OUT/reference-$transport.asf"
  if command -v ffprobe >/dev/null; then
    echo "ffprobe:"
    ffprobe -v error -show_entries format=format_name,duration:stream=codec_type,codec_name \
      -of compact=p=0 "$file" | sed 's/^/  /'
  fi
  awk -v b="$(stat -c %s "$file")" -v s="$start" -v e="$end" -v f="$file" 'BEGIN {
    t = e - s; rate = (t > 0) ? b / 1024 / t : 0
    printf "saved %s: %d bytes in %.2f s (%.1f KiB/s, worker start and end included)\n", f, b, t, rate }'
done
echo
echo "done: the files are in $OUT"
