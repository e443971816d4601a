#!/usr/bin/env bash
# Runs a command of the source tree as on a new machine: in a fresh Debian
# root that holds only what a minimal installation has (mmdebstrap's minbase
# variant: the required packages and apt; no compiler, no git, no sudo), as
# root there, so that the command has to install all it needs by itself.
#
#   in_fresh_root.sh COMMAND [ARG...]
#
#   bash tests/packaging/in_fresh_root.sh bash scripts/package.sh
#   bash tests/packaging/in_fresh_root.sh bash scripts/demo.sh
#
# The command runs in a copy of the files git knows (no build tree) at
# /srv/halvarine in the root; what it leaves in build-packages/ there is
# copied to build-packages/ here. It reports how long the command took and
# how many packages it installed. The root (scripts/lib/fresh_root.sh) lives
# on a tmpfs in a private mount namespace and goes away with the script;
# mmdebstrap's log is build-packages/fresh-root.log. The command shares this
# machine's network, which apt needs.
set -euo pipefail
cd "$(dirname "$0")/../.."

(($#)) || { echo "usage: $0 COMMAND [ARG...]" >&2; exit 2; }
OUT=$PWD/build-packages
ROOT=$OUT/fresh-root
SOURCE=/srv/halvarine  # inside the root

if [ -z "${HALVARINE_FRESH_ROOT_STEP:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "$0: run it as root (it mounts and uses chroot)" >&2; exit 1; }
  . scripts/lib/packages.sh
  ensure_packages mmdebstrap
  mkdir -p "$OUT"
  # Unpacking and compiling, all of it: the machine's other users go first.
  exec nice -n 10 unshare --mount --propagation private \
    env HALVARINE_FRESH_ROOT_STEP=root bash "$0" "$@"
fi

. scripts/lib/fresh_root.sh
. scripts/lib/source.sh
make_fresh_root "$ROOT" "$OUT/fresh-root.log" --variant=minbase
copy_source "$ROOT$SOURCE"

in_root() {
  chroot "$ROOT" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"
}
packages() { in_root dpkg-query -W -f='${db:Status-Abbrev}\n' | grep -c '^ii'; }

before=$(packages)
echo "==== in the fresh root ($before packages): $*"
started=$SECONDS
status=0
in_root bash -c 'cd "$0" && exec "$@"' "$SOURCE" "$@" || status=$?
echo "==== $* exited $status after $((SECONDS - started)) s, having installed $(($(packages) - before)) packages"
for dir in "$ROOT$SOURCE"/build-packages/*/; do
  [ -d "$dir" ] || continue
  rm -rf "${OUT:?}/$(basename "$dir")"
  cp -a "$dir" "$OUT/"
done
exit "$status"
