#!/usr/bin/env bash
# Builds marlod and every library it links with clang's thread-safety
# analysis and every warning as an error (preset "thread-safety",
# build-thread-safety/): a field marked GUARDED_BY touched without its mutex,
# or a function marked REQUIRES called without it, fails the build. The
# tests, the virtual device and the benchmark carry no annotations and are
# not built here. Nothing is run; the normal suite runs the same code.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
ensure_packages clang

echo "== building with preset thread-safety in build-thread-safety"
cmake --preset thread-safety >/dev/null
cmake --build --preset thread-safety -j "$(nproc)"
