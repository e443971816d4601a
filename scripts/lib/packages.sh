# Sourced by the scripts: ensure_packages NAME... installs the Debian packages
# of the list that are not installed yet (one apt-get update first, whose
# errors about unrelated indexes do not stop the install).
ensure_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq || echo "apt-get update reported errors; trying the install anyway" >&2
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
