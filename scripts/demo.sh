#!/usr/bin/env bash
# Builds the i386 leg and runs the demonstration. Extra arguments go to
# `rtvoxctl demo` (for example --level 5 or --dir DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake --preset i386 >/dev/null
cmake --build --preset i386 --target rtvoxctl -j "$(nproc)" >/dev/null
exec build/i386/tools/rtvoxctl demo "$@"
