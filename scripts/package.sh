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

# What debian/control asks for; a cross build needs the host's libraries
# and the cross compiler besides.
PACKAGES=(dpkg-dev debhelper cmake make g++ libmms-dev libboost-dev)
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
for arch in "${ARCHES[@]}"; do
  [ "$arch" = "$NATIVE" ] && continue
  if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    $SUDO dpkg --add-architecture "$arch"
  fi
  PACKAGES+=("crossbuild-essential-$arch" "libmms-dev:$arch")
done
. scripts/lib/packages.sh
ensure_packages "${PACKAGES[@]}"

VERSION=$(dpkg-parsechangelog -S Version)
OUT=build-packages

copy_source() {
  local dest=$1
  mkdir -p "$dest"
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
      while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
      tar --null -T - -cf - | tar -xf - -C "$dest"
  else
    tar --exclude='./build' --exclude='./build-*' -cf - . | tar -xf - -C "$dest"
  fi
}

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
