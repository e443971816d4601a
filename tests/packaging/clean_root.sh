#!/usr/bin/env bash
# Installs the native Debian packages into a fresh minimal Debian root and
# uses them there as their users would (installed.sh): halvarine-fetch
# fetches the sample from the test server, and the example controller that
# the development package ships builds with pkg-config and with CMake and
# fetches it too.
#
#   clean_root.sh [PACKAGES [BUILD]]
#
#   PACKAGES   the folder of .deb files (default build-packages/<native arch>)
#   BUILD      the build tree with the test MMS server and libmms-fetch
#              (default build)
#
# The root is made by mmdebstrap (the essential packages and what the check
# needs, from this machine's apt sources; apt runs outside) on a tmpfs in a private mount namespace, so it and its mounts go
# away with the script. The test server runs outside the root, in a private
# network namespace that the root shares, and the root reaches it over
# loopback. HALVARINE_APT_SOURCES names another apt sources file.
set -euo pipefail
cd "$(dirname "$0")/../.."

PACKAGES=$(realpath "${1:-build-packages/$(dpkg --print-architecture)}")
BUILD=$(realpath "${2:-build}")
ROOT=$PWD/build-packages/root
CHECK=/srv/halvarine-check  # inside the root

fail() { echo "FAIL: $*" >&2; exit 1; }

case "${HALVARINE_CLEAN_ROOT_STEP:-}" in
  "")
    . scripts/lib/packages.sh
    ensure_packages mmdebstrap iproute2
    mapfile -t debs < <(find "$PACKAGES" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*')
    ((${#debs[@]} == 3)) || fail "expected three packages in $PACKAGES, found: ${debs[*]}"
    for program in mmsserver/halvarine-mms-server libmms-fetch/libmms-fetch; do
      [ -x "$BUILD/tools/$program" ] || fail "no $program in $BUILD/tools (bash scripts/setup.sh)"
    done
    mkdir -p "$ROOT"
    exec unshare --mount --propagation private \
      env HALVARINE_CLEAN_ROOT_STEP=root bash "$0" "$PACKAGES" "$BUILD"
    ;;

  root)
    mount -t tmpfs -o size=2g halvarine-root "$ROOT"
    sources=${HALVARINE_APT_SOURCES:-/etc/apt/sources.list.d/debian.sources}
    [ -f "$sources" ] || sources=/etc/apt/sources.list
    suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
    mapfile -t debs < <(find "$PACKAGES" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*')
    include=$(IFS=,; echo "g++,make,cmake,pkgconf,${debs[*]}")
    started=$SECONDS
    # Documentation, manual pages and translations are left out, but for the
    # development package's examples, which the check builds.
    mmdebstrap --variant=essential --include="$include" \
      --hook-dir=/usr/share/mmdebstrap/hooks/file-mirror-automount \
      --dpkgopt=force-unsafe-io \
      --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
      --dpkgopt='path-exclude=/usr/share/locale/*' \
      --dpkgopt='path-include=/usr/share/doc/libhalvarine-controller-dev/*' \
      "$suite" "$ROOT" "$sources" >"$PACKAGES/../root.log" 2>&1 ||
      fail "mmdebstrap failed: $(tail -n 20 "$PACKAGES/../root.log")"
    echo "clean root ($suite, $(du -sh "$ROOT" | cut -f1)) made in $((SECONDS - started)) s"
    mkdir -p "$ROOT$CHECK/work"
    cp tests/packaging/installed.sh "$ROOT$CHECK/"
    # halvarine-fetch finds its worker through /proc/self/exe.
    mount -t proc proc "$ROOT/proc"
    exec unshare --net env HALVARINE_CLEAN_ROOT_STEP=check bash "$0" "$PACKAGES" "$BUILD"
    ;;

  check)
    ip link set lo up
    SERVER=$BUILD/tools/mmsserver/halvarine-mms-server
    OUT=$ROOT$CHECK
    . scripts/lib/server.sh
    trap stop_servers EXIT
    start_server mmsh
    "$BUILD/tools/libmms-fetch/libmms-fetch" "$URL" "$OUT/reference.asf" >/dev/null
    started=$SECONDS
    chroot "$ROOT" env -i PATH=/usr/bin:/bin HOME=/root LC_ALL=C.UTF-8 \
      bash "$CHECK/installed.sh" /usr "$URL" "$CHECK/reference.asf" \
      /usr/share/doc/libhalvarine-controller-dev/examples "$CHECK/work"
    echo "checked in the clean root in $((SECONDS - started)) s"
    ;;
esac
