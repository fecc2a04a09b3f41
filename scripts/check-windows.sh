#!/usr/bin/env bash
# Windows compile check: every public header, every subsystem source and every example must compile
# with mingw-w64 against <windows.h>. Syntax only: nothing is linked. src/platform is left out on
# purpose: it is the Linux implementation of the Win32 calls, which on Windows come from <windows.h>.
#
# usage: scripts/check-windows.sh
# Prints one line per file and a final "N passed, N failed"; exits non-zero on any failure.
# CXX_WIN may name another mingw-w64 C++ compiler.
set -uo pipefail
cd "$(dirname "$0")/.."

CXX_WIN=${CXX_WIN:-}
if [ -z "$CXX_WIN" ]; then
  # The posix thread model is the one whose libstdc++ has std::thread, std::mutex and friends.
  for c in x86_64-w64-mingw32-g++-posix x86_64-w64-mingw32-g++; do
    if command -v "$c" >/dev/null 2>&1; then CXX_WIN=$c; break; fi
  done
fi
if [ -z "$CXX_WIN" ]; then
  echo "check-windows: no mingw-w64 C++ compiler found (run scripts/install-deps.sh)" >&2
  exit 2
fi

# A private include folder with only libcurl's and SQLite's headers: /usr/include itself would drag
# the Linux C library's headers into a Windows compile.
deps=$(mktemp -d)
trap 'rm -rf "$deps"' EXIT
curl_dir=""
for d in /usr/include/curl /usr/include/*-linux-gnu/curl; do
  if [ -f "$d/curl.h" ]; then curl_dir=$d; break; fi
done
if [ -z "$curl_dir" ] || [ ! -f /usr/include/sqlite3.h ]; then
  echo "check-windows: libcurl or SQLite headers missing (run scripts/install-deps.sh)" >&2
  exit 2
fi
ln -s "$curl_dir" "$deps/curl"
ln -s /usr/include/sqlite3.h "$deps/sqlite3.h"
[ -f /usr/include/sqlite3ext.h ] && ln -s /usr/include/sqlite3ext.h "$deps/sqlite3ext.h"

FLAGS=(-std=c++20 -fsyntax-only -Wall -Wextra -D_WIN32_WINNT=0x0601 -Iinclude -Isrc -isystem "$deps")

passed=0
failed=0
log="$deps/compiler.log"

report() { # report STATUS FILE
  if [ "$1" -eq 0 ]; then
    passed=$((passed + 1))
    if [ -s "$log" ]; then
      echo "ok    $2 (with warnings)"
      sed 's/^/      /' "$log"
    else
      echo "ok    $2"
    fi
  else
    failed=$((failed + 1))
    echo "FAIL  $2"
    sed 's/^/      /' "$log"
  fi
}

# Each header on its own, included from a one-line translation unit, as a client would include it:
# this also proves that every header brings in what it needs.
while IFS= read -r header; do
  rel=${header#include/}
  printf '#include "%s"\n' "$rel" | "$CXX_WIN" "${FLAGS[@]}" -x c++ - >"$log" 2>&1
  report $? "$header"
done < <(find include/zoth -name '*.h' | LC_ALL=C sort)

# The subsystem sources, compiled as the library compiles them (exporting, not importing).
for sub in http task database file text; do
  [ -d "src/$sub" ] || continue
  while IFS= read -r source; do
    "$CXX_WIN" "${FLAGS[@]}" -DZOTH_BUILDING_LIBRARY -x c++ "$source" >"$log" 2>&1
    report $? "$source"
  done < <(find "src/$sub" -name '*.cpp' | LC_ALL=C sort)
done

# The example programs, compiled as clients of the library: what a user copies must build there too.
while IFS= read -r source; do
  "$CXX_WIN" "${FLAGS[@]}" -x c++ "$source" >"$log" 2>&1
  report $? "$source"
done < <(find examples -name '*.cpp' 2>/dev/null | LC_ALL=C sort)

echo "$passed passed, $failed failed"
if [ "$passed" -eq 0 ]; then
  echo "check-windows: nothing was checked" >&2
  exit 1
fi
[ "$failed" -eq 0 ]
