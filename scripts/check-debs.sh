#!/usr/bin/env bash
# Builds the Debian packages of a build folder with CPack (cmake/Package.cmake) into
# BUILD_DIR/packages and checks them: the libraries in Debian's multiarch folder, the README's
# package table naming exactly each package's dependencies, and lintian (any error fails, warnings
# are listed; a multiarch warning fails too).
#
# usage: scripts/check-debs.sh [BUILD_DIR]     (default build/release, which must be built)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/release}
fail() {
  echo "check-debs: FAILED: $*" >&2
  exit 1
}
[ -f "$build/CPackConfig.cmake" ] || fail "$build is not a configured build folder"
[ -e "$build/libZOTHCommonDll.so" ] || fail "$build holds no built library"

out=$build/packages
rm -rf "$out"
(cd "$build" && cpack -G DEB -B "$(pwd)/packages" >cpack.log 2>&1) || {
  cat "$build/cpack.log"
  fail "cpack"
}
rm -rf "$out/_CPack_Packages"
mapfile -t debs < <(find "$out" -maxdepth 1 -name '*.deb' | LC_ALL=C sort)
[ ${#debs[@]} -eq 3 ] || fail "expected 3 packages in $out, found ${#debs[@]}"
for deb in "${debs[@]}"; do
  echo "check-debs: $(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
done

# The runtime package carries the soname in its name and the library under it.
runtime=$(find "$out" -maxdepth 1 -name 'libzothcommondll[0-9]*_*.deb' | head -n 1)
[ -n "$runtime" ] || fail "no runtime package libzothcommondllN"
contents=$(dpkg-deb -c "$runtime")
grep -q 'libZOTHCommonDll\.so\.[0-9]* -> ' <<<"$contents" || fail "the runtime package lacks the soname link"
for need in libcurl libsqlite3; do
  dpkg-deb -f "$runtime" Depends | grep -q "$need" || fail "the runtime package does not depend on $need"
done

# The libraries, the CMake package and the .pc file live in the multiarch folder, nothing in /usr/lib.
multiarch=$(gcc -print-multiarch)
for deb in "${debs[@]}"; do
  stray=$(dpkg-deb -c "$deb" | awk '{print $NF}' | grep -E '^\./usr/lib/[^/]+$|^\./usr/lib/(cmake|pkgconfig)/' || true)
  [ -z "$stray" ] || fail "$(basename "$deb") puts files outside /usr/lib/$multiarch: $stray"
done
grep -q "\./usr/lib/$multiarch/libZOTHCommonDll\.so\.[0-9]" <<<"$contents" ||
  fail "the runtime package's library is not in /usr/lib/$multiarch"

# The README's package table: its last column names exactly the packages each .deb depends on
# (versions and the "|" of alternatives aside).
readme_table=$(awk '/^<!-- package table:/ { on = 1; next } on && /^\|/ { print; next } on { exit }' README.md)
[ -n "$readme_table" ] || fail "README.md has no package table after <!-- package table: ... -->"
for deb in "${debs[@]}"; do
  pkg=$(dpkg-deb -f "$deb" Package)
  real=$(dpkg-deb -f "$deb" Depends | tr ',|' '\n' | sed 's/(.*)//; s/[[:space:]]//g' | grep -v '^$' | LC_ALL=C sort -u)
  row=$(grep -F "| \`$pkg\` |" <<<"$readme_table" || true)
  [ -n "$row" ] || fail "the README's package table has no row for $pkg"
  # shellcheck disable=SC2016 # backquotes of Markdown, not of the shell
  told=$(awk -F'|' '{print $(NF-1)}' <<<"$row" | grep -o '`[^`]*`' | tr -d '`' | LC_ALL=C sort -u)
  [ "$real" = "$told" ] || fail "README's table, $pkg depends on: $(tr '\n' ' ' <<<"$told"); the package: $(tr '\n' ' ' <<<"$real")"
done
echo "check-debs: the README's package table names each package's dependencies"

# lintian exits non-zero on errors; --no-cfg keeps a user's lintianrc out of the verdict.
rc=0
lintian --no-cfg --allow-root "${debs[@]}" >"$out/lintian.log" 2>&1 || rc=$?
cat "$out/lintian.log"
if [ "$rc" != 0 ] || grep -q '^E: ' "$out/lintian.log"; then
  fail "lintian reports errors in the packages (above)"
fi
if grep -qi 'multi-arch\|multiarch' "$out/lintian.log"; then
  fail "lintian reports a multiarch problem (above)"
fi
echo "check-debs: ${#debs[@]} packages in $out, no lintian errors ($(grep -c '^W: ' "$out/lintian.log" || true) warnings)"
