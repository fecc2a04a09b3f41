#!/usr/bin/env bash
# The Windows step: cross-builds ZOTHCommonDll.dll, zoth.exe and the test programs with mingw-w64
# (preset windows), then runs under Wine, headless, in a prefix of its own:
# - the GoogleTest programs of the suites that need neither libcurl nor SQLite (text, files, tasks
#   and timers, the WinINet road, the umbrella client), with gtest's own output;
# - zoth.exe: a digest, the DLL's version resource, the one-line refusal of commands whose DLL
#   cannot be loaded, `wget` against a loopback server on port 80, and the demo with its skipped steps;
# - the examples, built as Windows clients of the DLL (the timer example runs).
# The database suites are built (so they compile and link for Windows) but not run: no sqlite3.dll
# exists here to load. The libcurl HTTP suite is compiled but not linked: its loopback servers are
# cpp-httplib with OpenSSL, which Debian does not build for mingw.
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

echo "--- build (preset windows)"
cmake --preset windows >/dev/null || exit 1
cmake --build --preset windows || exit 1
bin=build/windows/bin

work=$(mktemp -d /tmp/zoth-windows-XXXXXX)
export WINEPREFIX=$work/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" LANG=C.UTF-8 LC_ALL=C.UTF-8
server_pid=""
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
  wineserver -k >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

start=$(date +%s)
wine wineboot --init >/dev/null 2>&1
echo "--- wine prefix ready in $(($(date +%s) - start)) s ($WINEPREFIX)"

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

for program in text_tests file_tests task_tests wininet_tests umbrella_client_tests; do
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

# Commands whose DLL cannot be loaded: one line on stderr naming it, exit 1, no crash.
refused() { # refused DLL COMMAND...
  local dll=$1 err status
  shift
  err=$(zoth "$@" 2>&1 >/dev/null)
  status=$?
  err=${err//$'\r'/}
  if [ "$status" -eq 1 ] && [ "$(printf '%s\n' "$err" | wc -l)" -eq 1 ] && [[ "$err" == *"$dll"* ]]; then
    pass "zoth $1 without $dll: $err"
  else
    fail "zoth $1 without $dll: exit $status, said: $err"
  fi
}
refused libcurl-x64.dll get http://127.0.0.1:9/
refused libcurl-x64.dll download http://127.0.0.1:9/x "$(winepath -w "$work")\\x"
refused sqlite3.dll sql "$(winepath -w "$work")\\x.db" "SELECT 1"

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
