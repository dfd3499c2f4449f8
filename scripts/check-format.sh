#!/usr/bin/env bash
# Fails when a C++ file of the project is not formatted as .clang-format
# says, naming each such file. `scripts/check-format.sh --fix` formats them.
#
# The formatter is Debian's clang-format; a different major version may
# format a few constructs differently, so CI uses the one setup.sh installs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
ensure_packages clang-format
mapfile -t files < <(git ls-files '*.cc' '*.h')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
unformatted=()
for file in "${files[@]}"; do
  clang-format --dry-run -Werror "$file" >/dev/null 2>&1 || unformatted+=("$file")
done
if [ ${#unformatted[@]} -ne 0 ]; then
  echo "not formatted as .clang-format says (run scripts/check-format.sh --fix):"
  printf '  %s\n' "${unformatted[@]}"
  exit 1
fi
echo "format: ${#files[@]} files formatted as .clang-format says"
