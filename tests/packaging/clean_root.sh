#!/usr/bin/env bash
# Installs the native Debian packages into a fresh minimal Debian root and
# uses them there as their users would (installed.sh): halvarine-fetch
# fetches the sample from the test server, and the example controller that
# the development package ships builds with pkg-config and with CMake and
# fetches it too; and halvarine-fetch builds from the installed SDK alone.
#
#   clean_root.sh [--wait] [PACKAGES [BUILD]]
#
#   PACKAGES   the folder of .deb files (default build-packages/<native arch>)
#   BUILD      the build tree with the test MMS server and libmms-fetch
#              (default build)
#   --wait     make the root first, then wait for a line on standard input
#              before reading PACKAGES (end of input: give up), so that the
#              root is made while the packages build
#
# The root is made by mmdebstrap (the required packages, apt and what the
# check builds with, from this machine's apt sources; scripts/lib/fresh_root.sh)
# on a tmpfs in a private mount namespace, so it and its mounts go away with
# the script. apt installs the packages there, and with them only what they
# depend on. The test server runs outside the root, in a private network
# namespace that the root shares, and the root reaches it over loopback.
# HALVARINE_APT_SOURCES names another apt sources file.
set -euo pipefail
cd "$(dirname "$0")/../.."

WAIT=""
if [ "${1:-}" = "--wait" ]; then
  WAIT=yes
  shift
fi
PACKAGES=$(realpath -m "${1:-build-packages/$(dpkg --print-architecture)}")
BUILD=$(realpath "${2:-build}")
ROOT=$PWD/build-packages/root
CHECK=/srv/halvarine-check  # inside the root

fail() { echo "FAIL: $*" >&2; exit 1; }
find_debs() { mapfile -t debs < <(find "$PACKAGES" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*'); }
check_debs() {
  find_debs
  ((${#debs[@]} == 3)) || fail "expected three packages in $PACKAGES, found: ${debs[*]}"
}

case "${HALVARINE_CLEAN_ROOT_STEP:-}" in
  "")
    . scripts/lib/packages.sh
    ensure_packages mmdebstrap iproute2
    [ -n "$WAIT" ] || check_debs
    for program in mmsserver/halvarine-mms-server libmms-fetch/libmms-fetch; do
      [ -x "$BUILD/tools/$program" ] || fail "no $program in $BUILD/tools (bash scripts/setup.sh)"
    done
    mkdir -p "$ROOT"
    exec unshare --mount --propagation private \
      env HALVARINE_CLEAN_ROOT_STEP=root HALVARINE_CLEAN_ROOT_WAIT="$WAIT" bash "$0" "$PACKAGES" "$BUILD"
    ;;

  root)
    . scripts/lib/fresh_root.sh
    # The package lists stay, for installing the packages later; the
    # development package's examples, which the check builds, are kept.
    make_fresh_root "$ROOT" "$ROOT.log" --variant=minbase --include=g++,make,cmake,pkgconf \
      --skip=cleanup/apt/lists --dpkgopt='path-include=/usr/share/doc/libhalvarine-controller-dev/*'
    if [ -n "${HALVARINE_CLEAN_ROOT_WAIT:-}" ]; then
      read -r _ || fail "no packages to install: the input ended"
    fi
    check_debs
    mkdir -p "$ROOT$CHECK/work" "$ROOT$CHECK/debs"
    cp "${debs[@]}" "$ROOT$CHECK/debs/"
    cp tests/packaging/installed.sh tests/packaging/build_fetch_from_sdk.sh "$ROOT$CHECK/"
    # The tool's own sources, to build it against the installed SDK alone.
    mkdir -p "$ROOT$CHECK/src/tools/mmsserver"
    cp -r tools/fetch tools/asf tools/common "$ROOT$CHECK/src/tools/"
    cp tools/mmsserver/mmst_wire.h "$ROOT$CHECK/src/tools/mmsserver/"
    started=$SECONDS
    chroot "$ROOT" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
      sh -c 'apt-get install -y -q --no-install-recommends "$0"/debs/*.deb' "$CHECK" >"$ROOT-install.log" 2>&1 ||
      fail "apt cannot install the packages: $(tail -n 20 "$ROOT-install.log")"
    echo "installed with what they depend on in $((SECONDS - started)) s:" \
      "$(sed -n 's/.* \([0-9]* newly installed\).*/\1/p' "$ROOT-install.log")"
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
    chroot "$ROOT" env -i PATH=/usr/bin:/bin HOME=/root LC_ALL=C.UTF-8 \
      bash "$CHECK/build_fetch_from_sdk.sh" "$CHECK/src" --prefix /usr
    echo "checked in the clean root in $((SECONDS - started)) s"
    ;;
esac
