#!/usr/bin/env bash
# Checks an installed Halvarine the way its users meet it:
#
#   installed.sh PREFIX URL REFERENCE EXAMPLES WORK
#
#   PREFIX     where it is installed: /usr for the Debian packages
#   URL        a stream the test server serves; REFERENCE holds its bytes
#              as libmms's own client received them
#   EXAMPLES   the example controller's sources
#   WORK       an empty scratch directory
#
# 1. the layout: the worker in libexec/halvarine, halvarine-fetch in bin, the
#    controller library's archive (exporting namespace halvarine alone),
#    headers, pkg-config and CMake files;
# 2. each installed header compiles on its own, as C++14, against nothing
#    but the installed include directory;
# 3. halvarine-fetch, with no worker named, finds the installed worker and
#    fetches URL;
# 4. the example controller builds with pkg-config and with CMake's
#    find_package, and fetches URL.
#
# Starts workers, which dial the fixed controller socket path: run it in a
# private mount namespace, one at a time.
set -euo pipefail

PREFIX=$1
URL=$2
REFERENCE=$3
EXAMPLES=$4
WORK=$5

fail() { echo "FAIL: $*" >&2; exit 1; }
same_as_reference() {
  cmp -s "$1" "$REFERENCE" || fail "$2: $1 differs from the reference ($(stat -c %s "$1") bytes)"
}

# -- 1. layout
WORKER=$PREFIX/libexec/halvarine/halvarine
[ -x "$WORKER" ] || fail "no executable worker at $WORKER"
[ -x "$PREFIX/bin/halvarine-fetch" ] || fail "no executable $PREFIX/bin/halvarine-fetch"
[ ! -e "$PREFIX/bin/halvarine" ] || fail "the worker is on PATH: $PREFIX/bin/halvarine"
mapfile -t archives < <(find "$PREFIX"/lib* -name libhalvarine-controller.a)
[ "${#archives[@]}" -eq 1 ] || fail "expected one libhalvarine-controller.a, found: ${archives[*]}"
LIBDIR=$(dirname "${archives[0]}")
# Internals (the codec, the base layer) are local to the archive: a program
# may use their names for its own.
leaked=$(nm -g --defined-only "${archives[0]}" | awk 'NF == 3 && $2 !~ /^[WwVvu]$/ {print $3}' |
  grep -vE '^_Z(TV|TI|TS|GV|Z)?NK?9halvarine' || true)
[ -z "$leaked" ] || fail "the archive exports names outside namespace halvarine: $(echo $leaked)"
for f in pkgconfig/halvarine-controller.pc cmake/HalvarineController/HalvarineControllerConfig.cmake \
  cmake/HalvarineController/HalvarineControllerConfigVersion.cmake; do
  [ -f "$LIBDIR/$f" ] || fail "missing $LIBDIR/$f"
done
[ -f "$PREFIX/include/halvarine/controller.h" ] || fail "no $PREFIX/include/halvarine/controller.h"
headers=$(cd "$PREFIX/include/halvarine" && ls)

# Outside /usr the pkg-config file's paths are rebased on PREFIX, and the
# example names the worker, since the library looks where it was configured
# to be installed.
pkgconfig=(pkg-config)
cmake_args=()
example_env=(-u HALVARINE_WORKER)
if [ "$PREFIX" != /usr ]; then
  export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
  pkgconfig+=(--define-variable=prefix="$PREFIX")
  cmake_args+=(-DCMAKE_PREFIX_PATH="$PREFIX")
  example_env=(HALVARINE_WORKER="$WORKER")
fi

# -- 2. the headers stand alone
cflags=$("${pkgconfig[@]}" --cflags halvarine-controller) || fail "pkg-config does not know halvarine-controller"
for h in $headers; do
  # shellcheck disable=SC2086  # pkg-config's flags are words
  echo "#include <halvarine/$h>" | c++ -std=c++14 -Wall -Wextra -Werror -fsyntax-only $cflags -x c++ - ||
    fail "<halvarine/$h> does not compile on its own against $PREFIX/include"
done

# -- 3. halvarine-fetch finds its worker
env -u HALVARINE_WORKER -u HALVARINE_WORKER_LAUNCHER \
  "$PREFIX/bin/halvarine-fetch" -q "$URL" -o "$WORK/fetched.asf" || fail "halvarine-fetch $URL exited $?"
same_as_reference "$WORK/fetched.asf" halvarine-fetch

# -- 4. the example controller, built both ways
cp -r "$EXAMPLES" "$WORK/example-make"
make -s -C "$WORK/example-make" PKG_CONFIG="${pkgconfig[*]}" CXXFLAGS="-O2 -Wall -Wextra -Werror" ||
  fail "the example does not build with pkg-config"
cmake -S "$EXAMPLES" -B "$WORK/example-cmake" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  "${cmake_args[@]}" >"$WORK/cmake.log" 2>&1 || fail "CMake cannot configure the example: $(cat "$WORK/cmake.log")"
cmake --build "$WORK/example-cmake" >>"$WORK/cmake.log" 2>&1 ||
  fail "the example does not build with CMake: $(cat "$WORK/cmake.log")"
for way in make cmake; do
  env "${example_env[@]}" "$WORK/example-$way/example-controller" "$URL" "$WORK/example-$way.asf" >/dev/null ||
    fail "the example built with $way exited $?"
  same_as_reference "$WORK/example-$way.asf" "the example built with $way"
done
echo "ok: installed in $PREFIX"
