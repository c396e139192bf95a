#!/usr/bin/env bash
# Formats the C++ sources with the repository's .clang-format.
#   bash scripts/format.sh           rewrites the files in place
#   bash scripts/format.sh --check   lists what would change and fails (CI)
# Pinned to clang-format 14 (Debian's): another version lays some code out differently.
set -euo pipefail
cd "$(dirname "$0")/.."

tool=$(command -v clang-format-14 || command -v clang-format || true)
[ -n "$tool" ] || { echo "format.sh: clang-format is missing (bash scripts/bootstrap test)" >&2; exit 1; }

files() {
  git ls-files -z -- 'tavrin/*.h' 'tavrin/*.cpp' 'tests/*.h' 'tests/*.cpp' 'bench/*.h' 'bench/*.cpp' \
    'examples/*.h' 'examples/*.cpp' 'tools/*.h' 'tools/*.cpp'
}

if [ "${1:-}" = "--check" ]; then
  files | xargs -0 "$tool" --dry-run --Werror
  echo "format.sh: every file is formatted"
else
  files | xargs -0 "$tool" -i
fi
