#!/usr/bin/env bash
# Builds the library with its examples and runs each example program.
set -euo pipefail
cd "$(dirname "$0")/.."
gen=()
command -v ninja >/dev/null && gen=(-G Ninja)
cmake -S . -B build-demo "${gen[@]}" -DOXCIM_TESTS=OFF -DOXCIM_BENCH=OFF >/dev/null
cmake --build build-demo -j"${JOBS:-2}" >/dev/null
for ex in build-demo/example_*; do
  echo "== ${ex##*/example_}"
  "$ex"
done
