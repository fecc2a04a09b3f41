#!/usr/bin/env bash
# Runs every benchmark program of the release build, one after the other (they compare against peers
# in the same run, so run them on a quiet machine). Extra arguments go to each program.
set -euo pipefail
cd "$(dirname "$0")/.."
for b in build/release/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "=== $(basename "$b")"
  "$b" "$@"
done
