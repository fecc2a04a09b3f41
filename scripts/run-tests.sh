#!/usr/bin/env bash
# Builds and runs every check, quickest first, and stops at the first failure: the format and the
# API reference, the library as a packager builds it, the fuzz targets for a short bounded time, the
# release tests, the installed package and the Debian packages with the examples built against
# them, the ABI against its baseline, the Windows build run under Wine and its exports compared with
# the Linux library's, then the ASan+UBSan and ThreadSanitizer builds.
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
echo "=== docs: every public member of the five subsystems documented (Doxygen, warnings as errors)"
bash scripts/check-docs.sh
bash scripts/build-docs.sh build/docs

# A packager builds with CMake's own Release flags (-O3), where GCC finds warnings that -O2 does not:
# build the library that way too, warnings as errors, so such a warning shows up here first.
echo "=== packager: the library alone with CMake's Release defaults, warnings as errors"
cmake -S . -B build/packager -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOTH_WERROR=ON \
  -DZOTH_BUILD_TESTS=OFF -DZOTH_BUILD_TOOLS=OFF >/dev/null
cmake --build build/packager --target ZOTHCommonDll -j 2

run_preset fuzz
run_preset release
echo "=== package: install into a fresh prefix, build and run the examples against it"
bash scripts/check-package.sh build/release
echo "=== debs: Debian packages of the release build, lintian without errors"
bash scripts/check-debs.sh build/release
echo "=== debs: the packages extracted into a throwaway root, both examples built and run against it"
bash scripts/check-package.sh --debs build/release/packages
echo "=== abi: the release library against its baseline in abi/"
bash scripts/check-abi.sh build/release/libZOTHCommonDll.so
echo "=== windows: DLL, zoth.exe and test suites cross-built with mingw-w64, run under Wine"
bash scripts/run-windows-tests.sh
echo "=== exports: the Linux library and the Windows DLL export the same members"
bash scripts/check-exports.sh build/release/libZOTHCommonDll.so build/windows/bin/ZOTHCommonDll.dll
run_preset debug-asan
run_preset tsan
