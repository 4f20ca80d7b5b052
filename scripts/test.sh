#!/usr/bin/env bash
# Builds and runs every test: formatting, then both build legs from their
# presets (i386 with ASan/UBSan, armhf under qemu-arm), then the concurrency
# suites under helgrind and drd (i386-valgrind).
#
#   scripts/test.sh            everything
#   scripts/test.sh i386       one or more presets only
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/check-format.sh

presets=("$@")
if [ ${#presets[@]} -eq 0 ]; then
  presets=(i386 armhf i386-valgrind)
fi

for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure, build, test"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "$(nproc)"
  ctest --preset "${preset}"
done
