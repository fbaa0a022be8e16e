#!/usr/bin/env bash
# Counts non-blank, non-comment lines of C++ source: the tests (every
# *_test.cpp and the .cpp/.h files under tests/) against the library (the .cpp
# and .h files under quarnel/ that are not tests), and prints their ratio.
# Recorded data files (tests/data/, resource scripts) are not code and are not
# counted. Tests should stay at about 0.4 of the library, never above 0.5.
#
#   tools/linecount.sh          totals and the ratio
#   tools/linecount.sh -v       also every test file, largest first
set -euo pipefail
cd "$(dirname "$0")/.."

# Prints "<count> <file>" for each file: lines that keep something other than
# white space once // and /* */ comments are taken out (string and character
# literals are skipped so that a "//" inside one is not a comment).
count() {
  [ $# -gt 0 ] || return 0
  awk '
    FNR == 1 { if (NR > 1) print n, prev; n = 0; inblock = 0; prev = FILENAME }
    {
      code = 0; s = $0; len = length(s); i = 1
      while (i <= len) {
        c = substr(s, i, 1); c2 = substr(s, i, 2)
        if (inblock) {
          if (c2 == "*/") { inblock = 0; i += 2 } else i++
          continue
        }
        if (c2 == "//") break
        if (c2 == "/*") { inblock = 1; i += 2; continue }
        if (c == "\"" || c == "\047") {
          q = c; i++
          while (i <= len && substr(s, i, 1) != q) i += (substr(s, i, 1) == "\\") ? 2 : 1
          i++; code = 1; continue
        }
        if (c !~ /[ \t\r]/) code = 1
        i++
      }
      if (code) n++
    }
    END { if (NR > 0) print n, prev }
  ' "$@"
}

mapfile -t tests < <(git ls-files -co --exclude-standard -- '*_test.cpp' 'tests/*.cpp' 'tests/*.h' | sort)
mapfile -t lib < <(git ls-files -co --exclude-standard -- 'quarnel/*.cpp' 'quarnel/*.h' |
  grep -v '_test\.cpp$' | sort)

test_counts=$(count "${tests[@]}")
lib_counts=$(count "${lib[@]}")
if [ "${1:-}" = -v ]; then
  echo "$test_counts" | sort -rn
  echo
fi
t=$(echo "$test_counts" | awk '{ s += $1 } END { print s + 0 }')
l=$(echo "$lib_counts" | awk '{ s += $1 } END { print s + 0 }')
echo "test lines:    $t (${#tests[@]} files)"
echo "library lines: $l (${#lib[@]} files)"
awk -v t="$t" -v l="$l" 'BEGIN {
  printf "test/library:  %.3f\n", (l ? t / l : 0)
  printf "test share:    %.1f%% of all code\n", (t + l ? 100 * t / (t + l) : 0)
}'
