#!/usr/bin/env bash
# The README's quickstart, followed to the letter: its hello.cpp and CMakeLists.txt are taken out of
# README.md as they stand, and its commands are run as written, once through CMake and once through
# pkg-config, with a clean environment (no CMAKE_PREFIX_PATH, PKG_CONFIG_PATH or LD_LIBRARY_PATH):
#
#   --prefix BUILD_DIR  the build installed into /usr/local as `make install` does (cmake --install,
#                       then ldconfig)
#   --debs DEB_DIR      the Debian packages installed with dpkg -i (their ldconfig trigger included)
#
# The machine is never changed: the run happens in a mount namespace of its own (unshare -m) whose
# /usr, /etc and /var are overlays on folders of a temporary directory, gone when it ends. That needs
# root; elsewhere the check is skipped with the reason, except under CI=true, where that fails it.
# A loopback URL (optional third argument) is fetched by the program once more after the README's
# own run.
#
# usage: scripts/check-quickstart.sh --prefix BUILD_DIR [URL]
#        scripts/check-quickstart.sh --debs DEB_DIR [URL]
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

fail() {
  echo "check-quickstart: FAILED: $*" >&2
  exit 1
}
skip() {
  if [ "${CI:-}" = true ]; then fail "cannot run here under CI: $*"; fi
  echo "check-quickstart: SKIPPED: $*" >&2
  exit 0
}
if [ $# -lt 2 ] || { [ "$1" != --prefix ] && [ "$1" != --debs ]; }; then
  echo "usage: scripts/check-quickstart.sh --prefix BUILD_DIR [URL] | --debs DEB_DIR [URL]" >&2
  exit 2
fi
mode=$1
source_dir=$(cd "$2" && pwd) || fail "$2 is not a folder"
url=${3:-}

# quickstart_block NAME: the fenced block that follows the line "<!-- quickstart NAME -->" in README.md.
quickstart_block() {
  local body
  body=$(awk -v want="<!-- quickstart $1 -->" '
    $0 == want { found = 1; next }
    found && !inside && /^```/ { inside = 1; next }
    inside && /^```/ { exit }
    inside { print }' "$repo/README.md")
  [ -n "$body" ] || fail "README.md has no block after <!-- quickstart $1 -->"
  printf '%s\n' "$body"
}

# Inside the namespace: this script again, with ZOTH_QUICKSTART_INSIDE set.
if [ -z "${ZOTH_QUICKSTART_INSIDE:-}" ]; then
  [ "$(id -u)" = 0 ] || skip "needs root for a private mount namespace with overlays"
  command -v unshare >/dev/null || skip "unshare is missing"
  tmp=$(mktemp -d /tmp/zoth-quickstart-XXXXXX)
  trap 'rm -rf "$tmp"' EXIT
  for f in hello.cpp CMakeLists.txt run-cmake run-pkg-config; do
    quickstart_block "$f" >"$tmp/$f"
  done
  lines=$(grep -cv '^\s*$' "$tmp/hello.cpp")
  [ "$lines" -le 16 ] || fail "the README's hello.cpp has $lines lines, more than a quickstart should"
  rc=0
  ZOTH_QUICKSTART_INSIDE=$tmp unshare -m --propagation private bash "$0" "$@" || rc=$?
  [ "$rc" = 0 ] || fail "the quickstart ($mode) did not build and run (above)"
  exit 0
fi

# --- In the namespace --------------------------------------------------------------------------------
tmp=$ZOTH_QUICKSTART_INSIDE
for dir in /usr /etc /var; do
  name=${dir#/}
  mkdir -p "$tmp/overlay/$name/upper" "$tmp/overlay/$name/work"
  mount -t overlay overlay -o "lowerdir=$dir,upperdir=$tmp/overlay/$name/upper,workdir=$tmp/overlay/$name/work" "$dir" ||
    skip "cannot mount an overlay on $dir"
done

if [ "$mode" = --prefix ]; then
  echo "=== check-quickstart: $source_dir installed into /usr/local (cmake --install, ldconfig)"
  cmake --install "$source_dir" --prefix /usr/local >"$tmp/install.log" || { cat "$tmp/install.log"; fail "cmake --install"; }
  ldconfig
  expected_lib=$(find /usr/local/lib -name 'libZOTHCommonDll.so.1' | head -n 1)
else
  echo "=== check-quickstart: the packages in $source_dir installed with dpkg -i"
  mapfile -t debs < <(find "$source_dir" -maxdepth 1 -name '*.deb' | LC_ALL=C sort)
  [ ${#debs[@]} -gt 0 ] || fail "no .deb files in $source_dir"
  dpkg -i "${debs[@]}" >"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log"; fail "dpkg -i"; }
  expected_lib=/usr/lib/$(gcc -print-multiarch)/libZOTHCommonDll.so.1
fi
[ -e "$expected_lib" ] || fail "no libZOTHCommonDll.so.1 where the install should have put it ($expected_lib)"

# g++ 12 compiles C++17 unless told otherwise; the .pc file tells it.
cflags=$(env -u PKG_CONFIG_PATH pkg-config --cflags zoth-common) || fail "pkg-config finds no zoth-common"
grep -q -- '-std=c++20' <<<"$cflags" || fail "pkg-config --cflags zoth-common lacks -std=c++20: $cflags"

# run_block NAME FOLDER: the README's commands of block NAME, one by one, in FOLDER, environment clean.
run_block() {
  echo "=== check-quickstart: $1, as the README says"
  sed 's/^/    /' "$tmp/$1"
  (cd "$2" && env -u CMAKE_PREFIX_PATH -u PKG_CONFIG_PATH -u LD_LIBRARY_PATH -u CPATH -u LIBRARY_PATH \
    bash -euo pipefail "$tmp/$1") || fail "$1: a command of the README's block failed"
}
# loads_library PROGRAM: the program loads the library that was just installed.
loads_library() {
  local resolved
  resolved=$(env -u LD_LIBRARY_PATH ldd "$1" | awk '/libZOTHCommonDll/ {print $3}')
  [ "$(readlink -f "$resolved")" = "$(readlink -f "$expected_lib")" ] ||
    fail "$1 loads libZOTHCommonDll from '$resolved', not from $expected_lib"
}

for how in cmake pkg-config; do
  work=$tmp/hello-$how
  mkdir -p "$work"
  cp "$tmp/hello.cpp" "$work/"
  [ "$how" = cmake ] && cp "$tmp/CMakeLists.txt" "$work/"
  run_block "run-$how" "$work"
  program=$work/hello
  [ "$how" = cmake ] && program=$work/build/hello
  [ -x "$program" ] || fail "$how: the README's commands made no program at $program"
  loads_library "$program"
  if [ -n "$url" ]; then
    out=$(env -u LD_LIBRARY_PATH "$program" "$url") || fail "$how: hello $url failed"
    grep -q 'bytes' <<<"$out" || fail "$how: hello $url printed no size: $out"
  fi
  echo "check-quickstart: $how: built and ran against $expected_lib"
done
