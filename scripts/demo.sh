#!/usr/bin/env bash
# Installs and builds marlod, then lets it update a virtual Marlo
# co-processor from start to finish. The session is captured: the capture
# (build/demo/update.pcapng, see docs/wire.md) stays next to the demo's device
# root, which holds the daemon's logs in its sim/ directory.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
out=$PWD/build/demo
rm -rf "$out"
mkdir -p "$out"
capture=$out/update.pcapng
# The device root goes into build/demo as well, unless that path would make
# the root's socket paths too long for a UNIX socket (108 bytes); then it is a
# temporary directory that the demo removes after a verified update.
keep=()
if [ ${#out} -le 48 ]; then
  export TMPDIR=$out
  keep=(--keep-root)
fi
status=0
build/marlo-sim demo --marlod build/marlod "${keep[@]}" --capture "$capture" "$@" || status=$?
if [ ${#keep[@]} -gt 0 ]; then
  echo "== daemon logs: $(echo "$out"/marlo-demo-*/sim/marlod-*.log)"
fi
echo "== capture: $capture"
echo "== read it: tshark -X lua_script:tools/wireshark/marlo.lua -r ${capture#$PWD/}"
exit $status
