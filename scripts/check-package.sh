#!/usr/bin/env bash
# Package check: installs the library into a fresh temporary prefix and builds the programs in
# examples/ against that prefix twice, once through find_package(ZOTHCommon CONFIG) and once through
# pkg-config, then runs them; then follows the README's quickstart to the letter
# (scripts/check-quickstart.sh: against /usr/local, or with --debs against the installed packages),
# and shows that `make library` installs only the minimal dependencies. Any step that goes wrong
# stops the check with a FAILED line.
#
# usage: scripts/check-package.sh [BUILD_DIR]
#        scripts/check-package.sh --debs DEB_DIR
#   Without BUILD_DIR the release preset is configured and built (incrementally) and build/release is
#   installed; with it, that existing build folder is installed as it is. With --debs the Debian
#   packages in DEB_DIR (scripts/check-debs.sh) are extracted with dpkg-deb -x into a throwaway root,
#   whose usr/ is the prefix.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

# The examples the check builds and runs, each a folder of examples/ with a CMakeLists.txt (for
# find_package) and a Makefile (for pkg-config), and a run_<name> function below.
EXAMPLES=(download_verify periodic_job)

fail() {
  echo "check-package: FAILED: $*" >&2
  exit 1
}
step() { echo "=== check-package: $*"; }

debs=""
if [ $# -eq 2 ] && [ "$1" = --debs ]; then
  debs=$2
  [ -d "$debs" ] || fail "$debs is not a folder"
elif [ $# -gt 1 ]; then
  echo "usage: scripts/check-package.sh [BUILD_DIR | --debs DEB_DIR]" >&2
  exit 2
elif [ $# -eq 1 ]; then
  build=$1
  [ -f "$build/CMakeCache.txt" ] || fail "$build is not a configured build folder"
else
  build=build/release
  step "configure and build the release preset"
  cmake --preset release >/dev/null || fail "cmake --preset release"
  cmake --build --preset release || fail "cmake --build --preset release"
fi

tmp=$(mktemp -d /tmp/zoth-package-XXXXXX)
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$tmp"
}
trap cleanup EXIT

if [ -n "$debs" ]; then
  # As dpkg would lay the packages out, minus the maintainer scripts (ldconfig), in a root of our own.
  prefix=$tmp/root/usr
  mapfile -t packages < <(find "$debs" -maxdepth 1 -name '*.deb' | LC_ALL=C sort)
  [ ${#packages[@]} -gt 0 ] || fail "no .deb files in $debs"
  for deb in "${packages[@]}"; do
    step "extract $(basename "$deb") into $tmp/root"
    dpkg-deb -x "$deb" "$tmp/root" || fail "dpkg-deb -x $deb"
    [ -f "$tmp/root/usr/share/doc/$(dpkg-deb -f "$deb" Package)/copyright" ] || fail "$deb has no copyright file"
  done
else
  prefix=$tmp/prefix
  step "install $build into $prefix"
  cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" || { cat "$tmp/install.log"; fail "cmake --install"; }
fi

# --- The installed layout ---------------------------------------------------------------------------
libfile=$(find "$prefix" -name 'libZOTHCommonDll.so.*.*.*' -type f | head -n 1)
[ -n "$libfile" ] || fail "no versioned libZOTHCommonDll.so.X.Y.Z in the prefix"
libdir=$(dirname "$libfile")
# On Debian the library, the CMake package and the .pc file go to the multiarch folder, for any prefix.
if [ -f /etc/debian_version ]; then
  [ "$libdir" = "$prefix/lib/$(gcc -print-multiarch)" ] || fail "the library is in $libdir, not in Debian's multiarch folder"
fi
soname=$(readelf -d "$libfile" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libZOTHCommonDll.so.1" ] || fail "soname is '$soname', expected libZOTHCommonDll.so.1"
[ -L "$libdir/libZOTHCommonDll.so.1" ] || fail "missing link $libdir/libZOTHCommonDll.so.1"
[ -L "$libdir/libZOTHCommonDll.so" ] || fail "missing development link $libdir/libZOTHCommonDll.so"
[ -x "$prefix/bin/zoth" ] || fail "the zoth tool is not installed in $prefix/bin"
[ -f "$prefix/include/zoth/platform/Win32Types.h" ] || fail "public headers missing under $prefix/include/zoth"
# Every public header of the source tree is installed.
while IFS= read -r header; do
  [ -f "$prefix/$header" ] || fail "header $header not installed"
done < <(find include/zoth -name '*.h')
config=$(find "$prefix" -name ZOTHCommonConfig.cmake | head -n 1)
[ -n "$config" ] || fail "no ZOTHCommonConfig.cmake in the prefix"
# The exported target names the include folder once.
includes=$(sed -n 's/^ *INTERFACE_INCLUDE_DIRECTORIES "\(.*\)"$/\1/p' "$(dirname "$config")/ZOTHCommonTargets.cmake")
# shellcheck disable=SC2016 # the literal text of the targets file
[ "$includes" = '${_IMPORT_PREFIX}/include' ] ||
  fail "ZOTH::Common's INTERFACE_INCLUDE_DIRECTORIES is '$includes', expected the include folder once"
pcfile=$(find "$prefix" -name zoth-common.pc | head -n 1)
[ -n "$pcfile" ] || fail "no zoth-common.pc in the prefix"
pcdir=$(dirname "$pcfile")

# The tool runs from the prefix with nothing in LD_LIBRARY_PATH: it finds the library by its rpath.
version=$(env -u LD_LIBRARY_PATH "$prefix/bin/zoth" --version) || fail "installed zoth --version"
env -u LD_LIBRARY_PATH "$prefix/bin/zoth" --help >/dev/null || fail "installed zoth --help"
echo "installed: $soname, zoth --version: $version"

# Every installed header compiles on its own with nothing but the package's flags: none of them may
# lean on the source tree's private headers.
step "compile each installed header alone"
pc_cflags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags zoth-common) || fail "pkg-config --cflags zoth-common"
# The library links libcurl and SQLite itself: a client's link line names only the library, else a
# linker without --as-needed (clang++, g++ -fsanitize) makes every client load both directly.
pc_libs=$(PKG_CONFIG_PATH=$pcdir pkg-config --libs zoth-common) || fail "pkg-config --libs zoth-common"
! grep -qE -- '-l(curl|sqlite3)\b' <<<"$pc_libs" || fail "pkg-config --libs zoth-common names libcurl or SQLite: $pc_libs"
while IFS= read -r header; do
  rel=${header#"$prefix/include/"}
  # shellcheck disable=SC2086 # the flags are meant to be split
  printf '#include "%s"\n' "$rel" | g++ -std=c++20 -Wall -Wextra -Werror $pc_cflags -fsyntax-only -x c++ - ||
    fail "installed header $rel does not compile on its own"
done < <(find "$prefix/include/zoth" -name '*.h' | LC_ALL=C sort)

# --- A loopback file server for the download example ------------------------------------------------
www=$tmp/www
mkdir -p "$www"
head -c 262144 /dev/urandom >"$www/random.bin"
printf 'ZOTH Common package check\n' >"$www/hello.txt"
: >"$www/empty.txt"
md5_of() { md5sum "$1" | cut -d' ' -f1; }

step "start the loopback file server"
# shellcheck disable=SC2046 # pkg-config's flags are meant to be split
g++ -std=c++17 -O1 -o "$tmp/server" scripts/check-package-server.cpp $(pkg-config --cflags --libs cpp-httplib) -pthread ||
  fail "building the loopback server"
"$tmp/server" "$www" "$tmp/port" &
server_pid=$!
for _ in $(seq 1 200); do
  [ -s "$tmp/port" ] && break
  kill -0 "$server_pid" 2>/dev/null || fail "the loopback server ended at start"
  sleep 0.05
done
[ -s "$tmp/port" ] || fail "the loopback server did not start within 10 s"
base="http://127.0.0.1:$(cat "$tmp/port")"
echo "serving $www at $base"

# --- Building the examples --------------------------------------------------------------------------
# build_cmake NAME: configures a copy of examples/NAME against the prefix alone and builds it.
build_cmake() {
  local src=$tmp/cmake/$1
  mkdir -p "$tmp/cmake"
  cp -r "examples/$1" "$src"
  cmake -S "$src" -B "$src/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON \
    >"$src/configure.log" 2>&1 || { cat "$src/configure.log"; fail "$1: cmake configure with find_package"; }
  local found
  found=$(sed -n 's/^ZOTHCommon_DIR:PATH=//p' "$src/build/CMakeCache.txt")
  [ "$found" = "$(dirname "$config")" ] || fail "$1: find_package took ZOTHCommon from '$found', not from the prefix"
  cmake --build "$src/build" || fail "$1: cmake build"
  built=$src/build/$1
}

# build_pkgconfig NAME: builds a copy of examples/NAME with its Makefile and pkg-config.
build_pkgconfig() {
  local src=$tmp/pkgconfig/$1
  mkdir -p "$tmp/pkgconfig"
  cp -r "examples/$1" "$src"
  PKG_CONFIG_PATH=$pcdir make -C "$src" || fail "$1: make with pkg-config"
  built=$src/$1
}

# uses_prefix_library BINARY: the program loads libZOTHCommonDll from the prefix, not from elsewhere.
uses_prefix_library() {
  local resolved
  resolved=$(ldd "$1" | awk '/libZOTHCommonDll/ {print $3}')
  [ -n "$resolved" ] || fail "$1 does not link libZOTHCommonDll"
  [ "$(readlink -f "$resolved")" = "$(readlink -f "$libfile")" ] ||
    fail "$1 loads libZOTHCommonDll from $resolved, not from the prefix"
}

# --- Running the examples ---------------------------------------------------------------------------
run_download_verify() { # BINARY MODE
  local bin=$1 mode=$2 work=$tmp/run-download-$2
  mkdir -p "$work/out"
  local good_random good_hello
  good_random="$base/random.bin#$(md5_of "$www/random.bin")"
  good_hello="$base/hello.txt#$(md5_of "$www/hello.txt")"
  "$bin" "$work/results.db" "$work/out" "$good_random" "$good_hello" "$base/empty.txt" ||
    fail "download_verify ($mode) failed on good downloads"
  cmp -s "$work/out/random.bin" "$www/random.bin" || fail "download_verify ($mode): random.bin differs"
  cmp -s "$work/out/hello.txt" "$www/hello.txt" || fail "download_verify ($mode): hello.txt differs"
  [ -f "$work/out/empty.txt" ] && [ ! -s "$work/out/empty.txt" ] || fail "download_verify ($mode): empty.txt"
  local rows
  rows=$(sqlite3 "$work/results.db" 'SELECT count(*) FROM downloads WHERE verified = 1')
  [ "$rows" = 3 ] || fail "download_verify ($mode): $rows verified rows recorded, expected 3"

  # A wrong digest and a missing file are failures, reported by the exit code and in the database.
  local rc=0
  "$bin" "$work/results.db" "$work/out" "$base/hello.txt#00000000000000000000000000000000" \
    "$base/no-such-file.bin" >"$work/bad.log" 2>&1 || rc=$?
  [ "$rc" = 1 ] || { cat "$work/bad.log"; fail "download_verify ($mode): exit $rc on bad downloads, expected 1"; }
  rows=$(sqlite3 "$work/results.db" 'SELECT count(*) FROM downloads WHERE verified = 0')
  [ "$rows" = 2 ] || fail "download_verify ($mode): $rows failed rows recorded, expected 2"
  [ ! -e "$work/out/no-such-file.bin" ] || fail "download_verify ($mode): a failed download left a file"

  # Bad usage is refused before anything runs.
  rc=0
  "$bin" >/dev/null 2>&1 || rc=$?
  [ "$rc" = 2 ] || fail "download_verify ($mode): exit $rc without arguments, expected 2"
}

run_periodic_job() { # BINARY MODE
  "$1" 600 50 || fail "periodic_job ($2) exited with $?"
}

for mode in cmake pkgconfig; do
  for ex in "${EXAMPLES[@]}"; do
    [ -d "examples/$ex" ] || fail "examples/$ex is missing"
    step "$ex: build through $mode"
    built=""
    "build_$mode" "$ex"
    [ -x "$built" ] || fail "$ex ($mode): no program at $built"
    step "$ex: run ($mode)"
    if [ "$mode" = pkgconfig ]; then
      export LD_LIBRARY_PATH=$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
    fi
    uses_prefix_library "$built"
    "run_$ex" "$built" "$mode"
  done
done

# --- The README's quickstart, to the letter ---------------------------------------------------------
if [ -n "$debs" ]; then
  bash scripts/check-quickstart.sh --debs "$debs" "$base/hello.txt" || fail "the README's quickstart against the packages"
else
  bash scripts/check-quickstart.sh --prefix "$build" "$base/hello.txt" || fail "the README's quickstart against /usr/local"
fi

# --- The minimal dependencies of `make library` ------------------------------------------------------
# `make library` installs scripts/install-deps.sh --library and nothing more; that list and everything
# apt would pull in for it on a bare system (apt-get -s with an empty package status) hold no Wine,
# mingw-w64, POCO, Abseil, squid or test framework.
if [ -z "$debs" ]; then
  step "make library installs only scripts/install-deps.sh --library"
  make_lines=$(make -n library | grep 'install-deps\.sh' || true)
  [ "$make_lines" = "bash scripts/install-deps.sh --library" ] ||
    fail "make library runs '$make_lines', not only scripts/install-deps.sh --library"
  mapfile -t library_packages < <(bash scripts/install-deps.sh --library --list)
  forbidden='wine|mingw|poco|absl|squid|gtest|gmock|benchmark|clang|doxygen|lintian'
  bad=$(printf '%s\n' "${library_packages[@]}" | grep -Ei "$forbidden" || true)
  [ -z "$bad" ] || fail "install-deps.sh --library lists $bad"
  : >"$tmp/empty-status"
  if closure=$(apt-get install -s -q --no-install-recommends -o Dir::State::status="$tmp/empty-status" \
    "${library_packages[@]}" 2>"$tmp/apt.log" | awk '/^Inst / {print $2}'); then
    bad=$(grep -Ei "$forbidden" <<<"$closure" || true)
    [ -z "$bad" ] || fail "on a bare system, install-deps.sh --library would bring in: $(tr '\n' ' ' <<<"$bad")"
    echo "install-deps --library: ${#library_packages[@]} packages named, $(wc -l <<<"$closure") with what they pull in on a bare system, none of them Wine, mingw-w64, POCO, Abseil, squid or a test tool"
  else
    cat "$tmp/apt.log"
    [ "${CI:-}" != true ] || fail "apt-get cannot simulate the library's dependencies"
    echo "check-package: SKIPPED the dependency closure: apt-get cannot simulate it here (above)" >&2
  fi
fi

echo "check-package: all passed (${EXAMPLES[*]}; find_package and pkg-config${debs:+; from the packages in $debs})"
cd "$repo"
