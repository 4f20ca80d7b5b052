#!/usr/bin/env bash
# Fails when a C or C++ source of ours differs from what .clang-format asks for.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- \
  'include/*.h' 'src/*.cpp' 'src/*.h' 'host/*.h' 'host/*.cpp' 'tools/*.cpp' 'tools/*.h' \
  'tests/*.cpp' 'tests/*.h' 'tests/*.c' 'bench/*.cpp' 'bench/*.h' 'fuzz/*.cpp')
if [ ${#files[@]} -eq 0 ]; then
  exit 0
fi
clang-format --dry-run --Werror "${files[@]}"
echo "format: ${#files[@]} files follow .clang-format"
