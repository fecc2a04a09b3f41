#!/usr/bin/env bash
# Builds and runs every suite: the fuzz targets for a short bounded time, the release tests, the
# installed package with the examples built against it, the Windows build run under Wine and the
# comparison of its exports with the Linux library's, then the ASan+UBSan and ThreadSanitizer builds.
# Stops at the first failure.
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

echo "=== format: every source as .clang-format wants it"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

run_preset fuzz
run_preset release
echo "=== package: install into a fresh prefix, build and run the examples against it"
bash scripts/check-package.sh build/release
echo "=== windows: DLL, zoth.exe and test suites cross-built with mingw-w64, run under Wine"
bash scripts/run-windows-tests.sh
echo "=== exports: the Linux library and the Windows DLL export the same members"
bash scripts/check-exports.sh build/release/libZOTHCommonDll.so build/windows/bin/ZOTHCommonDll.dll
run_preset debug-asan
run_preset tsan
