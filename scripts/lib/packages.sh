# Sourced by the scripts that install Debian packages:
#
#   ensure_packages [--no-install-recommends] NAME[:ARCH]...
#   ensure_armhf_packages
#
# installs whichever of the named packages is not installed yet. A name
# without ":ARCH" means the machine's own architecture (or an
# architecture-independent package). A package is checked per architecture
# with dpkg-query, because once a second architecture is added a bare
# "dpkg -s NAME" fails as ambiguous for a package installed for both.
#
# Success is judged by what got installed, not by the index refresh: on a
# machine with a foreign architecture, "apt-get update" can exit non-zero
# while one index of the mirror is out of step, yet every package installs.
# The install is tried first and the index refreshed only when it fails.

# package_installed NAME[:ARCH]: 0 when NAME is installed for ARCH.
package_installed() {
  local name=${1%%:*} arch=${1#*:}
  [ "$arch" != "$1" ] || arch=$(dpkg --print-architecture)
  local status
  status=$(dpkg-query -W -f='${Architecture} ${Status}\n' "$name" 2>/dev/null) || true
  grep -qxE "($arch|all) install ok installed" <<<"$status"
}

ensure_packages() {
  local package missing=() as_root=() options=()
  if [ "${1:-}" = --no-install-recommends ]; then
    options=("$1")
    shift
  fi
  for package in "$@"; do
    package_installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "== installing: ${missing[*]}"
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  if ! DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq "${options[@]}" "${missing[@]}" >/dev/null 2>&1; then
    "${as_root[@]}" apt-get update -qq ||
      echo "== apt-get update exited $?; installing from the indexes it got" >&2
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq "${options[@]}" "${missing[@]}" >/dev/null || true
  fi
  local still=()
  for package in "${missing[@]}"; do
    package_installed "$package" || still+=("$package")
  done
  if [ ${#still[@]} -gt 0 ]; then
    echo "FAIL: could not install: ${still[*]}" >&2
    return 1
  fi
}

# What the 32-bit ARM build (scripts/armhf.sh) and the device-configuration
# compile (scripts/device-compile.sh) need: the armhf architecture in dpkg,
# Debian's cross compiler, qemu-user, and the armhf packages of the libraries
# and of the platform's headers. zlib comes as its runtime library only: its
# armhf development package pulls in the armhf C library development set,
# which cannot install while the mirror's armhf index lags the amd64 one.
# qemu-user without its recommended binfmt registration: every ARM program is
# started through qemu-arm explicitly.
ensure_armhf_packages() {
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "== adding the armhf architecture"
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    "${as_root[@]}" dpkg --add-architecture armhf
  fi
  ensure_packages --no-install-recommends g++-arm-linux-gnueabihf qemu-user file \
    libc6:armhf libstdc++6:armhf libtinyxml2-dev:armhf libgtest-dev:armhf libgmock-dev:armhf zlib1g:armhf \
    librapidcheck-dev:armhf android-liblog-dev:armhf android-libcutils-dev:armhf android-libutils-dev:armhf
}

# tshark, for the wire tests. Debconf is told beforehand that non-root users may
# not capture, so that the install never stops at that question.
ensure_tshark() {
  package_installed tshark && return 0
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  echo "wireshark-common wireshark-common/install-setuid boolean false" | "${as_root[@]}" debconf-set-selections
  ensure_packages --no-install-recommends tshark
}
