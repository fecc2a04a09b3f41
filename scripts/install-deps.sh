#!/usr/bin/env bash
# Installs, from Debian's packages, everything the build, the tests, the benchmarks and the fuzzers use.
# Idempotent: when every package is present it asks apt nothing and returns at once.
set -euo pipefail

PACKAGES=(
  make g++ cmake ninja-build pkg-config git ca-certificates
  libcurl4-openssl-dev libsqlite3-dev libproxy-dev
  libproxy1-plugin-webkit squid-openssl  # the proxy tests: PAC scripts run by libproxy, a real squid
  libgtest-dev libgmock-dev libbenchmark-dev libssl-dev libcpp-httplib-dev
  sqlite3 curl openssl time
  clang libclang-rt-14-dev clang-format
  g++-mingw-w64-x86-64-posix wine64 wine
  tcl libz-mingw-w64-dev patch python3 iproute2  # Windows libcurl/SQLite builds, test servers, port 80 namespace
  doxygen lintian abigail-tools dpkg-dev fakeroot
  libpoco-dev libabsl-dev  # benchmark peers only: the library never links them
)

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
