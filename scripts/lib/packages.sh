# Sourced by the scripts, which install what they need themselves (Debian):
#
#   ensure_packages NAME...    installs those of the packages (NAME:ARCH for
#                              another architecture's) not installed yet
#   package_installed NAME     whether it is
#   ensure_architecture ARCH   lets dpkg install ARCH's packages (multiarch)
#   as_root COMMAND...         runs COMMAND as root: directly when the script
#                              runs as root, through sudo otherwise
#   apt_get ARG...             apt-get as root, non-interactive, without
#                              recommended packages, after one index update
#                              (whose errors about unrelated indexes do not
#                              stop it)

# What the build and the test suite need (scripts/setup.sh, scripts/sanitize.sh).
TEST_PACKAGES=(cmake make g++ libmms-dev libboost-dev libgtest-dev ffmpeg dpkg-dev pkgconf
               tinyproxy vlc-bin vlc-plugin-base iproute2 nftables valgrind)

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

# The index is updated once per script, and again after a new architecture.
APT_UPDATED=""
apt_get() {
  if [ -z "$APT_UPDATED" ]; then
    as_root apt-get update -qq -o DPkg::Lock::Timeout=600 || echo "apt-get update reported errors; going on anyway" >&2
    APT_UPDATED=yes
  fi
  # Scripts run side by side (CI's), and one waits for another's install.
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -y -qq --no-install-recommends -o DPkg::Lock::Timeout=600 "$@"
}

# A name alone means this machine's architecture (or none, for
# architecture-independent packages): libmms-dev:armhf is not libmms-dev.
package_installed() {
  local name=${1%%:*} arch=${1#*:}
  [ "$arch" != "$1" ] || arch=$(dpkg --print-architecture)
  dpkg-query -W -f='${Status} ${Architecture}\n' "$name" 2>/dev/null |
    grep -qE "^install ok installed ($arch|all)\$"
}

ensure_packages() {
  local missing=() p
  for p in "$@"; do
    package_installed "$p" || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  apt_get install "${missing[@]}"
}

ensure_architecture() {
  [ "$1" = "$(dpkg --print-architecture)" ] && return 0
  dpkg --print-foreign-architectures | grep -qx "$1" && return 0
  as_root dpkg --add-architecture "$1"
  APT_UPDATED=""
}
