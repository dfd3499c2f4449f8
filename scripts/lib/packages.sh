# Sourced by the scripts that install Debian packages:
#
#   ensure_packages NAME[:ARCH]...
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
  local package missing=() as_root=()
  for package in "$@"; do
    package_installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "== installing: ${missing[*]}"
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  if ! DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null 2>&1; then
    "${as_root[@]}" apt-get update -qq ||
      echo "== apt-get update exited $?; installing from the indexes it got" >&2
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null || true
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
