# Sourced by the scripts that work in a new Debian root:
#
#   make_fresh_root ROOT LOG MMDEBSTRAP-OPTION...
#
# mounts a tmpfs at ROOT and makes a minimal Debian root there with
# mmdebstrap, of this machine's release and from its apt sources
# (HALVARINE_APT_SOURCES names another sources file); mmdebstrap's own
# output goes to LOG. Documentation, manual pages and translations are left
# out, now and in what apt installs in the root later (a --dpkgopt
# path-include brings a folder back). /proc and a /dev/pts of its own are
# mounted in the root, for apt, dpkg and the programs run there. Call it in
# a private mount namespace (unshare --mount --propagation private), so that
# the root and the mounts in it go away with the script.
make_fresh_root() {
  local root=$1 log=$2
  shift 2
  local sources=${HALVARINE_APT_SOURCES:-/etc/apt/sources.list.d/debian.sources}
  [ -f "$sources" ] || sources=/etc/apt/sources.list
  local suite
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  mkdir -p "$root"
  mount -t tmpfs -o size=8g halvarine-root "$root"
  local started=$SECONDS
  if ! mmdebstrap --hook-dir=/usr/share/mmdebstrap/hooks/file-mirror-automount \
    --dpkgopt=force-unsafe-io \
    --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
    --dpkgopt='path-exclude=/usr/share/locale/*' \
    "$@" "$suite" "$root" "$sources" </dev/null >"$log" 2>&1; then
    echo "mmdebstrap failed (log: $log):" >&2
    tail -n 20 "$log" >&2
    return 1
  fi
  mount -t proc proc "$root/proc"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
  echo "fresh root ($suite, $(du -sxh "$root" | cut -f1)) made in $((SECONDS - started)) s"
}
