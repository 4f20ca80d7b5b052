#!/usr/bin/env bash
# Builds and runs every test: formatting, then both build legs from their
# presets (i386 with ASan/UBSan, armhf under qemu-arm), then the concurrency
# suites under drd (i386-valgrind), then every fuzz target over its seed
# corpus (fuzz: clang's libFuzzer on i386, a few seconds).
#
#   scripts/test.sh            everything
#   scripts/test.sh i386       one or more presets only (fuzz included)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/check-format.sh

presets=("$@")
if [ ${#presets[@]} -eq 0 ]; then
  presets=(i386 armhf i386-valgrind fuzz)
fi

for preset in "${presets[@]}"; do
  if [ "${preset}" = fuzz ]; then
    echo "=== fuzz: seed corpora"
    bash scripts/fuzz.sh 0
    continue
  fi
  echo "=== ${preset}: configure, build, test"
  cmake --preset "${preset}" >/dev/null
  if [ "${preset}" = i386-valgrind ]; then
    # drd runs only the concurrency suites: build just their executables.
    cmake --build --preset "${preset}" -j "$(nproc)" --target rtvox_drd_suites
  else
    cmake --build --preset "${preset}" -j "$(nproc)"
  fi
  ctest --preset "${preset}"
done
