#!/usr/bin/env bash
# Builds the HTML API reference of the public headers with Doxygen (docs/Doxyfile) into
# OUT/html (default build/docs/html). Its pages come from the README at build time: the overview and
# tour as the main page, and the Linux notes, the security note, and install and use as pages of
# their own, so the reference never holds a second copy of them. Fails on any Doxygen warning other
# than an undocumented declaration of the platform layer (documented per header, not one by one).
#
# usage: scripts/build-docs.sh [OUT]
set -euo pipefail
cd "$(dirname "$0")/.."

out=${1:-build/docs}
pages=$out/pages
fail() {
  echo "build-docs: FAILED: $*" >&2
  exit 1
}
command -v doxygen >/dev/null || fail "doxygen is missing: run scripts/install-deps.sh"
rm -rf "$out/html" "$pages"
mkdir -p "$pages"

# The README links to docs/NAME.md#heading; Doxygen knows those pages by the {#label} of their title
# line, so each such link becomes a reference to its page (a sed script, one line per page).
doc_links=$(for page in docs/*.md; do
  label=$(sed -n '1s/.*{#\([A-Za-z0-9_-]*\)}.*/\1/p' "$page")
  [ -z "$label" ] || printf 's|\\]\\(%s(#[^)]*)?\\)|](@ref %s)|g\n' "$page" "$label"
done)

# readme_section TITLE: the body of the README's "## TITLE" section, its headings one level up, its
# links to docs/ pages made references.
readme_section() {
  local body
  body=$(awk -v want="## $1" '
    /^## / { if (on) exit; if ($0 == want) { on = 1; next } }
    on { if (/^###/) sub(/^#/, ""); print }' README.md | sed -E "$doc_links")
  [ -n "$body" ] || fail "README.md has no section \"## $1\""
  printf '%s\n' "$body"
}

{
  echo "@mainpage ZOTH Common"
  readme_section "What it is"
  echo
  echo "## A short tour"
  readme_section "A short tour"
  echo
  echo "See also: @ref linux-notes, @ref security-note, @ref install-and-use."
} >"$pages/overview.md"
{
  echo "# Linux notes for Windows developers {#linux-notes}"
  readme_section "What a Windows client developer must know about Linux"
} >"$pages/linux-notes.md"
{
  echo "# Security note {#security-note}"
  readme_section "Security note"
} >"$pages/security-note.md"
{
  echo "# Install and use {#install-and-use}"
  readme_section "Install and use"
} >"$pages/install-and-use.md"

version=$(sed -n 's/^project(ZOTHCommon VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
log=$out/doxygen.log
# Undocumented declarations are the check's business (scripts/check-docs.sh); here every other
# warning counts.
(
  cat docs/Doxyfile
  echo "WARN_IF_UNDOCUMENTED = NO"
  echo "WARN_LOGFILE = $log"
) | ZOTH_VERSION=$version ZOTH_DOCS_OUT=$out ZOTH_DOCS_PAGES=$pages doxygen - || fail "doxygen"
if [ -s "$log" ]; then
  cat "$log"
  fail "doxygen warned (above)"
fi
[ -f "$out/html/index.html" ] || fail "no $out/html/index.html"
echo "build-docs: reference of ZOTH Common $version in $out/html/index.html"
