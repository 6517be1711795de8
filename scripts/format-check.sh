#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what clang-format makes of it under the root's
# .clang-format (each difference is printed with its file and line);
# `scripts/format-check.sh --fix` formats them in place.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
elif ! clang-format --dry-run --Werror "${files[@]}"; then
  echo "Not formatted: run scripts/format-check.sh --fix" >&2
  exit 1
fi
