#!/usr/bin/env bash
# Checks the device build description: Android.bp must be in Blueprint's
# canonical format (bpfmt prints no diff) and must not pull in the host
# backend of the platform seam. Installs bpfmt (Debian: blueprint-tools) when
# it is missing. Exits non-zero on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
command -v bpfmt >/dev/null 2>&1 || ensure_packages blueprint-tools

# bpfmt -d exits 0 when it prints a diff, and non-zero only when it cannot
# parse the file; both are failures here.
if ! diff_output=$(bpfmt -d Android.bp); then
  echo "FAIL: bpfmt cannot parse Android.bp" >&2
  exit 1
fi
if [ -n "$diff_output" ]; then
  printf '%s\n' "$diff_output"
  echo "FAIL: Android.bp is not in canonical format; run: bpfmt -w Android.bp" >&2
  exit 1
fi

if grep -n 'platform/host' Android.bp | grep -v '^[0-9]*: *//' >&2; then
  echo "FAIL: Android.bp refers to the host backend (platform/host); the device build uses platform/device" >&2
  exit 1
fi

echo "Android.bp: formatted, device backend only"
