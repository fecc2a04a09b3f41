#!/usr/bin/env bash
# The Windows step: builds libcurl and SQLite for Windows from Debian's sources when they are not in
# the cache yet (scripts/build-windows-deps.sh), cross-builds ZOTHCommonDll.dll, zoth.exe and the test
# programs with mingw-w64 (preset windows), then runs under Wine (Windows 10 mode), headless, in a
# prefix of its own:
# - every GoogleTest program: text, files, tasks and timers, the WinINet road, HTTP over libcurl
#   (plain-HTTP servers in the program; TLS against Linux-side servers, tests/support/tls_servers.py,
#   that this script starts and stops), the database suites and the umbrella client;
# - zoth.exe: a digest, the DLL's version resource, get/download/upload/speed/sql against the
#   Linux-side servers, TLS verification with a CA file, `wget` against a loopback server on port 80,
#   and the demo;
# - the examples, built as Windows clients of the installed package with CMake, and run.
#
# usage: scripts/run-windows-tests.sh
# Ends with "N passed, N failed"; exits non-zero on any failure.
set -uo pipefail
cd "$(dirname "$0")/.."

for tool in x86_64-w64-mingw32-g++-posix wine; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "run-windows-tests: $tool missing (run scripts/install-deps.sh)" >&2
    exit 2
  fi
done

step_start=$(date +%s)
echo "--- libcurl and SQLite for Windows (scripts/build-windows-deps.sh)"
deps_start=$(date +%s)
bash scripts/build-windows-deps.sh >/dev/null || exit 1
echo "--- libcurl and SQLite ready in $(($(date +%s) - deps_start)) s"
echo "--- build (preset windows)"
cmake --preset windows >/dev/null || exit 1
cmake --build --preset windows || exit 1
bin=build/windows/bin

work=$(mktemp -d /tmp/zoth-windows-XXXXXX)
export WINEPREFIX=$work/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" LANG=C.UTF-8 LC_ALL=C.UTF-8
server_pid=""
tls_pid=""
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
  [ -n "$tls_pid" ] && kill "$tls_pid" 2>/dev/null && wait "$tls_pid" 2>/dev/null
  wineserver -k >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

start=$(date +%s)
wine wineboot --init >/dev/null 2>&1
# Windows 10 mode: Wine's default (Windows 7) refuses a certificate that names its host only in the
# subjectAltName, as the test certificates do.
wine winecfg -v win10 >/dev/null 2>&1
echo "--- wine prefix ready in $(($(date +%s) - start)) s ($WINEPREFIX)"

# The Linux-side servers: HTTPS with the run's own CA, and plain HTTP (tests/support/tls_servers.py).
mkdir -p "$work/tls"
python3 tests/support/tls_servers.py "$work/tls" 2>"$work/tls.log" &
tls_pid=$!
for _ in $(seq 1 300); do [ -e "$work/tls/fixture.txt" ] && break; sleep 0.1; done
if [ ! -e "$work/tls/fixture.txt" ]; then
  cat "$work/tls.log"
  echo "run-windows-tests: the Linux-side servers did not start" >&2
  exit 1
fi
export ZOTH_TLS_FIXTURE
ZOTH_TLS_FIXTURE=$(winepath -w "$work/tls/fixture.txt" 2>/dev/null)
fixture() { sed -n "s/^$1=//p" "$work/tls/fixture.txt"; }

passed=0
failed=0
pass() { passed=$((passed + 1)); echo "ok    $1"; }
fail() { failed=$((failed + 1)); echo "FAIL  $1"; }

# run_gtest PROGRAM: adds the program's own passed and failed counts (gtest's brief output: the
# failures one line each, then the totals); a program that ends without its totals (a crash, a hang
# cut by the timeout) counts as one failure more.
run_gtest() { # run_gtest PROGRAM [RUNNER]: RUNNER (a command or function) runs wine
  local program=$1 runner=${2:-} log=$work/$1.log status p f
  echo "--- $program (under Wine)"
  (cd "$bin" && $runner timeout 600 wine "$program.exe") >"$log" 2>&1
  status=$?
  tr -d '\r' <"$log" | grep -av '^Running main() from\|^\[ RUN  *\]\|^\[       OK \]\|^\[----------\]'
  p=$(tr -d '\r' <"$log" | sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p' | tail -1)
  f=$(tr -d '\r' <"$log" | grep -ac '^\[  FAILED  \] [A-Za-z0-9_/]*\.[A-Za-z0-9_/]* (')
  passed=$((passed + ${p:-0}))
  failed=$((failed + f))
  if ! tr -d '\r' <"$log" | grep -aq '^\[==========\] [0-9]* tests\? from .* ran\.' ||
    { [ "$status" -ne 0 ] && [ "$f" -eq 0 ]; }; then
    fail "$program ended without its totals (exit $status), in: $(tr -d '\r' <"$log" | grep -a '^\[ RUN' | tail -1)"
  fi
}

# Port 80, which the WinINet road uses: where the machine permits, its checks run in a network
# namespace of their own with the loopback up, and a wineserver of their own on a copy of the prefix
# (a wineserver's sockets live in the namespace it started in), so a web server on the machine
# neither fails them nor is disturbed. Elsewhere they take the machine's port 80 when it is free.
netns=false
if unshare --net ip link set lo up 2>/dev/null; then
  netns=true
  wineserver -w # the prefix is written out when its server ends
  cp -a "$WINEPREFIX" "$work/prefix80"
  echo "--- port 80: a network namespace of its own (unshare --net)"
else
  echo "--- port 80: no network namespace here (unshare --net refused): the machine's own port 80"
fi
in_port80() { # in_port80 CMD...: CMD where the port 80 checks run
  if $netns; then
    unshare --net env WINEPREFIX="$work/prefix80" bash -c \
      'ip link set lo up && "$@"; status=$?; wineserver -k 2>/dev/null; exit $status' port80 "$@"
  else
    "$@"
  fi
}
# A port 80 check that could not run is loud, and a failure under CI.
port80_skipped() {
  if [ "${CI:-}" = true ]; then
    fail "$1 (CI=true: the WinINet checks must run)"
  else
    echo "SKIPPED $1" >&2
  fi
}

for program in text_tests file_tests task_tests http_tests database_tests database_demo_tests cli_tests \
  cli_http_tests umbrella_client_tests tour_tests; do
  run_gtest "$program"
done
run_gtest wininet_tests in_port80
if tr -d '\r' <"$work/wininet_tests.log" | grep -aq '^\[  SKIPPED \] HttpWininet\.GetAndPostOnPort80'; then
  port80_skipped "HttpWininet.GetAndPostOnPort80: port 80 on 127.0.0.1 could not be bound"
fi

echo "--- zoth.exe (under Wine)"
zoth() { (cd "$bin" && timeout 120 wine zoth.exe "$@"); }

out=$(zoth md5 -s abc 2>&1 | tr -d '\r')
[ "$out" = "900150983cd24fb0d6963f7d28e17f72" ] && pass "zoth md5 -s abc" || fail "zoth md5 -s abc: $out"

# The DLL's version resource, read through the system's version calls.
version=$(sed -n 's/^project(ZOTHCommon VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
out=$(zoth version ZOTHCommonDll.dll 2>&1 | tr -d '\r')
[[ "$out" == "$version.0 (packed "* ]] && pass "zoth version ZOTHCommonDll.dll: $out" ||
  fail "zoth version ZOTHCommonDll.dll: $out (expected $version.0)"

# The HTTP and SQL commands against the Linux-side servers and a database file.
plain="http://127.0.0.1:$(fixture plain)"
good_localhost="https://localhost:$(fixture good)"
expect() { # expect NAME WANTED_STATUS WANTED_OUTPUT COMMAND...: status and standard output
  local name=$1 want_status=$2 want=$3 out status
  shift 3
  out=$(zoth "$@" 2>"$work/err" | tr -d '\r')
  status=$?
  if [ "$status" -eq "$want_status" ] && [ "$out" = "$want" ]; then
    pass "zoth $name"
  else
    fail "zoth $name: exit $status, said: $out $(tr -d '\r' <"$work/err")"
  fi
}
expect "get http" 0 "/hello:" get "$plain/hello"
expect "post http" 0 "/p:data" post "$plain/p" data
printf 'uploaded bytes' >"$work/up.txt"
expect "upload http" 0 "/up:uploaded bytes" upload "$plain/up" "$(winepath -w "$work/up.txt")"
out=$(zoth download "$plain/big/1000000" "$(winepath -w "$work/dl.bin")" 2>&1 | tr -d '\r')
[ "$(stat -c %s "$work/dl.bin" 2>/dev/null)" = 1000000 ] && pass "zoth download: $out" || fail "zoth download: $out"
# A stream of about 3 s: the 1 s limit ends the probe (a shorter body would end it under a second,
# which the probe's whole-second arithmetic reports as infinite).
out=$(zoth speed "$plain/slow/3" 1 2>&1 | tr -d '\r')
[[ "$out" =~ ^[0-9]+\.[0-9]+\ Mbit/s ]] && pass "zoth speed: $out" || fail "zoth speed: $out"
ca=$(fixture ca)
other_ca=$(fixture other_ca)
expect "get --cacert ca.pem https://localhost" 0 "/tls:" get --cacert "$ca" "$good_localhost/tls"
out=$(zoth get --cacert "$other_ca" "$good_localhost/tls" 2>&1 | tr -d '\r')
status=$?
[ "$status" -ne 0 ] && [[ "$out" == *"libcurl code 60"* ]] && pass "zoth get --cacert other-ca.pem: $out" ||
  fail "zoth get --cacert other-ca.pem: exit $status, said: $out"
# -v: the proxy, the connection and the TLS version Schannel negotiated, on stderr; credentials nowhere.
out=$(zoth get -v --proxy-user alice:secret "$good_localhost/verbose" 2>&1 >/dev/null | tr -d '\r')
[[ "$out" == *"zoth: proxy: none (direct)"*"zoth: connection: new"*"zoth: tls: TLSv1."* ]] && [[ "$out" != *secret* ]] &&
  pass "zoth get -v https: $(echo "$out" | tr '\n' ' ')" || fail "zoth get -v https: $out"
db=$(winepath -w "$work/cli.db")
expect "sql --exec" 0 "" sql --exec "$db" "CREATE TABLE t(a, b); INSERT INTO t VALUES(1, 'x');"
expect "sql SELECT" 0 $'a\tb\n1\tx' sql "$db" "SELECT a, b FROM t"
out=$(sqlite3 "$work/cli.db" "SELECT b FROM t WHERE a = 1" 2>&1)
[ "$out" = x ] && pass "Linux's sqlite3 reads the database zoth.exe wrote" || fail "Linux's sqlite3: $out"

# wget: WinINet on port 80 against a one-answer server on the Linux side of loopback, both where
# the port 80 checks run; exit 3 when port 80 could not be had within 20 s.
cat >"$work/wget80.sh" <<'EOF_WGET'
perl -MIO::Socket::INET -e '
  my $s;
  for (1 .. 200) { # port 80 may be held for a moment by another program; wait up to 20 s
    last if $s = IO::Socket::INET->new(LocalAddr => "127.0.0.1", LocalPort => 80, Listen => 5, ReuseAddr => 1);
    select(undef, undef, undef, 0.1);
  }
  $s or die "cannot listen on 127.0.0.1:80: $!\n";
  open(my $ready, ">", $ARGV[0]); close($ready);
  while (my $c = $s->accept) {
    my $request = ""; while (<$c>) { $request .= $_; last if $_ eq "\r\n"; }
    my ($path) = $request =~ m{^GET (\S+)};
    my $body = "served $path\n";
    print $c "HTTP/1.1 200 OK\r\nContent-Length: " . length($body) . "\r\nConnection: close\r\n\r\n$body";
    close($c);
  }' "$work/listening" 2>"$work/server.log" &
server=$!
for _ in $(seq 1 500); do [ -e "$work/listening" ] && break; kill -0 $server 2>/dev/null || break; sleep 0.05; done
[ -e "$work/listening" ] || exit 3
(cd "$bin" && timeout 120 wine zoth.exe wget 127.0.0.1 /hello) 2>&1 | tr -d '\r'
kill $server 2>/dev/null
wait $server 2>/dev/null
exit 0
EOF_WGET
out=$(work=$work bin=$bin in_port80 bash "$work/wget80.sh")
status=$?
if [ "$status" -eq 3 ]; then
  port80_skipped "zoth wget: $(cat "$work/server.log")"
else
  [ "$out" = "served /hello" ] && pass "zoth wget 127.0.0.1 /hello" || fail "zoth wget: $out $(cat "$work/server.log")"
fi

# The examples build as Windows clients of the installed package, with CMake and the toolchain file
# a client would use (find_package(ZOTHCommon) and, through it, libcurl's and SQLite's), and run
# from the prefix's bin/, which holds every DLL they need.
echo "--- examples (Windows clients of the installed package)"
prefix=$work/install
if cmake --install build/windows --prefix "$prefix" >"$work/install.log" 2>&1; then
  pass "cmake --install (windows) into a prefix"
else
  cat "$work/install.log"
  fail "cmake --install (windows) into a prefix"
fi
for folder in examples/*/; do
  name=$(basename "$folder")
  # (-O2 as the preset builds: GCC 12 at -O3 gives a false -Wrestrict inside std::string, GCC bug 105329)
  if cmake -S "$folder" -B "$work/example-$name" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake" -DCMAKE_FIND_ROOT_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" >"$work/$name.log" 2>&1 &&
    cmake --build "$work/example-$name" >>"$work/$name.log" 2>&1 &&
    cp "$work/example-$name/$name.exe" "$prefix/bin/"; then
    pass "example $name builds for Windows against the installed package"
  else
    tail -30 "$work/$name.log"
    fail "example $name builds for Windows against the installed package"
  fi
done
example() { (cd "$prefix/bin" && timeout 120 wine "$@") 2>&1 | tr -d '\r'; }
out=$(example periodic_job.exe)
[[ "$out" == *"ended"* ]] && pass "example periodic_job runs: $(echo "$out" | tail -1)" ||
  fail "example periodic_job runs: $(echo "$out" | tail -3)"
md5=$(curl -s "$plain/big/700000" | md5sum | cut -c1-32)
out=$(example download_verify.exe "$(winepath -w "$work/verify.db")" "$(winepath -w "$work")" \
  "$plain/big/700000#$md5")
status=$?
[ "$status" -eq 0 ] && [ "$(stat -c %s "$work/700000" 2>/dev/null)" = 700000 ] &&
  pass "example download_verify runs: $(echo "$out" | tail -1)" ||
  fail "example download_verify runs (exit $status): $(echo "$out" | tail -3)"

# The delay-load road, for clients who ship their own libcurl and SQLite: the DLL and zoth.exe built
# with ZOTH_WINDOWS_DELAY_LOAD=ON load and serve without the two DLLs (the commands that need one
# refuse in one line) and use them once they are beside the program.
echo "--- the delay-load road (ZOTH_WINDOWS_DELAY_LOAD=ON)"
launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
if cmake --preset windows -B build/windows-delay -DZOTH_WINDOWS_DELAY_LOAD=ON -DZOTH_BUILD_TESTS=OFF \
  "${launcher[@]}" >"$work/delay.log" 2>&1 && cmake --build build/windows-delay --target zoth -j2 >>"$work/delay.log" 2>&1; then
  delay=$work/delay
  mkdir -p "$delay"
  cp build/windows-delay/bin/zoth.exe build/windows-delay/bin/ZOTHCommonDll.dll "$bin"/lib*-*.dll "$delay/"
  rm -f "$delay/libcurl-x64.dll"
  dzoth() { (cd "$delay" && timeout 120 wine zoth.exe "$@") 2>&1 | tr -d '\r'; }
  refused() { # refused DLL COMMAND...: exit 1 and one line naming DLL
    local dll=$1 out status
    shift
    out=$(dzoth "$@")
    status=$?
    [ "$(printf '%s\n' "$out" | wc -l)" -eq 1 ] && [[ "$out" == *"$dll"* ]] && pass "delay-loaded zoth $1 without $dll: $out" ||
      fail "delay-loaded zoth $1 without $dll: $out"
  }
  [ "$(dzoth md5 -s abc)" = 900150983cd24fb0d6963f7d28e17f72 ] && pass "delay-loaded zoth md5 without either DLL" ||
    fail "delay-loaded zoth md5 without either DLL"
  refused libcurl-x64.dll get "$plain/x"
  refused sqlite3.dll sql "$(winepath -w "$work/delay.db")" "SELECT 1"
  cp "$bin/libcurl-x64.dll" "$bin/sqlite3.dll" "$delay/"
  out=$(dzoth get --cacert "$(fixture ca_folder)" "$good_localhost/delayed")
  [ "$out" = "/delayed:" ] && pass "delay-loaded zoth get --cacert FOLDER with the DLL beside it" ||
    fail "delay-loaded zoth get with the DLL beside it: $out"
  out=$(dzoth sql "$(winepath -w "$work/delay.db")" "SELECT 2")
  [ "$out" = $'2\n2' ] && pass "delay-loaded zoth sql with the DLL beside it" || fail "delay-loaded zoth sql: $out"
else
  tail -30 "$work/delay.log"
  fail "the delay-load build"
fi

# The demo runs every step, none skipped.
zoth demo >"$work/demo.log" 2>&1
status=$?
tr -d '\r' <"$work/demo.log" | sed -n '/^subsystem/,$p'
summary=$(tr -d '\r' <"$work/demo.log" | tail -1)
if [ "$status" -eq 0 ] && [[ "$summary" == *" 0 failed"* ]] && [[ "$summary" != *skipped* ]]; then
  pass "zoth demo: $summary"
else
  fail "zoth demo (exit $status): $summary"
fi

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
