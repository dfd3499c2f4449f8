#!/usr/bin/env bash
# Records the golden captures of tests/sim/golden/ again from the end-to-end
# sessions they come from, then replays each against build/marlod. Run it
# after a change that alters the wire on purpose, and review the difference
# (tshark with the project's dissector reads the files).
#   full_update     a FLASH boot that fails, the fallback to HOST and a whole download
#   resumed_update  the DFU channel hung up after 7 fragments, the download resumed
#   noflash_rma     a flash-less co-processor: misc data and the RMA service
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --build build --target e2e_test marlod marlo-sim
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
declare -A sessions=(
  [full_update]=E2e.FailedFlashBootFallsBackToHostAndUpdates
  [resumed_update]=E2e.DroppedChannelResumesFromReportedStateAndFlashIsExact
  [noflash_rma]=E2e.NoflashPsramGetsMiscDataAndRmaService
)
for name in "${!sessions[@]}"; do
  test=${sessions[$name]}
  MARLO_CAPTURE_DIR="$dir" MARLO_BUILD_DIR="$PWD/build" build/tests/e2e/e2e_test --gtest_filter="$test"
  cp "$dir/$test.pcapng" "tests/sim/golden/$name.pcapng"
  build/marlo-sim replay "tests/sim/golden/$name.pcapng" --marlod build/marlod
  echo "tests/sim/golden/$name.pcapng: $(stat -c %s "tests/sim/golden/$name.pcapng") bytes"
done
