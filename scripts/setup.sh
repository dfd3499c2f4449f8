#!/usr/bin/env bash
# Installs what building and testing marlod needs on a Debian machine, then
# configures and builds it in build/. Safe to run again: installs only what is
# missing and rebuilds only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
packages=(cmake ninja-build g++ pkg-config libtinyxml2-dev libgtest-dev libgmock-dev librapidcheck-dev zlib1g-dev)
ensure_packages "${packages[@]}"
# tshark decodes the captures of the wire tests (tools/wireshark/marlo.lua). Its
# package asks whether non-root users may capture; the answer is no.
ensure_tshark

build_dir=${MARLO_BUILD_DIR:-build}
echo "== building in $build_dir"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
