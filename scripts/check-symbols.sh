#!/usr/bin/env bash
# The libraries export their own namespaces and nothing else.
set -euo pipefail
check() { # library namespace
  local bad
  bad=$(nm -D --defined-only -C "$1" | awk '$2 ~ /^[TDBRVWu]$/ { $1=""; $2=""; sub(/^  /,""); print }' |
        grep -v -E "^(typeinfo|vtable|VTT|guard variable|typeinfo name) for $2::|^$2::|^(_init|_fini)$" || true)
  if [ -n "$bad" ]; then
    echo "$1 exports names outside $2::"; echo "$bad"; return 1
  fi
  echo "$1: only $2:: names"
}
check "$1" oxCIM
check "$2" Brix
