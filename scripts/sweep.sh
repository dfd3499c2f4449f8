#!/usr/bin/env bash
# The full crash sweep: every power-loss state of the RMA backing files
# rebuilt from a recorded session, each served by a fresh daemon. The normal
# suite runs a sampled subset of the same states; this runs them all.
#
#   scripts/sweep.sh [gtest filter]      default: every sweep
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target marlod crash_sweep_test
start=$(date +%s)
status=0
MARLO_SWEEP=all MARLO_BUILD_DIR="$PWD/build" build/tests/e2e/crash_sweep_test --gtest_filter="${1:-*}" || status=$?
echo "== crash sweep took $(( $(date +%s) - start )) s"
exit "$status"
