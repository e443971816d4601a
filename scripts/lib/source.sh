# Sourced by the scripts: copy_source DEST copies the source tree into DEST
# (made if missing): the files git knows, untracked ones that are not
# ignored included, or, outside a git work tree, the tree without its build
# directories.
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
