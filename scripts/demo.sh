#!/usr/bin/env bash
# Builds the library and the command-line client, then runs the client against its
# embedded CIM server simulator: scripts/demo.sh [client command...]
# (default: enumerate CIM_StorageVolume; see build-demo/oxcim --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --build
gen=()
command -v ninja >/dev/null && gen=(-G Ninja)
cmake -S . -B build-demo "${gen[@]}" -DOXCIM_TESTS=OFF -DOXCIM_BENCH=OFF >/dev/null
cmake --build build-demo -j"${JOBS:-2}" --target oxcim >/dev/null
[ $# -gt 0 ] || set -- enumerate CIM_StorageVolume
exec build-demo/oxcim --simulator "$@"
