#!/usr/bin/env bash
# Builds and runs every suite: the fuzz targets for a short bounded time, then the test suites in the
# release, ASan+UBSan and ThreadSanitizer builds. Stops at the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

run_preset() {
  local preset=$1
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "=== ${preset}: tests"
  ctest --preset "$preset"
}

run_preset fuzz
run_preset release
run_preset debug-asan
run_preset tsan
