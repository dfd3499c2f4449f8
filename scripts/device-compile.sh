#!/usr/bin/env bash
# Compiles the device configuration as the device build does: exactly the
# sources that Android.bp lists for libmarlod and marlod (and for the
# device-side test module marlod_unit_tests), with the device backend of the
# platform seam, the module's own flags (-Wall -Wextra -Werror, C++17), for
# 32-bit ARM (Debian's armhf cross compiler), against Debian's packages of the
# platform's headers and libraries (android-liblog-dev, android-libcutils-dev,
# android-libutils-dev for armhf) and never the host stand-in headers in
# platform/host/include. Then links marlod and the test module against those
# libraries, so that a symbol the platform lacks is seen as well.
#
# Where Debian's packages lack something the device has, the one shim
# directory is platform/device/debian-shim/ (see its README).
#
#   scripts/device-compile.sh          output in build-device/
#
# Exits non-zero on the first error. Checks Android.bp; replaces nothing in it.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib/packages.sh
ensure_armhf_packages

out=build-device
rm -rf "$out"
mkdir -p "$out"

# bp_list MODULE PROPERTY: the strings of a property (a string or a list of
# strings) of the module named
# MODULE, one a line. Android.bp is in canonical format (check-android-bp.sh):
# modules start at column 0, their properties at column 4.
bp_list() {
  awk -v mod="$1" -v prop="$2" '
    /^[ ]*\/\// { next }
    /^[a-z_]+ \{$/ { inblock = 1; n = 0; isit = 0; inlist = 0; next }
    inblock && /^}$/ { if (isit) for (i = 1; i <= n; i++) print vals[i]; inblock = 0; next }
    inblock {
      if ($0 == "    name: \"" mod "\",") isit = 1
      if (inlist || index($0, "    " prop ": ") == 1) {
        line = $0
        if (!inlist) sub(/^ *[a-z_]+: /, "", line)
        first = !inlist
        while (match(line, /"[^"]*"/)) { vals[++n] = substr(line, RSTART + 1, RLENGTH - 2); line = substr(line, RSTART + RLENGTH) }
        if (first) inlist = index($0, "[") && !index($0, "]")
        else if (index($0, "]")) inlist = 0
      }
    }' Android.bp
}

# module_list MODULE PROPERTY: the property of the module and of its defaults.
module_list() {
  local defaults
  for defaults in $(bp_list "$1" defaults); do bp_list "$defaults" "$2"; done
  bp_list "$1" "$2"
}

# module_sources MODULE: its srcs globs expanded, less its exclude_srcs.
module_sources() {
  local pattern file excluded
  excluded=$(module_list "$1" exclude_srcs)
  shopt -s nullglob
  for pattern in $(module_list "$1" srcs); do
    for file in $pattern; do
      grep -qxF "$file" <<<"$excluded" || echo "$file"
    done
  done
  shopt -u nullglob
}

cxx=arm-linux-gnueabihf-g++
android_libs=/usr/lib/arm-linux-gnueabihf/android

# compile MODULE: every source of the module into $out/MODULE/, in parallel.
compile() {
  local module=$1 flags=() dir
  # -O2 as the platform's build optimises by default (some warnings need it).
  # -Wno-psabi: GCC's note that ARM argument passing changed in GCC 7.1.
  flags+=("-std=$(bp_list marlod_defaults cpp_std)" -O2 -Wno-psabi -c)
  mapfile -t -O "${#flags[@]}" flags < <(module_list "$module" cflags)
  mapfile -t -O "${#flags[@]}" flags < <(module_list "$module" cppflags)
  flags+=(-I.)
  for dir in $(module_list "$module" local_include_dirs); do flags+=("-I$dir"); done
  flags+=(-Iplatform/device/debian-shim -isystem /usr/include/android)
  mkdir -p "$out/obj/$module"
  module_sources "$module" >"$out/$module.sources"
  if [ ! -s "$out/$module.sources" ]; then
    echo "FAIL: Android.bp lists no sources for $module" >&2
    return 1
  fi
  echo "== compiling $module: $(wc -l <"$out/$module.sources") sources"
  export cxx out module
  # One object per source, named after its path.
  xargs -P "$(nproc)" -I{} bash -c \
    'o="$out/obj/$module/$(echo "{}" | tr / _).o"; "$cxx" "$@" "{}" -o "$o" || exit 255' _ "${flags[@]}" \
    <"$out/$module.sources"
}

# link_flags MODULE: the module's shared_libs as linker flags. Debian's
# armhf libutils needs the armhf build of a compression plug-in that the
# packages do not install; only this module's own references are checked.
link_flags() {
  local lib
  echo "-L$android_libs" "-Wl,-rpath-link,$android_libs" -Wl,--allow-shlib-undefined -Wl,--as-needed -pthread
  for lib in $(module_list "$1" shared_libs); do echo "-l${lib#lib}"; done
}

# link OUTPUT MODULE OBJECTS...: links, then fails on any reference that
# neither the objects nor the module's libraries resolve, except the
# device-only symbols listed in the shim's unresolved-symbols.txt.
link() {
  local output=$1 module=$2 log="$out/$2.link.log" unresolved
  shift 2
  # shellcheck disable=SC2046
  if ! $cxx -o "$output" "$@" $(link_flags "$module") -Wl,--warn-unresolved-symbols >"$log" 2>&1; then
    cat "$log" >&2
    echo "FAIL: $module does not link" >&2
    return 1
  fi
  unresolved=$(grep -o "undefined reference to \`[^']*'" "$log" | sed "s/.*\`//; s/'$//" | sort -u |
    grep -vxF -f platform/device/debian-shim/unresolved-symbols.txt || true)
  if [ -n "$unresolved" ]; then
    echo "FAIL: $module refers to symbols its libraries do not have:" >&2
    printf '  %s\n' $unresolved >&2
    return 1
  fi
}

compile libmarlod
arm-linux-gnueabihf-ar rcs "$out/libmarlod.a" "$out"/obj/libmarlod/*.o
compile marlod
link "$out/marlod" marlod "$out"/obj/marlod/*.o "$out/libmarlod.a"
# The device-side test module links the platform's GoogleTest, as cc_test
# does: Debian's armhf libgtest here.
compile marlod_unit_tests
link "$out/marlod_unit_tests" marlod_unit_tests "$out"/obj/marlod_unit_tests/*.o "$out/libmarlod.a" \
  -lgtest_main -lgtest
file "$out/marlod" "$out/marlod_unit_tests" | cut -d, -f1-2
echo "device configuration: libmarlod, marlod and marlod_unit_tests compiled and linked for 32-bit ARM with -Werror"

# Runs the linked test module under qemu-user, as the device would run it:
# the device backend, its device paths resolved under each test's scratch
# directory (below TMPDIR), the platform's libraries from Debian's armhf
# packages. Writes the one-line result to $out/marlod_unit_tests.summary.
#
# The scratch directories are on tmpfs: the module is built as Android.bp
# builds it, with a 32-bit off_t, and Debian's 32-bit C library then fails
# readdir() with EOVERFLOW on ext4, whose directory offsets are 64-bit hashes
# for a process the kernel sees as 64-bit (qemu-user's). A 32-bit kernel, and
# the device's C library, give offsets that fit; tmpfs gives small ones.
run_log="$out/marlod_unit_tests.log"
scratch=$(mktemp -d /dev/shm/marlod-unit-tests.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
status=0
TMPDIR="$scratch" qemu-arm -L / -E "LD_LIBRARY_PATH=$android_libs" "$out/marlod_unit_tests" >"$run_log" 2>&1 ||
  status=$?
ran=$(sed -n 's/^\[==========\] \([0-9]*\) tests\? from .* ran\. (\([0-9]*\) ms total)$/\1 tests in \2 ms/p' "$run_log")
passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\.$/\1/p' "$run_log")
skipped=$(sed -n 's/^\[  SKIPPED \] \([0-9]*\) tests\?, listed below:$/\1/p' "$run_log")
summary="marlod_unit_tests under qemu-user: ${passed:-0} passed, ${skipped:-0} skipped of ${ran:-no run}"
echo "$summary" >"$out/marlod_unit_tests.summary"
if [ "$status" -ne 0 ] || [ -z "$passed" ]; then
  grep -E -B2 -A20 '^\[  FAILED  \]|Failure$' "$run_log" | tail -120 >&2 || tail -40 "$run_log" >&2
  echo "FAIL: $summary" >&2
  exit 1
fi
echo "$summary"
