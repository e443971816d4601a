#!/usr/bin/env bash
# Checks the Debian packages that scripts/package.sh built:
#
#   check_packages.sh [DIR]     DIR: build-packages (one folder per architecture)
#
# For each architecture: lintian over the .changes (source included where it
# was built) passes with no tag left but those overridden with a reason in
# debian/; each package holds exactly its files; the programs are hardened
# (PIE, stack protector, fortified libc calls, RELRO, BIND_NOW); the worker
# depends on libmms0 and halvarine-fetch on the worker of its own version.
set -euo pipefail
cd "$(dirname "$0")/../.."
DIR=${1:-build-packages}

. scripts/lib/packages.sh
ensure_packages lintian binutils dpkg-dev

fail() { echo "FAIL: $*" >&2; exit 1; }

# What each package holds besides its /usr/share/doc/<package>/{changelog.gz,copyright}.
expected_files() {
  local triplet=$1
  cat <<EOF
halvarine ./usr/libexec/halvarine/halvarine
halvarine ./usr/share/lintian/overrides/halvarine
halvarine ./usr/share/man/man8/halvarine.8.gz
halvarine-fetch ./usr/bin/halvarine-fetch
halvarine-fetch ./usr/share/man/man1/halvarine-fetch.1.gz
libhalvarine-controller-dev ./usr/lib/$triplet/cmake/HalvarineController/HalvarineControllerConfig.cmake
libhalvarine-controller-dev ./usr/lib/$triplet/cmake/HalvarineController/HalvarineControllerConfigVersion.cmake
libhalvarine-controller-dev ./usr/lib/$triplet/cmake/HalvarineController/HalvarineControllerTargets-none.cmake
libhalvarine-controller-dev ./usr/lib/$triplet/cmake/HalvarineController/HalvarineControllerTargets.cmake
libhalvarine-controller-dev ./usr/lib/$triplet/libhalvarine-controller.a
libhalvarine-controller-dev ./usr/lib/$triplet/pkgconfig/halvarine-controller.pc
libhalvarine-controller-dev ./usr/share/doc/libhalvarine-controller-dev/PROTOCOL.md.gz
libhalvarine-controller-dev ./usr/share/doc/libhalvarine-controller-dev/examples/CMakeLists.txt
libhalvarine-controller-dev ./usr/share/doc/libhalvarine-controller-dev/examples/Makefile
libhalvarine-controller-dev ./usr/share/doc/libhalvarine-controller-dev/examples/example-controller.cc
EOF
  # The public headers: those of the two include/halvarine folders.
  for h in controller/include/halvarine/*.h base/include/halvarine/*.h; do
    echo "libhalvarine-controller-dev ./usr/include/halvarine/$(basename "$h")"
  done
}

# The hardening the build flags promise, read from the program itself.
check_hardened() {
  local elf=$1 header dynamic symbols
  header=$(readelf -h -l -W "$elf")
  dynamic=$(readelf -d -W "$elf")
  symbols=$(readelf --dyn-syms -W "$elf")
  grep -q 'Type: *DYN' <<<"$header" && grep -q 'FLAGS_1.*PIE' <<<"$dynamic" || fail "$elf is not PIE"
  grep -q 'GNU_RELRO' <<<"$header" || fail "$elf has no RELRO segment"
  grep -qE 'FLAGS.*BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || fail "$elf is not bound now"
  grep -qE 'UND +__stack_chk_(fail|guard)' <<<"$symbols" || fail "$elf has no stack protector"
  grep -E 'UND +__[a-z0-9_]+_chk' <<<"$symbols" | grep -qv '__stack_chk' ||
    fail "$elf calls no fortified libc function"
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
checked=0
for changes in "$DIR"/*/*.changes; do
  [ -f "$changes" ] || continue
  arch_dir=$(dirname "$changes")
  arch=$(basename "$arch_dir")
  triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
  version=$(sed -n 's/^Version: //p' "$changes")
  echo "== $arch ($(basename "$changes"))"

  # Every tag counts, info and pedantic ones too; the overrides carry the
  # reasons for those that stay.
  status=0
  report=$(lintian --info --display-info --pedantic --fail-on error,warning,info,pedantic \
    "$changes" 2>&1) || status=$?
  grep -v 'running with root privileges' <<<"$report" || true
  [ "$status" -eq 0 ] || fail "lintian reports tags for $changes"

  rm -rf "$scratch" && mkdir "$scratch"
  for pkg in halvarine halvarine-fetch libhalvarine-controller-dev; do
    deb=$arch_dir/${pkg}_${version}_$arch.deb
    [ -f "$deb" ] || fail "missing $deb"
    actual=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' |
      grep -vxE "\./usr/share/doc/$pkg/(changelog\.gz|copyright)" | sort)
    wanted=$(expected_files "$triplet" | awk -v p="$pkg" '$1 == p {print $2}' | sort)
    [ "$actual" = "$wanted" ] ||
      fail "$deb holds other files than expected:"$'\n'"$(diff <(echo "$wanted") <(echo "$actual") || true)"
    dpkg -x "$deb" "$scratch"
  done
  check_hardened "$scratch/usr/libexec/halvarine/halvarine"
  check_hardened "$scratch/usr/bin/halvarine-fetch"

  depends=$(dpkg-deb -f "$arch_dir/halvarine_${version}_$arch.deb" Depends)
  grep -qE '(^|, )libmms0( |,|$)' <<<"$depends" || fail "halvarine does not depend on libmms0: $depends"
  depends=$(dpkg-deb -f "$arch_dir/halvarine-fetch_${version}_$arch.deb" Depends)
  grep -qF "halvarine (= $version)" <<<"$depends" || fail "halvarine-fetch does not depend on halvarine (= $version): $depends"
  checked=$((checked + 1))
done
((checked)) || fail "no packages in $DIR (bash scripts/package.sh builds them)"
echo "ok: $checked architectures"
