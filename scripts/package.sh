#!/usr/bin/env bash
# Builds the Debian packages with the distribution's own tooling
# (dpkg-buildpackage, debhelper), for this machine's architecture and,
# cross-built, for armhf:
#
#   build-packages/<arch>/        .deb files, .changes, .buildinfo
#                                 (and, natively, the source package)
#
#   bash scripts/package.sh [ARCH...]    default: the native one and armhf
#
# Each build runs in a copy of the source (the files git knows, or the tree
# without its build directories) so that dpkg-buildpackage, which writes
# beside the source, stays inside build-packages/. Installs what is missing,
# the cross toolchain and the armhf libraries included.
set -euo pipefail
cd "$(dirname "$0")/.."

NATIVE=$(dpkg --print-architecture)
ARCHES=("$@")
((${#ARCHES[@]})) || ARCHES=("$NATIVE" armhf)

. scripts/lib/packages.sh
. scripts/lib/source.sh

# What debian/control asks for, installed by apt-get build-dep from it, with
# build-essential, which dpkg-buildpackage requires of every build. A cross
# build needs the cross compiler besides, and the host architecture's C++
# runtime, where dh_shlibdeps finds the library the programs link.
ensure_packages dpkg-dev
for arch in "${ARCHES[@]}"; do
  if [ "$arch" = "$NATIVE" ]; then
    host=()
  else
    ensure_architecture "$arch"
    ensure_packages "crossbuild-essential-$arch" "libstdc++6:$arch"
    host=(--host-architecture "$arch")
  fi
  dpkg-checkbuilddeps -a"$arch" 2>/dev/null || apt_get build-dep "${host[@]}" ./
done

VERSION=$(dpkg-parsechangelog -S Version)
OUT=build-packages

for arch in "${ARCHES[@]}"; do
  dir=$OUT/$arch
  rm -rf "$dir"
  copy_source "$dir/halvarine-$VERSION"
  started=$SECONDS
  if [ "$arch" = "$NATIVE" ]; then
    # Source and binary packages: lintian checks both.
    args=()
  else
    args=(--host-arch "$arch" -B)
  fi
  echo "==== $arch: dpkg-buildpackage ${args[*]} (log: $dir/build.log)"
  if ! (cd "$dir/halvarine-$VERSION" &&
    DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
      nice -n 10 dpkg-buildpackage -us -uc "${args[@]}") >"$dir/build.log" 2>&1; then
    tail -n 40 "$dir/build.log" >&2
    echo "package: the $arch build failed; see $dir/build.log" >&2
    exit 1
  fi
  rm -rf "${dir:?}/halvarine-$VERSION"
  echo "built in $((SECONDS - started)) s"
  for deb in "$dir"/*.deb; do
    echo "-- $(basename "$deb") ($(stat -c %s "$deb") bytes)"
    dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print "   " $6}'
  done
done
