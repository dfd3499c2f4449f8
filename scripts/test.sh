#!/usr/bin/env bash
# Installs, builds and runs every test of marlod.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
echo "== running the test suite"
ctest --test-dir build --output-on-failure -j "$(nproc)" --timeout 120
