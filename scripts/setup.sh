#!/usr/bin/env bash
# Installs what building and testing marlod needs on a Debian machine, then
# configures and builds it in build/. Safe to run again: installs only what is
# missing and rebuilds only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ pkg-config libtinyxml2-dev libgtest-dev libgmock-dev zlib1g-dev binutils)
missing=()
for package in "${packages[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi

build_dir=${MARLO_BUILD_DIR:-build}
echo "== building in $build_dir"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
