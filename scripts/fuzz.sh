#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer (preset "fuzz", build-fuzz/) and runs each for a
# fixed time, starting from the generated seeds, the committed regression
# inputs in fuzz/corpus/<fuzzer>/ and what earlier runs found.
#
#   scripts/fuzz.sh [SECONDS] [FUZZER...]     default: 20 s each, all seven
#
# Exit status 0 only when no fuzzer found anything. Crashing inputs are left
# in build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
fuzzers=("$@")
[ ${#fuzzers[@]} -gt 0 ] || fuzzers=(dfu_dispatch dfu_setup_race rma glink_framing partition_elf version_file uevent)

# Only the fuzz build needs clang and its runtime libraries.
. scripts/lib/packages.sh
ensure_packages clang libclang-rt-14-dev

echo "== building the fuzzers in build-fuzz"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

out=build-fuzz
rm -rf "$out/seeds"
"$out/fuzz/marlo_fuzz_seeds" "$out/seeds"
mkdir -p "$out/artifacts"

export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1

summary=()
failed=0
for name in "${fuzzers[@]}"; do
  fuzzer="${name}_fuzzer"
  work="$out/corpus/$fuzzer"
  mkdir -p "$work"
  dirs=("$work" "$out/seeds/$fuzzer")
  [ -d "fuzz/corpus/$fuzzer" ] && dirs+=("fuzz/corpus/$fuzzer")
  log="$out/$fuzzer.log"
  echo "== $fuzzer for ${seconds} s"
  # -close_fd_mask=2: the daemon's log copy on stderr is dropped; libFuzzer
  # and the sanitizers keep reporting on their own copy of stderr.
  status=0
  "$out/fuzz/$fuzzer" -max_total_time="$seconds" -max_len=8192 -timeout=30 -close_fd_mask=2 -print_final_stats=1 \
    -artifact_prefix="$out/artifacts/$fuzzer-" "${dirs[@]}" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
  if [ "$status" -eq 0 ]; then
    result="ok"
  else
    result="FOUND A PROBLEM (exit $status, see $log)"
    failed=1
    grep -E 'ERROR|SUMMARY|runtime error|malformed|deadly|Test unit written' "$log" | head -8 || true
  fi
  summary+=("$(printf '%-26s %10s runs  %-22s %s' "$fuzzer" "${runs:-?}" "${cov:-}" "$result")")
done

echo "== fuzzing summary (${seconds} s each)"
printf '%s\n' "${summary[@]}"
exit "$failed"
