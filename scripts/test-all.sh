#!/usr/bin/env bash
# The whole test suite: a normal build, an AddressSanitizer+UBSan build, a
# ThreadSanitizer build of the listener tests and the fuzz runs, then one ctest
# over all of them so the closing line counts every test.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
gen=()
command -v ninja >/dev/null && gen=(-G Ninja)

configure() { # dir, extra args...
  local dir=$1; shift
  cmake -S . -B "$dir" "${gen[@]}" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
}

configure build
configure build-asan -DOXCIM_SANITIZE=address -DOXCIM_BENCH=OFF -DOXCIM_EXAMPLES=OFF
configure build-tsan -DOXCIM_SANITIZE=thread -DOXCIM_BENCH=OFF -DOXCIM_EXAMPLES=OFF \
  -DOXCIM_TEST_FILTER='listener|simulator'
CC=clang CXX=clang++ configure build-fuzz -DOXCIM_FUZZ=ON -DOXCIM_TESTS=OFF \
  -DOXCIM_FUZZ_SECONDS="${OXCIM_FUZZ_SECONDS:-60}"

mkdir -p build-all
{
  echo "subdirs(\"$PWD/build\")"
  echo "subdirs(\"$PWD/build-asan\")"
  echo "subdirs(\"$PWD/build-tsan\")"
  echo "subdirs(\"$PWD/build-fuzz\")"
} > build-all/CTestTestfile.cmake
ctest --test-dir build-all -j"$jobs" --output-on-failure
