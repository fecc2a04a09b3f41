#!/usr/bin/env bash
# Documentation check of the test run: Doxygen over the public headers of the five subsystems
# (include/zoth/{http,task,database,file,text}) and the umbrella header, with undocumented-member
# warnings as errors (WARN_AS_ERROR). Every public and protected member of their classes must carry
# a doc comment. Fails with the list of headers that have undocumented members, then the warnings.
# The platform layer is documented per header (see build-docs.sh) and is not checked declaration by
# declaration. Headers named in docs/undocumented-pending.txt are left out, and listed as such.
#
# usage: scripts/check-docs.sh
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
  echo "check-docs: FAILED: $*" >&2
  exit 1
}
command -v doxygen >/dev/null || fail "doxygen is missing: run scripts/install-deps.sh"

pending=()
if [ -f docs/undocumented-pending.txt ]; then
  mapfile -t pending < <(grep -v '^\s*\(#\|$\)' docs/undocumented-pending.txt)
fi
headers=(include/zoth/zoth.h)
while IFS= read -r header; do
  skip=0
  for p in "${pending[@]}"; do [ "$p" = "$header" ] && skip=1; done
  [ "$skip" = 1 ] || headers+=("$header")
done < <(find include/zoth/http include/zoth/task include/zoth/database include/zoth/file include/zoth/text \
  -name '*.h' | LC_ALL=C sort)

out=$(mktemp -d /tmp/zoth-docs-XXXXXX)
trap 'rm -rf "$out"' EXIT
log=$out/warnings.log
rc=0
(
  cat docs/Doxyfile
  echo "INPUT = ${headers[*]}"
  echo "GENERATE_HTML = NO"
  echo "GENERATE_XML = YES"
  echo "WARN_IF_UNDOCUMENTED = YES"
  echo "WARN_AS_ERROR = FAIL_ON_WARNINGS"
  echo "WARN_LOGFILE = $log"
) | ZOTH_VERSION=check ZOTH_DOCS_OUT=$out ZOTH_DOCS_PAGES= doxygen - || rc=$?

for p in "${pending[@]}"; do echo "check-docs: not checked yet (docs/undocumented-pending.txt): $p"; done
if [ "$rc" != 0 ] || [ -s "$log" ]; then
  echo "check-docs: headers with undocumented members or doc errors:" >&2
  sed -n 's|^\([^:]*\.h\):[0-9]*: warning.*|\1|p' "$log" | sed "s|^$(pwd)/||" | sort -u | sed 's/^/  /' >&2
  cat "$log" >&2
  fail "Doxygen warnings (above); every public member carries a /// contract comment"
fi
echo "check-docs: ${#headers[@]} headers, every public member documented"
