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
run_gtest() {
  local program=$1 log=$work/$1.log status p f
  echo "--- $program (under Wine)"
  (cd "$bin" && timeout 600 wine "$program.exe" --gtest_brief=1) >"$log" 2>&1
  status=$?
  tr -d '\r' <"$log" | grep -av '^Running main() from'
  p=$(tr -d '\r' <"$log" | sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p' | tail -1)
  f=$(tr -d '\r' <"$log" | grep -ac '^\[  FAILED  \] [A-Za-z0-9_/]*\.[A-Za-z0-9_/]* (')
  passed=$((passed + ${p:-0}))
  failed=$((failed + f))
  if ! tr -d '\r' <"$log" | grep -aq '^\[==========\] [0-9]* tests\? from .* ran\.' ||
    { [ "$status" -ne 0 ] && [ "$f" -eq 0 ]; }; then
    fail "$program ended without its totals (exit $status)"
  fi
}

for program in text_tests file_tests task_tests wininet_tests http_tests database_tests database_demo_tests \
  umbrella_client_tests; do
  run_gtest "$program"
done

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
expect "download http" 0 "" download "$plain/big/1000000" "$(winepath -w "$work/dl.bin")"
[ "$(stat -c %s "$work/dl.bin" 2>/dev/null)" = 1000000 ] && pass "zoth download: 1000000 bytes written" ||
  fail "zoth download: $(stat -c %s "$work/dl.bin" 2>&1)"
out=$(zoth speed "$plain/big/5000000" 2 2>&1 | tr -d '\r')
[ $? -eq 0 ] && [ -n "$out" ] && pass "zoth speed: $(echo "$out" | tail -1)" || fail "zoth speed: $out"
ca=$(fixture ca)
other_ca=$(fixture other_ca)
expect "get --cacert ca.pem https://localhost" 0 "/tls:" get --cacert "$ca" "$good_localhost/tls"
out=$(zoth get --cacert "$other_ca" "$good_localhost/tls" 2>&1 | tr -d '\r')
status=$?
[ "$status" -ne 0 ] && [[ "$out" == *"libcurl code 60"* ]] && pass "zoth get --cacert other-ca.pem: $out" ||
  fail "zoth get --cacert other-ca.pem: exit $status, said: $out"
db=$(winepath -w "$work/cli.db")
expect "sql --exec" 0 "" sql --exec "$db" "CREATE TABLE t(a, b); INSERT INTO t VALUES(1, 'x');"
expect "sql SELECT" 0 $'a\tb\n1\tx' sql "$db" "SELECT a, b FROM t"
out=$(sqlite3 "$work/cli.db" "SELECT b FROM t WHERE a = 1" 2>&1)
[ "$out" = x ] && pass "Linux's sqlite3 reads the database zoth.exe wrote" || fail "Linux's sqlite3: $out"

# wget: WinINet on port 80 against a one-answer server on the Linux side of loopback.
perl -MIO::Socket::INET -e '
  my $s;
  for (1 .. 200) { # port 80 may be held for a moment by another test; wait up to 20 s
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
server_pid=$!
for _ in $(seq 1 500); do [ -e "$work/listening" ] && break; sleep 0.05; done
out=$(zoth wget 127.0.0.1 /hello 2>&1 | tr -d '\r')
[ "$out" = "served /hello" ] && pass "zoth wget 127.0.0.1 /hello" || fail "zoth wget: $out $(cat "$work/server.log")"
kill "$server_pid" 2>/dev/null
wait "$server_pid" 2>/dev/null
server_pid=""

# The examples build as Windows clients of the DLL (the compiler and flags a user would use, against
# the import library); the one that needs neither DLL runs.
echo "--- examples (Windows clients)"
for source in examples/*/main.cpp; do
  name=$(basename "$(dirname "$source")")
  if x86_64-w64-mingw32-g++-posix -std=c++20 -O1 -Wall -Wextra -Wpedantic -Werror -Iinclude \
    -isystem build/windows/dep-headers "$source" -Lbuild/windows/lib -lZOTHCommonDll \
    -o "$bin/example_$name.exe" 2>"$work/$name.log"; then
    pass "example $name builds for Windows"
  else
    cat "$work/$name.log"
    fail "example $name builds for Windows"
  fi
done
if (cd "$bin" && timeout 120 wine example_periodic_job.exe) >"$work/periodic.log" 2>&1 &&
  grep -q 'ended' "$work/periodic.log"; then
  pass "example periodic_job runs: $(tr -d '\r' <"$work/periodic.log" | tail -1)"
else
  fail "example periodic_job runs: $(tr -d '\r' <"$work/periodic.log" | tail -3)"
fi

# The demo runs every step that needs neither DLL and names the others as skipped.
zoth demo >"$work/demo.log" 2>&1
status=$?
tr -d '\r' <"$work/demo.log" | sed -n '/^subsystem/,$p'
summary=$(tr -d '\r' <"$work/demo.log" | tail -1)
if [ "$status" -eq 0 ] && [[ "$summary" == *" 0 failed, 9 skipped"* ]] &&
  ! tr -d '\r' <"$work/demo.log" | grep -q '^\(text\|task\|file\) .* skipped$'; then
  pass "zoth demo: $summary"
else
  fail "zoth demo (exit $status): $summary"
fi

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
