#!/usr/bin/env bash
# Builds the coverage preset (gcc --coverage), runs every test once and prints
# line and branch coverage of the library's own sources: quarnel/ without its
# tests. Branches the compiler adds for exception unwinding are not counted.
#
#   tools/coverage.sh            summary
#   tools/coverage.sh -v         also one row per source file
#   tools/coverage.sh --html D   also an HTML report in folder D
# Needs gcovr (Debian package gcovr).
set -euo pipefail
cd "$(dirname "$0")/.."

detail=0
html=""
while [ $# -gt 0 ]; do
  case "$1" in
    -v) detail=1 ;;
    --html) html="$2"; shift ;;
    *) echo "usage: $0 [-v] [--html DIR]" >&2; exit 2 ;;
  esac
  shift
done

jobs=$(nproc 2>/dev/null || echo 2)
build=build/coverage
cmake --preset coverage >/dev/null
# Counts start from zero: a build runs the test programs once to list their
# cases, and earlier runs leave counts behind.
[ -d "$build" ] && find "$build" -name '*.gcda' -delete
cmake --build --preset coverage -j "$jobs" >/dev/null
find "$build" -name '*.gcda' -delete
ctest --preset coverage -j "$jobs" --no-tests=error >"$build/ctest.log" 2>&1 ||
  { tail -40 "$build/ctest.log"; exit 1; }

# Other build trees stay out of the search: the Windows build's Wine prefix
# links its z: drive to / and would have gcovr walk the whole system.
args=(--root . --object-directory "$build" --exclude-directories '.*/CompilerId'
      --exclude-directories 'build/(?!coverage).*'
      --filter '^quarnel/' --exclude '.*_test\.cpp$' --exclude-throw-branches --exclude-unreachable-branches)
if [ -n "$html" ]; then
  mkdir -p "$html"
  gcovr "${args[@]}" --html-details "$html/index.html" >/dev/null
fi
if [ "$detail" = 1 ]; then
  gcovr "${args[@]}" --branches --sort-percentage
  gcovr "${args[@]}" --sort-percentage
fi
# The text report goes to a file of our own: gcovr removes and rewrites its
# output, which must never be a device such as /dev/null.
report=$(mktemp)
trap 'rm -f "$report"' EXIT
gcovr "${args[@]}" --print-summary --output "$report" 2>/dev/null | grep -E '^(lines|branches):'
