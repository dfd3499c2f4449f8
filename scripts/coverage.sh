#!/usr/bin/env bash
# Builds marlod with gcov instrumentation in build-coverage/ (Debug, -O0),
# runs the test suite there and reports the line and branch coverage of the
# daemon's own code with gcovr, per subsystem:
#   build-coverage/coverage/summary.txt   one line per subsystem, then per file
#   build-coverage/coverage/index.html    the same as HTML, with annotated sources
#
#   scripts/coverage.sh [--report-only]   --report-only: counts of the last run
# Branches that only the compiler made (exception unwinding, unreachable
# code) are left out, and so are those on the lines of log statements: each
# statement tests its level and whether stderr logging is on, which the
# suite never turns on; tests/daemon/log_statement_test.cc covers both. The daemon processes of the end-to-end tests end by a
# signal and write no counts: what they run is counted through the in-process
# tests only. Not part of scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
ensure_packages gcovr

build=build-coverage
out=$build/coverage
subsystems=(daemon comhandler glink fwupdater rma)

status=0
if [ "${1:-}" != --report-only ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DMARLO_COVERAGE=ON >/dev/null
  cmake --build "$build" -j "$(nproc)"
  find "$build" -name '*.gcda' -delete
  ctest --test-dir "$build" -j "$(nproc)" --timeout 300 --output-on-failure >"$build/ctest.log" 2>&1 || status=$?
  grep -E 'tests passed|\*\*\*Failed|\*\*\*Timeout' "$build/ctest.log" || true
fi

filters=()
for dir in "${subsystems[@]}"; do filters+=(--filter "$dir/"); done
common=(--root . --object-directory "$build" --exclude-unreachable-branches --exclude-throw-branches
  --exclude-branches-by-pattern '.*MARLO_LOG[EIDV](_AT)?\(' -j "$(nproc)")
mkdir -p "$out"
gcovr "${common[@]}" "${filters[@]}" --json "$out/coverage.json" >/dev/null
{
  printf '%-12s %8s %8s\n' subsystem lines branches
  for dir in "${subsystems[@]}"; do
    summary=$(gcovr --add-tracefile "$out/coverage.json" --root . --filter "$dir/" --txt /dev/null --print-summary)
    printf '%-12s %8s %8s\n' "$dir" \
      "$(sed -n 's/^lines: *\([0-9.]*%\).*/\1/p' <<<"$summary")" \
      "$(sed -n 's/^branches: *\([0-9.]*%\).*/\1/p' <<<"$summary")"
  done
  summary=$(gcovr --add-tracefile "$out/coverage.json" --root . --txt /dev/null --print-summary)
  printf '%-12s %8s %8s\n\n' all \
    "$(sed -n 's/^lines: *\([0-9.]*%\).*/\1/p' <<<"$summary")" \
    "$(sed -n 's/^branches: *\([0-9.]*%\).*/\1/p' <<<"$summary")"
  gcovr --add-tracefile "$out/coverage.json" --root . --txt - --branches
  gcovr --add-tracefile "$out/coverage.json" --root . --txt -
} >"$out/summary.txt"
gcovr --add-tracefile "$out/coverage.json" --root . --html-details "$out/index.html"
sed -n '1,7p' "$out/summary.txt"
echo "== report: $out/summary.txt, $out/index.html"
exit "$status"
