#!/usr/bin/env bash
# Prints the size of the test suite against the code it tests: non-blank,
# non-comment lines of the C++ sources git tracks, tests/ against everything
# else outside fuzz/. The suite should stay within a third of the code.
# Exits non-zero when it does not.
set -euo pipefail
cd "$(dirname "$0")/.."

# Non-blank lines that are not wholly inside a // or /* */ comment.
code_lines() {
  [ $# -eq 0 ] && { echo 0; return; }
  cat "$@" | awk '
    {
      line = $0
      out = ""
      while (length(line) > 0) {
        if (in_block) {
          end = index(line, "*/")
          if (end == 0) { line = ""; break }
          line = substr(line, end + 2); in_block = 0
        } else {
          start = index(line, "/*"); slash = index(line, "//")
          if (slash > 0 && (start == 0 || slash < start)) { out = out substr(line, 1, slash - 1); line = ""; break }
          if (start == 0) { out = out line; line = ""; break }
          out = out substr(line, 1, start - 1); line = substr(line, start + 2); in_block = 1
        }
      }
      if (out ~ /[^[:space:]]/) n++
    }
    END { print n + 0 }'
}

mapfile -t test_files < <(git ls-files 'tests/*' | grep -E '\.(cc|h|cpp)$')
mapfile -t code_files < <(git ls-files | grep -E '\.(cc|h|cpp)$' | grep -vE '^(tests|fuzz)/')
tests=$(code_lines "${test_files[@]}")
code=$(code_lines "${code_files[@]}")
permille=$((tests * 1000 / code))
echo "== test suite size: $tests lines of tests against $code lines of code outside fuzz/" \
  "($((permille / 10)).$((permille % 10))%; at most a third: $((code / 3)))"
[ $((tests * 3)) -le "$code" ]
