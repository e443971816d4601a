#!/usr/bin/env bash
# Installs the worker the two ways it ships and runs the installed copy:
#
#   installed_worker.sh install <build dir>   cmake --install into a temp prefix
#   installed_worker.sh deb <build dir>       cpack, then dpkg -x into a scratch root
#
# With no controller listening, the installed worker must report the failed
# connection and exit 1; that proves the program was installed whole and
# finds its shared libraries (libmms) where the system keeps them.
# HALVARINE_WORKER_LAUNCHER, when set, is a command prefix that runs the
# worker (qemu-arm for a cross build). CMAKE and CPACK name the programs of
# the CMake that configured the tree. Exit 77 means skipped.
set -euo pipefail

MODE=$1
BUILD=$(cd "$2" && pwd)
SOCKET=/tmp/zalProcess_Halvarine
LAUNCHER=${HALVARINE_WORKER_LAUNCHER:-}
CMAKE=${CMAKE:-cmake}
CPACK=${CPACK:-cpack}

SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

# Runs an installed worker where nothing listens on the controller socket.
expect_connect_failure() {
  local worker=$1 err status=0
  [ -x "$worker" ] || fail "$worker is missing or not executable"
  if [ -e "$SOCKET" ]; then
    echo "skipped: $SOCKET exists, another controller owns the path" >&2
    exit 77
  fi
  # shellcheck disable=SC2086  # the launcher is a command prefix
  err=$(timeout 30 $LAUNCHER "$worker" 2>&1 >/dev/null) || status=$?
  [ "$status" -eq 1 ] || fail "installed worker exited $status, expected 1 (stderr: $err)"
  [ "$err" = "[Halvarine] connect fail! errno=2" ] || fail "unexpected stderr: '$err'"
}

# The installed program carries no run path back into the build tree and
# loads libmms from the system at run time.
expect_no_build_rpath() {
  local dyn
  dyn=$(readelf -d "$1") || fail "readelf cannot read $1"
  ! grep -qE '\((RPATH|RUNPATH)\)' <<<"$dyn" || fail "$1 keeps a run path: $(grep -E 'R(UN)?PATH' <<<"$dyn")"
  grep -q 'libmms\.so\.0' <<<"$dyn" || fail "$1 does not load libmms.so.0 dynamically"
}

case "$MODE" in
  install)
    "$CMAKE" --install "$BUILD" --prefix "$SCRATCH/prefix" >/dev/null
    expect_no_build_rpath "$SCRATCH/prefix/bin/halvarine"
    expect_connect_failure "$SCRATCH/prefix/bin/halvarine"
    ;;
  deb)
    # dpkg-shlibdeps (dpkg-dev) works out a native package's dependencies.
    for tool in dpkg-deb dpkg-shlibdeps; do
      if ! command -v "$tool" >/dev/null; then
        echo "skipped: $tool is not installed" >&2
        exit 77
      fi
    done
    (cd "$SCRATCH" && "$CPACK" --config "$BUILD/CPackConfig.cmake" -B "$SCRATCH/out" >cpack.log 2>&1) ||
      fail "cpack failed: $(cat "$SCRATCH/cpack.log")"
    debs=("$SCRATCH"/out/halvarine_*.deb)
    if [ "${#debs[@]}" -ne 1 ] || [ ! -f "${debs[0]}" ]; then
      fail "expected one package, got: ${debs[*]}"
    fi
    deb=${debs[0]}

    depends=$(dpkg-deb -f "$deb" Depends)
    names=$(tr ',' '\n' <<<"$depends" | awk '{print $1}')
    for lib in libmms0 libstdc++6 libc6; do
      grep -qxF "$lib" <<<"$names" || fail "Depends lacks $lib: '$depends'"
    done
    [ -n "$(dpkg-deb -f "$deb" Maintainer)" ] || fail "package has no maintainer"

    # Only programs under /usr/bin; the test servers and test programs stay
    # out of the package even though this build tree has them.
    files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}')
    grep -qx './usr/bin/halvarine' <<<"$files" || fail "package lacks usr/bin/halvarine: $files"
    stray=$(grep -vE '^\./usr/bin/[^/]+$' <<<"$files" || true)
    [ -z "$stray" ] || fail "files outside usr/bin: $stray"
    leaked=$(grep -E 'mms-server|libmms-fetch|_test|_e2e|unit_tests' <<<"$files" || true)
    [ -z "$leaked" ] || fail "test programs in the package: $leaked"

    dpkg -x "$deb" "$SCRATCH/root"
    expect_no_build_rpath "$SCRATCH/root/usr/bin/halvarine"
    expect_connect_failure "$SCRATCH/root/usr/bin/halvarine"
    ;;
  *)
    fail "usage: $0 install|deb <build dir>"
    ;;
esac
echo "ok: $MODE"
