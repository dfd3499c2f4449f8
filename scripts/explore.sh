#!/usr/bin/env bash
# A long exploration by the generated co-processor: rounds of generated
# sequences (tests/property/generated_coprocessor_test.cc), each round with a
# fresh random seed, until the time is up. Every failure is shrunk to its
# shortest sequence, which is kept as a script under
# build/property-failures/ (copy it to tests/property/regressions/ to make it
# a regression case); the seed of every round is printed, so that
# RC_PARAMS="seed=N" reproduces a round.
#
#   scripts/explore.sh [minutes] [sequences per round] [max steps]
#                      default: 10 minutes, 40 sequences, 12 steps
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=${1:-10}
sequences=${2:-40}
size=${3:-12}

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target marlod generated_coprocessor_test
mkdir -p build/property-failures
end=$(( $(date +%s) + minutes * 60 ))
rounds=0
failures=0
while (( $(date +%s) < end )); do
  seed=$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')
  rounds=$(( rounds + 1 ))
  log=build/property-failures/round-$seed.log
  echo "== round $rounds: seed=$seed, $sequences sequences of up to $size steps"
  start=$(date +%s)
  if MARLO_BUILD_DIR="$PWD/build" RC_PARAMS="seed=$seed max_success=$sequences max_size=$size" \
      build/tests/property/generated_coprocessor_test --gtest_filter='GeneratedCoprocessor.*' >"$log" 2>&1; then
    echo "   clean in $(( $(date +%s) - start )) s"
    rm -f "$log"
  else
    failures=$(( failures + 1 ))
    echo "   FAILED in $(( $(date +%s) - start )) s; shortest sequence (build/property-failures/generated-coprocessor-seed$seed.script):"
    sed 's/^/     /' "build/property-failures/generated-coprocessor-seed$seed.script" 2>/dev/null || tail -20 "$log"
  fi
done
echo "== $rounds round(s), $failures with a failure"
(( failures == 0 ))
