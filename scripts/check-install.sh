#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds and runs the example program
# the two ways users do: with pkg-config and with find_package(oxCIM).
set -euo pipefail
build=$(cd "$1" && pwd) src=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/p" >/dev/null

export PKG_CONFIG_PATH=$work/p/lib/pkgconfig
g++ -o "$work/hello_pc" "$src/examples/hello.cpp" $(pkg-config --cflags --libs oxcim)
"$work/hello_pc" | tee "$work/out_pc"
grep -q '^oxCIM 300 P:6.6.11 F:6.6.11$' "$work/out_pc"
grep -q '^trace mask 0x0$' "$work/out_pc"
# The mask is read from the environment when the library loads, in hex or decimal.
OXCIM_TRACE=0x40000004 "$work/hello_pc" | grep -q '^trace mask 0x40000004$'
OXCIM_TRACE=20 "$work/hello_pc" | grep -q '^trace mask 0x14$'

mkdir -p "$work/cm"
cat > "$work/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(hello CXX)
find_package(oxCIM REQUIRED)
add_executable(hello $src/examples/hello.cpp)
target_link_libraries(hello PRIVATE oxCIM::oxCIM)
CM
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$work/p" >/dev/null
cmake --build "$work/cm/build" >/dev/null
LD_LIBRARY_PATH=$work/p/lib "$work/cm/build/hello" | grep -q '^oxCIM 300 P:6.6.11 F:6.6.11$'
echo "install check passed"
