#!/usr/bin/env bash
# Builds marlod, marlo-sim and the whole test suite for 32-bit ARM, the
# device's ABI (preset "armhf", build-armhf/, Debian's armhf cross compiler),
# and runs the suite under qemu-user: every test, the end-to-end ones
# included (marlod and marlo-sim are ARM programs then). Installs what it
# needs (the armhf architecture, the cross compiler, qemu-user, the armhf
# libraries). No binfmt registration: every ARM program is started through
# qemu-arm explicitly (cmake/toolchains/armhf-linux-gnueabihf.cmake).
#
# Prints one summary line; exits non-zero when a test failed or when fewer
# tests ran than the native build (build/) has.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
ensure_armhf_packages

echo "== building with preset armhf in build-armhf"
cmake --preset armhf >/dev/null
cmake --build --preset armhf -j "$(nproc)"
file -b build-armhf/marlod | cut -d, -f1-2

echo "== running the test suite on armhf under qemu-user"
log=build-armhf/ctest.log
status=0
ctest --preset armhf -j "$(nproc)" >"$log" 2>&1 || status=$?
if [ "$status" -ne 0 ]; then
  grep -E -A60 '\*\*\*(Failed|Exception)|Failed +[0-9.]+ sec|^The following tests FAILED' "$log" | tail -120 || true
fi

count() { ctest --test-dir "$1" -N 2>/dev/null | sed -n 's/^Total Tests: //p'; }
armhf=$(count build-armhf)
native=$(count build)
if [ -n "$native" ] && [ "$armhf" != "$native" ]; then
  echo "FAIL: $armhf tests on armhf, $native in the native build" >&2
  status=1
fi
echo "== armhf suite: $(grep -E 'tests passed' "$log" | tail -1) ($(grep -E 'Total Test time' "$log" | tail -1 | sed 's/.*= *//'));" \
  "native build: ${native:-not built} tests"
exit "$status"
