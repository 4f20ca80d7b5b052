#!/usr/bin/env bash
# Builds every fuzz target (clang's libFuzzer on the i386 leg, with ASan and
# UBSan; the fuzz preset) and runs each one over its seed corpus in
# fuzz/corpus/<target>/, then fuzzes it for SECONDS (default 60). SECONDS 0
# runs the corpora only, which is what scripts/test.sh does. Exits non-zero on
# any crash or sanitizer report; the input that caused it is kept under
# build/fuzz/findings/<target>/.
#
#   scripts/fuzz.sh            every target, 60 s each
#   scripts/fuzz.sh 600        every target, 10 min each
#   scripts/fuzz.sh 0          the seed corpora only
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
if ! [[ "${seconds}" =~ ^[0-9]+$ ]]; then
  echo "usage: scripts/fuzz.sh [SECONDS]" >&2
  exit 2
fi

bash scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

shopt -s nullglob
targets=(build/fuzz/fuzz/*_fuzz)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz target was built" >&2
  exit 1
fi

for target in "${targets[@]}"; do
  name="$(basename "${target}")"
  seeds=(fuzz/corpus/"${name}"/*)
  if [ ${#seeds[@]} -eq 0 ]; then
    echo "fuzz: ${name} has no seed corpus in fuzz/corpus/${name}/" >&2
    exit 1
  fi
  findings="build/fuzz/findings/${name}"
  mkdir -p "${findings}"
  echo "=== fuzz ${name}: ${#seeds[@]} seed inputs"
  "${target}" -artifact_prefix="${findings}/" "${seeds[@]}" >"${findings}/corpus.log" 2>&1 || {
    tail -n 40 "${findings}/corpus.log"
    echo "fuzz: ${name} failed on its seed corpus (log: ${findings}/corpus.log)" >&2
    exit 1
  }
  if [ "${seconds}" -gt 0 ]; then
    # New inputs go to a scratch directory, never into the tree's corpus.
    scratch="$(mktemp -d)"
    trap 'rm -rf "${scratch}"' EXIT
    echo "=== fuzz ${name}: ${seconds} s"
    "${target}" -max_total_time="${seconds}" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="${findings}/" "${scratch}" "fuzz/corpus/${name}" >"${findings}/fuzz.log" 2>&1 || {
      tail -n 60 "${findings}/fuzz.log"
      echo "fuzz: ${name} found a crash or sanitizer report (log: ${findings}/fuzz.log)" >&2
      exit 1
    }
    grep -E "^stat::number_of_executed_units|^stat::new_units_added" "${findings}/fuzz.log" || true
    rm -rf "${scratch}"
    trap - EXIT
  fi
done
echo "fuzz: ${#targets[@]} target(s) clean"
