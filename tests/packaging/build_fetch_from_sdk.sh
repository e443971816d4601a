#!/usr/bin/env bash
# Builds halvarine-fetch from the installed controller SDK alone and runs it
# once:
#
#   build_fetch_from_sdk.sh <source dir> [<build dir> | --prefix DIR]
#
# With a build dir, that tree's library is installed (cmake --install) into a
# scratch prefix first; with --prefix, the SDK already installed there is
# used (/usr for the libhalvarine-controller-dev package). The tool's own
# sources (tools/fetch, tools/asf, tools/common and the MMS wire header it
# shares with the test server) are copied apart from the rest of the tree, so that a header
# of the library's internals (base/, channel/) cannot be found: only
# <halvarine/...> from the prefix, through pkg-config. CXX names the
# compiler (c++) and CXXFLAGS its options (-O0: a proof that it builds), CMAKE
# the CMake that installs.
set -euo pipefail

SOURCE=$(cd "$1" && pwd)
CMAKE=${CMAKE:-cmake}
CXX=${CXX:-c++}
OUT=$(mktemp -d)
trap 'rm -rf "$OUT"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

if [ "${2:-}" = "--prefix" ]; then
  PREFIX=${3:?--prefix needs a directory}
else
  PREFIX=$OUT/prefix
  "$CMAKE" --install "$(cd "${2:?a build dir or --prefix DIR}" && pwd)" --prefix "$PREFIX" >/dev/null
fi

PC=$(find "$PREFIX" -name halvarine-controller.pc -path '*pkgconfig*' 2>/dev/null | head -n 1)
[ -n "$PC" ] || fail "no halvarine-controller.pc under $PREFIX"
pc() { pkg-config --define-variable=prefix="$PREFIX" "$@" "$PC"; }

mkdir -p "$OUT/src/tools/mmsserver"
cp -r "$SOURCE/tools/fetch" "$SOURCE/tools/asf" "$SOURCE/tools/common" "$OUT/src/tools/"
cp "$SOURCE/tools/mmsserver/mmst_wire.h" "$OUT/src/tools/mmsserver/"

# shellcheck disable=SC2046,SC2086  # pkg-config's and CXXFLAGS's words are separate arguments
"$CXX" -std=c++17 ${CXXFLAGS:--O0} -Wall -Werror -I"$OUT/src" $(pc --cflags) \
  -DHALVARINE_VERSION="\"$(pc --modversion)\"" \
  "$OUT"/src/tools/fetch/*.cc "$OUT"/src/tools/asf/*.cc "$OUT"/src/tools/common/*.cc \
  -o "$OUT/halvarine-fetch" $(pc --libs) ||
  fail "halvarine-fetch does not build against the SDK in $PREFIX"

help=$("$OUT/halvarine-fetch" --help) || fail "halvarine-fetch --help exited $?"
grep -q '^Exit status:' <<<"$help" || fail "--help lists no exit statuses"
echo "ok: halvarine-fetch built from the SDK in $PREFIX alone"
