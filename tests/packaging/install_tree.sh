#!/usr/bin/env bash
# Installs a build tree with cmake --install into a scratch prefix and checks
# what was installed:
#
#   install_tree.sh <build dir> <source dir>
#
# The installed programs carry no run path back into the build tree and
# load libmms from the system; the installed worker, started with no
# controller listening, reports the failed connection and exits 1. In a
# native tree the whole installation is then used as people use it
# (installed.sh) against the test server. HALVARINE_WORKER_LAUNCHER, when
# set, is a command prefix that runs target programs (qemu-arm for a cross
# build), and only the worker is run. CMAKE names the configuring CMake;
# SERVER and REFERENCE_CLIENT the test MMS server and libmms-fetch.
# Exit 77 means skipped.
set -euo pipefail

BUILD=$(cd "$1" && pwd)
SOURCE=$(cd "$2" && pwd)
SOCKET=/tmp/zalProcess_Halvarine
LAUNCHER=${HALVARINE_WORKER_LAUNCHER:-}
CMAKE=${CMAKE:-cmake}

OUT=$(mktemp -d)
SERVER=${SERVER:-}
# shellcheck source=../../scripts/lib/server.sh
. "$SOURCE/scripts/lib/server.sh"
trap 'stop_servers; rm -rf "$OUT"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

if [ -e "$SOCKET" ]; then
  echo "skipped: $SOCKET exists, another controller owns the path" >&2
  exit 77
fi

PREFIX=$OUT/prefix
"$CMAKE" --install "$BUILD" --prefix "$PREFIX" >/dev/null
WORKER=$PREFIX/libexec/halvarine/halvarine
for program in "$WORKER" "$PREFIX/bin/halvarine-fetch"; do
  dyn=$(readelf -d "$program") || fail "readelf cannot read $program"
  ! grep -qE '\((RPATH|RUNPATH)\)' <<<"$dyn" || fail "$program keeps a run path"
done
grep -q 'libmms\.so\.0' <<<"$(readelf -d "$WORKER")" || fail "the worker does not load libmms.so.0"

status=0
# shellcheck disable=SC2086  # the launcher is a command prefix
err=$(timeout 30 $LAUNCHER "$WORKER" 2>&1 >/dev/null) || status=$?
[ "$status" -eq 1 ] || fail "the installed worker exited $status, expected 1 (stderr: $err)"
[ "$err" = "[Halvarine] connect fail! errno=2" ] || fail "unexpected stderr: '$err'"

if [ -n "$LAUNCHER" ]; then
  echo "ok: installed (target programs not run beyond the worker)"
  exit 0
fi
start_server mmsh
"$REFERENCE_CLIENT" "$URL" "$OUT/reference.asf" >/dev/null
mkdir "$OUT/work"
bash "$SOURCE/tests/packaging/installed.sh" "$PREFIX" "$URL" "$OUT/reference.asf" \
  "$SOURCE/examples" "$OUT/work"
