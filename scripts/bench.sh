#!/usr/bin/env bash
# Builds the benchmark on the i386 leg without sanitizers and prints its
# figures. Arguments go to rtvox_bench (--quick, --list, or a name filter).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake --preset i386-valgrind >/dev/null
cmake --build --preset i386-valgrind --target rtvox_bench -j "$(nproc)" >/dev/null
exec build/i386-valgrind/bench/rtvox_bench "$@"
