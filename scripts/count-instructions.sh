#!/usr/bin/env bash
# Instructions per small GET, counted by callgrind: the library's object repeating HttpGet, a raw
# libcurl kept handle with the same options (alone, and doing the object's other per-transfer work:
# head kept, stop callback, shared pool), and POCO's kept-alive session, over HTTP and HTTPS
# (bench/instructions/small_get.cpp). Counts do not depend on the machine's load, unlike rates.
# Needs the release build (`make build`) and valgrind (scripts/install-deps.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
program=build/release/bench/small_get_instructions
[ -x "$program" ] || cmake --build --preset release --target small_get_instructions >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 \
  -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null

# count MODE SCHEME: instructions per request, in thousands.
count() {
  local extra=()
  [ "$2" = https ] && extra=("$work/cert.pem" "$work/key.pem")
  valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$work/out" \
    "$program" "$1" "$2" "${extra[@]}" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    return 1
  }
  sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$work/log" | awk '{ printf "%.1f", $1 / 1000 / 1000 }'
}

printf '| | library, one object | raw kept handle | raw, same work | POCO kept-alive session | library / raw | library / raw, same work | library / POCO |\n'
printf '|---|---|---|---|---|---|---|---|\n'
for scheme in http https; do
  lib=$(count library $scheme)
  raw=$(count raw $scheme)
  same=$(count raw-same-work $scheme)
  poco=$(count poco $scheme)
  # A ratio of rates: fewer instructions per request is the faster side.
  awk -v s="$scheme" -v l="$lib" -v r="$raw" -v w="$same" -v p="$poco" 'BEGIN {
    printf "| %s | %.1fk | %.1fk | %.1fk | %.1fk | %.3fx | %.3fx | %.3fx |\n", toupper(s), l, r, w, p, r / l, w / l, p / l }'
done
