#!/usr/bin/env bash
# Fails when any C++ file of the tree differs from what clang-format makes of
# it (the style is the root .clang-format). Prints the files that differ.
set -euo pipefail
cd "$(dirname "$0")/.."
fmt="$(command -v clang-format || command -v clang-format-14)"
bad=0
while IFS= read -r f; do
  if ! "$fmt" --dry-run -Werror "$f" >/dev/null 2>&1; then
    echo "format_check: $f is not formatted (run: clang-format -i $f)" >&2
    bad=1
  fi
done < <(git ls-files '*.cpp' '*.h')
exit "$bad"
