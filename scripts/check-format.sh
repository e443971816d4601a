#!/usr/bin/env bash
# Fails, listing the files, when a C or C++ source of the tree differs from
# what clang-format makes of it with the committed .clang-format.
#
#   bash scripts/check-format.sh         check
#   bash scripts/check-format.sh --fix   format the files in place
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
ensure_packages clang-format

mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.c' '*.cc' '*.h')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
bad=()
for f in "${files[@]}"; do
  clang-format "$f" | cmp -s - "$f" || bad+=("$f")
done
if ((${#bad[@]})); then
  echo "not formatted with .clang-format (bash scripts/check-format.sh --fix):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "formatting: ${#files[@]} files as .clang-format wants them"
