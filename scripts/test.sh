#!/usr/bin/env bash
# Installs, builds and runs every test of marlod: the test suite, then the
# source checks (every C++ file formatted as .clang-format says,
# scripts/check-format.sh; no include against the layers,
# scripts/check-layers.sh), the build with clang's thread-safety analysis as
# errors
# (scripts/thread-safety.sh), the check of the device build description
# (scripts/check-android-bp.sh), the same suite built for 32-bit ARM and run
# under qemu-user (scripts/armhf.sh), the device configuration compiled as the
# device compiles it
# (scripts/device-compile.sh), the suite under the sanitizers
# (scripts/sanitize.sh) and a short run of every fuzzer (scripts/fuzz.sh).
# MARLO_QUICK=1 runs the suite only.
#
# The output ends with the closing lines of the normal suite's ctest run and
# the suite's size against the code (scripts/test-ratio.sh),
# repeated after the sanitizer and fuzzer summary; the exit status is 0 only
# when everything passed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
echo "== running the test suite"
suite_log=build/ctest.log
ctest --test-dir build --output-on-failure -j "$(nproc)" --timeout 120 2>&1 | tee "$suite_log"
ratio_line=$(scripts/test-ratio.sh || true)
echo "$ratio_line" | tee -a "$suite_log"
[ "${MARLO_QUICK:-0}" = 1 ] && exit 0

format=0
scripts/check-format.sh || format=$?
layers=0
scripts/check-layers.sh || layers=$?
checks_line="== source checks: format $([ $format -eq 0 ] && echo passed || echo FAILED), layers $([ $layers -eq 0 ] && echo passed || echo FAILED)"
echo "$checks_line"

step_start=$SECONDS
thread_safety=0
scripts/thread-safety.sh || thread_safety=$?
thread_safety_result=$([ $thread_safety -eq 0 ] && echo passed || echo FAILED)
thread_safety_line="== thread safety: clang -Wthread-safety -Werror build $thread_safety_result in $((SECONDS - step_start)) s"
echo "$thread_safety_line"

start=$SECONDS
device_build=0
scripts/check-android-bp.sh || device_build=$?
step_start=$SECONDS
armhf=0
scripts/armhf.sh || armhf=$?
armhf_time=$((SECONDS - step_start))
step_start=$SECONDS
device_compile=0
scripts/device-compile.sh || device_compile=$?
echo "== device ABI: armhf suite under qemu-user $([ $armhf -eq 0 ] && echo passed || echo FAILED) in $armhf_time s," \
  "device-configuration compile and device-side unit tests $([ $device_compile -eq 0 ] && echo passed || echo FAILED)" \
  "in $((SECONDS - step_start)) s"
sanitize=0
scripts/sanitize.sh || sanitize=$?
fuzz=0
scripts/fuzz.sh "${MARLO_FUZZ_SECONDS:-20}" || fuzz=$?
echo "== device build description $([ $device_build -eq 0 ] && echo passed || echo FAILED);" \
  "hardening: sanitizers $([ $sanitize -eq 0 ] && echo passed || echo FAILED)," \
  "fuzzers $([ $fuzz -eq 0 ] && echo passed || echo FAILED) in $((SECONDS - start)) s"
echo "== device ABI $([ $armhf -eq 0 ] && [ $device_compile -eq 0 ] && echo passed || echo FAILED):" \
  "$(grep -E 'tests passed' build-armhf/ctest.log 2>/dev/null | tail -1 || echo 'armhf suite did not run') on armhf;" \
  "$(cat build-device/marlod_unit_tests.summary 2>/dev/null || echo 'marlod_unit_tests did not run')"
echo "$thread_safety_line"
echo "$checks_line"
echo "== test suite"
sed -n '/tests passed/,$p' "$suite_log"
[ $format -eq 0 ] && [ $layers -eq 0 ] && [ $thread_safety -eq 0 ] && [ $device_build -eq 0 ] && [ $armhf -eq 0 ] && [ $device_compile -eq 0 ] && [ $sanitize -eq 0 ] && [ $fuzz -eq 0 ]
