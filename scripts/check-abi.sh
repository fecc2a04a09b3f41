#!/usr/bin/env bash
# ABI guard: compares the built library (with debug information) against the baseline of its soname
# in abi/, taken by libabigail's abidw from the released library. A client built against X.0 must keep
# working with every X.y, so:
#   - any change to what the baseline exports (a removed or changed function or variable, a class
#     whose size, layout or virtual table moved) fails;
#   - added functions and variables pass and are reported;
#   - a new soname (the major version raised in CMakeLists.txt) fails until its baseline is recorded
#     in the same change (`make abi-baseline`).
#
# usage: scripts/check-abi.sh [LIBRARY]              check (default build/release/libZOTHCommonDll.so)
#        scripts/check-abi.sh --renew [--force] [LIBRARY]
#   --renew records abi/<soname>.abi from LIBRARY and drops the baselines of older sonames. Once the
#   major version is released (its tag vX.0.0 exists), it refuses to replace a baseline of the same
#   soname with an incompatible one, which would break that version's clients: raise the major
#   version instead. --force overrides that.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

renew=0
force=0
lib=""
for arg in "$@"; do
  case $arg in
  --renew) renew=1 ;;
  --force) force=1 ;;
  -*)
    echo "usage: scripts/check-abi.sh [--renew [--force]] [LIBRARY]" >&2
    exit 2
    ;;
  *) lib=$arg ;;
  esac
done
lib=${lib:-build/release/libZOTHCommonDll.so}

fail() {
  echo "check-abi: FAILED: $*" >&2
  exit 1
}

[ -e "$lib" ] || fail "no library at $lib (build the release preset first)"
lib=$(readlink -f "$lib")
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -n "$soname" ] || fail "$lib has no soname"
readelf -S "$lib" | grep -q '\.debug_info' || fail "$lib has no debug information (build it with -g)"
baseline=abi/$soname.abi

# record FILE: abidw's description of the library, with the build tree's path cut from it.
record() {
  abidw --no-corpus-path --no-show-locs --type-id-style hash "$lib" >"$1.tmp"
  sed "s|$repo/||g" "$1.tmp" >"$1"
  rm -f "$1.tmp"
}

# compare BASELINE [ABIDIFF OPTIONS]: abidiff's report in $report, its status bits in $diff_rc
# (1 error, 2 usage, 4 ABI change, 8 incompatible change). The opaque types of
# abi/private-types.supp are left out.
compare() {
  local base=$1
  shift
  diff_rc=0
  report=$(abidiff --suppressions abi/private-types.supp "$@" "$base" "$lib") || diff_rc=$?
  if ((diff_rc & 3)); then
    echo "check-abi: abidiff could not compare $base with $lib (status $diff_rc)" >&2
    exit 1
  fi
}

if [ "$renew" = 1 ]; then
  if [ -f "$baseline" ] && [ "$force" = 0 ]; then
    compare "$baseline" --no-added-syms
    if ((diff_rc & 12)); then
      echo "$report"
      major=${soname##*.so.}
      if git rev-parse -q --verify "refs/tags/v$major.0.0" >/dev/null; then
        fail "$lib is incompatible with the released $soname baseline (tag v$major.0.0): raise the major" \
          "version in CMakeLists.txt (a new soname) and renew then, or keep the layout (docs/abi.md)."
      fi
      echo "check-abi: the changes above replace the baseline of $soname, which is not released yet (no tag v$major.0.0)"
    fi
  fi
  mkdir -p abi
  record "$baseline"
  for old in abi/*.abi; do
    [ "$old" = "$baseline" ] || rm -f "$old"
  done
  echo "check-abi: recorded $baseline from $lib ($(grep -c '<elf-symbol ' "$baseline") exported symbols)"
  exit 0
fi

if [ ! -f "$baseline" ]; then
  others=$(find abi -name '*.abi' 2>/dev/null | tr '\n' ' ')
  [ -n "$others" ] || fail "no ABI baseline in abi/: record one with 'make abi-baseline'"
  fail "the library's soname is now $soname but the baseline is $others: the major version was" \
    "raised, so record its baseline in the same change with 'make abi-baseline'"
fi

# First everything but additions: any report here breaks clients of this major version.
compare "$baseline" --no-added-syms
if ((diff_rc & 12)); then
  echo "$report"
  fail "$lib breaks the ABI of $baseline (above). Keep the exported classes' layout (docs/abi.md)," \
    "or raise the major version and renew the baseline with 'make abi-baseline' in the same change."
fi
# Then the additions, which keep old clients working: reported, not refused.
compare "$baseline"
if ((diff_rc & 4)); then
  echo "$report"
  echo "check-abi: compatible additions to $soname (above); 'make abi-baseline' records them at the next release"
else
  echo "check-abi: $lib matches $baseline"
fi
