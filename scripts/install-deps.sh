#!/usr/bin/env bash
# Installs the Debian packages the build needs, when missing.
#   scripts/install-deps.sh          everything: library, tests, sanitizers, fuzzing, benchmarks
#   scripts/install-deps.sh --build  only what the library and the client need
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev libboost-dev libboost-thread-dev
          libssl-dev libcli11-dev nlohmann-json3-dev)
[ "${1:-}" = --build ] || packages+=(clang libclang-rt-14-dev openssl libgtest-dev libgmock-dev
                                     libbenchmark-dev libxml2-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "run as root, or install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
