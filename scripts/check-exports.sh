#!/usr/bin/env bash
# Compares what the Linux shared library and the Windows DLL export of the five subsystems: every
# class member, free function and variable of namespace ZOTH, by demangled name with the parameter
# list left out (DWORD is `unsigned int` on Linux and `unsigned long` on Windows, so the two builds'
# parameter types differ by design). The platform layer's Win32 calls are outside ZOTH: Linux exports
# them, Windows takes them from the system.
#
# usage: scripts/check-exports.sh [LINUX_SO [WINDOWS_DLL]]
#   defaults: build/release/libZOTHCommonDll.so and build/windows/bin/ZOTHCommonDll.dll
# Prints what only one side exports and a final "N passed, N failed" (one check per name of either
# side); exits non-zero when the two differ.
set -uo pipefail
cd "$(dirname "$0")/.."

so=${1:-build/release/libZOTHCommonDll.so}
dll=${2:-build/windows/bin/ZOTHCommonDll.dll}
for f in "$so" "$dll"; do
  if [ ! -f "$f" ]; then
    echo "check-exports: $f missing (build the release and windows presets first)" >&2
    exit 2
  fi
done
for tool in nm x86_64-w64-mingw32-objdump x86_64-w64-mingw32-c++filt; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "check-exports: $tool missing (run scripts/install-deps.sh)" >&2
    exit 2
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Demangled names on standard input -> the ZOTH names without parameter lists, ABI tags or
# qualifiers, one each, sorted.
normalize() {
  grep '^ZOTH::' |
    sed -e 's/\[abi:[a-z0-9]*\]//g' -e 's/^\(.*operator()\)(.*$/\1/' -e 't' -e 's/(.*$//' |
    LC_ALL=C sort -u
}

nm -D --defined-only --format=posix "$so" | awk '{ print $1 }' | c++filt | normalize >"$work/linux"
x86_64-w64-mingw32-objdump -p "$dll" |
  sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/{s/^[[:space:]]*\[ *[0-9]*\] //p}' |
  x86_64-w64-mingw32-c++filt | normalize >"$work/windows"

passed=$(LC_ALL=C comm -12 "$work/linux" "$work/windows" | wc -l)
only_linux=$(LC_ALL=C comm -23 "$work/linux" "$work/windows")
only_windows=$(LC_ALL=C comm -13 "$work/linux" "$work/windows")
failed=0
if [ -n "$only_linux" ]; then
  echo "exported by the Linux library only:"
  printf '%s\n' "$only_linux" | sed 's/^/  /'
  failed=$((failed + $(printf '%s\n' "$only_linux" | wc -l)))
fi
if [ -n "$only_windows" ]; then
  echo "exported by the Windows DLL only:"
  printf '%s\n' "$only_windows" | sed 's/^/  /'
  failed=$((failed + $(printf '%s\n' "$only_windows" | wc -l)))
fi
echo "check-exports: $(wc -l <"$work/linux") names from $so, $(wc -l <"$work/windows") from $dll"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
