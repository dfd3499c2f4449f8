#!/usr/bin/env bash
# Builds and runs the whole test suite under AddressSanitizer +
# UndefinedBehaviorSanitizer (preset "asan", build-asan/) and under
# ThreadSanitizer (preset "tsan", build-tsan/). Any sanitizer report halts
# the process that made it, so the test fails (see the test presets in
# CMakePresets.json for the options).
#
#   scripts/sanitize.sh [asan] [tsan]     default: both
set -euo pipefail
cd "$(dirname "$0")/.."

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(asan tsan)

summary=()
failed=0
for preset in "${presets[@]}"; do
  echo "== building with preset $preset in build-$preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)"
  echo "== running the test suite under $preset"
  log="build-$preset/ctest.log"
  status=0
  ctest --preset "$preset" -j "$(nproc)" >"$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    # The failing tests with their output (sanitizer reports included).
    grep -E -A60 '\*\*\*(Failed|Exception)|Failed +[0-9.]+ sec|^The following tests FAILED' "$log" | tail -120 || true
    failed=1
  fi
  summary+=("$(printf '%-6s %s (%s)' "$preset" "$(grep -E 'tests passed' "$log" | tail -1)" "$(grep -E 'Total Test time' "$log" | tail -1 | sed 's/.*= *//')")")
done

echo "== sanitizer summary"
printf '%s\n' "${summary[@]}"
exit "$failed"
