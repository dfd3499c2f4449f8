#!/usr/bin/env bash
# The daemon's folders form layers; a folder includes only from its own
# layer or below. The one include allowed upward is the log statement's
# header, daemon/marlo_deamon_log.h, which every subsystem logs through.
#
#   scripts/check-layers.sh          fails on any other upward include
#   scripts/check-layers.sh --graph  prints the folder include graph (dot)
set -euo pipefail
cd "$(dirname "$0")/.."

# Folder and layer, lowest first.
declare -A layer=([platform]=0 [common]=0 [capture]=0 [comhandler]=1 [glink]=2 [fwupdater]=3 [rma]=3 [daemon]=4)
allowed_upward="daemon/marlo_deamon_log.h"

edges=()
violations=()
for from in "${!layer[@]}"; do
  while IFS= read -r line; do
    file=${line%%:*}
    target=${line#*\"}
    target=${target%\"*}
    to=${target%%/*}
    [ -n "${layer[$to]+set}" ] && [ "$to" != "$from" ] || continue
    edges+=("$from -> $to")
    if [ "${layer[$to]}" -gt "${layer[$from]}" ] && [ "$target" != "$allowed_upward" ]; then
      violations+=("$file includes $target")
    fi
  done < <(git grep -H '^#include "[a-z_]*/' -- "$from/*.cc" "$from/*.h" || true)
done

if [ "${1:-}" = --graph ]; then
  echo "digraph marlod {"
  printf '%s\n' "${edges[@]}" | sort -u | sed 's/^/  /; s/$/;/'
  echo "}"
  exit 0
fi
if [ ${#violations[@]} -ne 0 ]; then
  echo "upward includes (only $allowed_upward may be included from a lower layer):"
  printf '  %s\n' "${violations[@]}"
  exit 1
fi
echo "layers: no upward include but the log statement's header"
