#!/usr/bin/env bash
# Builds the two DLLs the Windows library links, from Debian's own source packages, with mingw-w64:
# - libcurl-x64.dll: libcurl with Windows' TLS (Schannel, no OpenSSL), zlib linked in statically;
# - sqlite3.dll and sqlite3.exe (the shell, for the tests that drive it);
# with their import libraries, headers, CMake and pkg-config files and licence notices; and, for the
# tests' loopback servers only, cpp-httplib (plain HTTP over Winsock) as a static library in test/;
# into
#   ${XDG_CACHE_HOME:-~/.cache}/zoth-common/windows-deps/<key>
# where <key> covers the source versions (those of the Linux development packages, so both builds use
# the same libcurl and SQLite), the compiler's version and this script's own content. When that folder
# exists the script does nothing (and needs no network). A build runs in a temporary folder beside it
# and is renamed into place at the end: an interrupted run leaves no half cache.
#
# The sources are fetched with a private apt setup (its own sources file, lists and cache in the
# temporary folder) that repeats the machine's Debian entries as deb-src: the machine's apt
# configuration and caches are not touched, and the signed index authenticates the download.
#
# usage: scripts/build-windows-deps.sh [--print-dir]
#   --print-dir  print the cache folder this machine's build would use, build nothing
# Prints the folder on its last line of standard output.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
triplet=x86_64-w64-mingw32
cc=$triplet-gcc-posix

log() { echo "build-windows-deps: $*" >&2; }
die() {
  log "$*"
  exit 1
}

for tool in $cc dpkg-query dpkg-source apt-get cmake ninja tclsh patch python3; do
  command -v "$tool" >/dev/null 2>&1 || die "$tool missing (run scripts/install-deps.sh)"
done

source_version() { # PACKAGE: the source version of an installed package, "" when absent
  dpkg-query -W -f='${source:Version}' "$1" 2>/dev/null || true
}
curl_version=$(source_version libcurl4-openssl-dev)
sqlite_version=$(source_version libsqlite3-dev)
zlib_version=$(source_version libz-mingw-w64-dev)
httplib_version=$(source_version libcpp-httplib-dev)
[ -n "$curl_version" ] && [ -n "$sqlite_version" ] && [ -n "$zlib_version" ] && [ -n "$httplib_version" ] ||
  die "libcurl4-openssl-dev, libsqlite3-dev, libcpp-httplib-dev or libz-mingw-w64-dev missing (run scripts/install-deps.sh)"
compiler=$($cc --version | head -1)
script_hash=$(sha256sum "$here/scripts/build-windows-deps.sh" "$here/cmake/mingw-w64-x86_64.cmake" | sha256sum | cut -c1-16)
manifest="curl $curl_version
sqlite3 $sqlite_version
zlib (libz-mingw-w64) $zlib_version
cpp-httplib (tests only) $httplib_version
compiler $compiler
script $script_hash"
key=$(printf '%s\n' "$manifest" | sha256sum | cut -c1-16)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/zoth-common/windows-deps
dest=$cache/curl-${curl_version%%-*}-sqlite-${sqlite_version%%-*}-$key

if [ "${1:-}" = "--print-dir" ]; then
  echo "$dest"
  exit 0
fi
if [ -f "$dest/MANIFEST" ]; then
  log "present: $dest"
  echo "$dest"
  exit 0
fi

mkdir -p "$cache"
work=$(mktemp -d "$cache/.build-XXXXXX")
trap 'rm -rf "$work"' EXIT
out=$work/out
mkdir -p "$out"/{bin,lib,include,share/licenses/{curl,sqlite3,zlib}} "$out"/test/{include,lib} "$work/src"
start=$(date +%s)

# --- fetch: a private apt setup whose only entries are the machine's own, as source entries
apt_dir=$work/apt
mkdir -p "$apt_dir"/{sources.list.d,lists/partial,cache/archives/partial}
for f in /etc/apt/sources.list.d/*.sources; do
  [ -e "$f" ] || continue
  sed 's/^Types:.*/Types: deb-src/' "$f" >"$apt_dir/sources.list.d/$(basename "$f")"
done
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -e "$f" ] || continue
  sed -n 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "$f" >"$apt_dir/sources.list.d/$(basename "$f")"
done
apt_private=(-o Dir::Etc::sourcelist=/nonexistent -o Dir::Etc::sourceparts="$apt_dir/sources.list.d"
  -o Dir::State::Lists="$apt_dir/lists" -o Dir::Cache="$apt_dir/cache" -o Debug::NoLocking=1
  -o APT::Sandbox::User=root -q)
log "fetching Debian's sources: curl $curl_version, sqlite3 $sqlite_version, cpp-httplib $httplib_version"
apt-get "${apt_private[@]}" update >"$work/apt.log" 2>&1 || {
  cat "$work/apt.log" >&2
  die "apt-get update (private source lists) failed"
}
(cd "$work/src" && apt-get "${apt_private[@]}" source --download-only \
  "curl=$curl_version" "sqlite3=$sqlite_version" "cpp-httplib=$httplib_version") >>"$work/apt.log" 2>&1 || {
  cat "$work/apt.log" >&2
  die "apt-get source failed"
}

# unpack DSC [SKIP...]: unpacks a source package and applies its patch series but the named ones.
unpack() {
  local dsc=$1 dir
  shift
  dir=$work/src/$(basename "$dsc" .dsc)
  # (dpkg-source's notes about the uploader's signature go to the log: the signed index already
  # authenticated the files)
  dpkg-source -q -x --skip-patches "$dsc" "$dir" >>"$work/unpack.log" 2>&1 || {
    cat "$work/unpack.log" >&2
    die "dpkg-source -x $(basename "$dsc") failed"
  }
  if [ -f "$dir/debian/patches/series" ]; then
    sed 's/#.*//' "$dir/debian/patches/series" | while read -r p _; do
      [ -n "$p" ] || continue
      for skip in "$@"; do [ "$p" = "$skip" ] && continue 2; done
      patch -s -d "$dir" -p1 <"$dir/debian/patches/$p" || die "patch $p of $(basename "$dsc") failed"
    done
  fi
  echo "$dir"
}

# --- SQLite: the amalgamation made natively, then compiled as a DLL and the shell against it
sqlite_src=$(unpack "$(ls "$work"/src/sqlite3_*.dsc)")
log "fetched in $(($(date +%s) - start)) s; building sqlite3.dll"
mkdir -p "$work/sqlite-native"
(cd "$work/sqlite-native" && "$sqlite_src/configure" --disable-tcl >/dev/null &&
  make -s sqlite3.c shell.c >/dev/null 2>&1) || die "SQLite amalgamation failed"
sqlite_flags=(-O2 -DSQLITE_THREADSAFE=1 -DSQLITE_ENABLE_COLUMN_METADATA -DSQLITE_ENABLE_FTS3
  -DSQLITE_ENABLE_FTS4 -DSQLITE_ENABLE_FTS5 -DSQLITE_ENABLE_RTREE -DSQLITE_ENABLE_DBSTAT_VTAB
  -DSQLITE_ENABLE_UNLOCK_NOTIFY -DSQLITE_SECURE_DELETE -DSQLITE_MAX_SCHEMA_RETRY=25)
(cd "$work/sqlite-native" &&
  $cc "${sqlite_flags[@]}" -shared sqlite3.c -o "$out/bin/sqlite3.dll" \
    -Wl,--out-implib,"$out/lib/libsqlite3.dll.a" &&
  $cc -O2 -DSQLITE_ENABLE_COLUMN_METADATA -I. shell.c -o "$out/bin/sqlite3.exe" "$out/lib/libsqlite3.dll.a") ||
  die "SQLite for Windows failed"
cp "$work/sqlite-native/sqlite3.h" "$work/sqlite-native/sqlite3ext.h" "$out/include/"
sqlite_upstream=${sqlite_version%%-*}
mkdir -p "$out/lib/pkgconfig"
cat >"$out/lib/pkgconfig/sqlite3.pc" <<EOF
prefix=\${pcfiledir}/../..
libdir=\${prefix}/lib
includedir=\${prefix}/include

Name: SQLite
Description: SQL database engine (sqlite3.dll)
Version: $sqlite_upstream
Libs: -L\${libdir} -lsqlite3
Cflags: -I\${includedir}
EOF
cp "$sqlite_src/debian/copyright" "$out/share/licenses/sqlite3/copyright"

# --- libcurl: Debian's patches but the last two (they only rename the library for Debian's TLS
# variants), Schannel, zlib linked in statically, no CA bundle or folder compiled in
curl_src=$(unpack "$(ls "$work"/src/curl_*.dsc)" 90_gnutls.patch 99_nss.patch)
log "sqlite3.dll built at $(($(date +%s) - start)) s; building libcurl-x64.dll"
cmake -S "$curl_src" -B "$work/curl-build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-x86_64.cmake" -DCMAKE_CROSSCOMPILING_EMULATOR= \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$out" \
  -DBUILD_SHARED_LIBS=ON -DLIBCURL_OUTPUT_NAME=libcurl-x64 -DBUILD_CURL_EXE=OFF -DBUILD_TESTING=OFF \
  -DCURL_USE_SCHANNEL=ON -DCURL_USE_OPENSSL=OFF -DCURL_DISABLE_LDAP=ON -DCURL_USE_LIBSSH2=OFF \
  -DUSE_LIBIDN2=OFF -DCURL_BROTLI=OFF -DCURL_ZSTD=OFF -DUSE_NGHTTP2=OFF -DENABLE_MANUAL=OFF \
  -DCURL_CA_BUNDLE=none -DCURL_CA_PATH=none \
  -DCURL_ZLIB=ON -DZLIB_INCLUDE_DIR=/usr/$triplet/include -DZLIB_LIBRARY=/usr/$triplet/lib/libz.a \
  >"$work/curl-configure.log" 2>&1 || {
  tail -40 "$work/curl-configure.log" >&2
  die "libcurl configure failed"
}
cmake --build "$work/curl-build" >"$work/curl-build.log" 2>&1 || {
  tail -40 "$work/curl-build.log" >&2
  die "libcurl build failed"
}
cmake --install "$work/curl-build" >/dev/null
rm -f "$out/bin/curl-config" # a shell script for the Linux side, of no use to a Windows client
# libcurl's pkg-config file names the build folder and the library's Linux name: relative to itself,
# with the import library's own name, so the folder can move.
sed -i -e 's|^prefix=.*|prefix=${pcfiledir}/../..|' -e 's|^Libs: -L${libdir} -lcurl|Libs: -L${libdir} -lcurl-x64|' \
  "$out/lib/pkgconfig/libcurl.pc"
cp "$curl_src/COPYING" "$out/share/licenses/curl/COPYING"
cp "/usr/share/doc/libz-mingw-w64-dev/copyright" "$out/share/licenses/zlib/copyright"

# --- cpp-httplib for the tests' plain-HTTP servers: split into a header and one source as Debian's
# build does, compiled without OpenSSL (TLS test servers run on the Linux side)
httplib_src=$(unpack "$(ls "$work"/src/cpp-httplib_*.dsc)")
log "libcurl built at $(($(date +%s) - start)) s; building cpp-httplib (tests only)"
(python3 "$httplib_src/split.py" -o "$work/httplib" >/dev/null &&
  $triplet-g++-posix -std=c++17 -O1 -D_WIN32_WINNT=0x0A00 -c "$work/httplib/httplib.cc" -o "$work/httplib/httplib.o" &&
  $triplet-ar rcs "$out/test/lib/libcpp-httplib.a" "$work/httplib/httplib.o" &&
  cp "$work/httplib/httplib.h" "$out/test/include/" && cp "$httplib_src/LICENSE" "$out/test/LICENSE.cpp-httplib") ||
  die "cpp-httplib for Windows failed"

# Nothing but Windows' own DLLs and these two may be needed at run time.
for dll in "$out"/bin/*.dll "$out/bin/sqlite3.exe"; do
  extra=$($triplet-objdump -p "$dll" | sed -n 's/^[[:space:]]*DLL Name: //p' |
    grep -viE '^(kernel32|advapi32|crypt32|ws2_32|wldap32|normaliz|bcrypt|secur32|user32|msvcrt|iphlpapi|sqlite3|api-ms-win-.*)\.dll$' || true)
  [ -z "$extra" ] || die "$(basename "$dll") needs $extra"
done

printf '%s\n' "$manifest" >"$out/MANIFEST"
if ! mv -T "$out" "$dest" 2>/dev/null; then
  [ -f "$dest/MANIFEST" ] || die "cannot move the build to $dest"
  log "another run finished first; its build is kept"
fi
log "built in $(($(date +%s) - start)) s: $dest"
echo "$dest"
