#!/usr/bin/env bash
# Installs, from Debian's packages, what the project needs, with apt-get install -y.
# Idempotent: when every package is present it asks apt nothing and returns at once.
#
# usage: scripts/install-deps.sh [--library | --package] [--list]
#   (none)     everything: the library, the tests, the benchmarks, the fuzzers, the Windows build
#              under Wine, the Debian packages and the API reference (what `make test` uses)
#   --library  only what building and installing the library and the zoth tool needs (what
#              `make library` uses): no test, benchmark, Windows or packaging tool
#   --package  --library's packages and the Debian packaging tools (what `make package` uses)
#   --list     print the chosen packages, one a line, and install nothing
set -euo pipefail

# Building the library and the tool: compiler and build tools, libcurl, SQLite, libproxy (the
# system's proxy settings), OpenSSL's libcrypto (digests), cpp-httplib (the server of `zoth demo`).
LIBRARY=(
  make g++ cmake ninja-build pkg-config ca-certificates
  libcurl4-openssl-dev libsqlite3-dev libproxy-dev libssl-dev libcpp-httplib-dev
)
# Making and checking the Debian packages: dpkg-shlibdeps, lintian.
PACKAGING=(dpkg-dev fakeroot lintian file)
# Everything else: tests, benchmarks, fuzzers, the Windows build, packages, docs.
CONTRIBUTOR=(
  git
  libproxy1-plugin-webkit squid-openssl  # the proxy tests: PAC scripts run by libproxy, a real squid
  libgtest-dev libgmock-dev libbenchmark-dev
  sqlite3 curl openssl time
  clang libclang-rt-14-dev clang-format
  g++-mingw-w64-x86-64-posix wine64 wine
  tcl libz-mingw-w64-dev patch python3 iproute2  # Windows libcurl/SQLite builds, test servers, port 80 namespace
  doxygen abigail-tools
  libpoco-dev libabsl-dev  # benchmark peers only: the library never links them
  valgrind  # instructions per request (scripts/count-instructions.sh)
)

set_name=all
list=0
for arg in "$@"; do
  case $arg in
  --library) set_name=library ;;
  --package) set_name=package ;;
  --list) list=1 ;;
  *)
    echo "usage: scripts/install-deps.sh [--library | --package] [--list]" >&2
    exit 2
    ;;
  esac
done
PACKAGES=("${LIBRARY[@]}")
if [ "$set_name" != library ]; then PACKAGES+=("${PACKAGING[@]}"); fi
if [ "$set_name" = all ]; then PACKAGES+=("${CONTRIBUTOR[@]}"); fi

if [ "$list" = 1 ]; then
  printf '%s\n' "${PACKAGES[@]}"
  exit 0
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
