#!/usr/bin/env bash
# Runs a libFuzzer target for a fixed time on a fresh corpus seeded from a folder.
set -euo pipefail
fuzzer=$1 seeds=$2 corpus=$3 seconds=$4
rm -rf "$corpus"; mkdir -p "$corpus"
[ -d "$seeds" ] && find "$seeds" -maxdepth 1 -type f -exec cp {} "$corpus"/ \;
"$fuzzer" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=4096 \
  -artifact_prefix="$corpus/../" "$corpus" 2>&1 | tail -n 25
