#!/usr/bin/env bash
# Formats all sources, or, with --check, only reports which ones are not.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files '*.cpp' '*.h')
[ ${#files[@]} -gt 0 ] || { echo "no sources found" >&2; exit 1; }
if [ "${1:-}" = --check ]; then
    clang-format --dry-run --Werror "${files[@]}"
else
    clang-format -i "${files[@]}"
fi
