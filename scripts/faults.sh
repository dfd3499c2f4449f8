#!/usr/bin/env bash
# Puts realistic faults back into the daemon one at a time, in a scratch
# worktree of HEAD, and prints which of them the native suite catches
# (docs/coverage.md, "Faults the suite catches"). The faults and the options:
#   scripts/faults.sh --list
#   scripts/faults.sh [--keep DIR] [--rev REV] [--full] [--timeout S] [--only NAME...]
# --keep DIR keeps the scratch worktree and its build for the next run;
# --full runs the whole suite per fault instead of stopping at the first
# failure. Exits 1 when a fault is missed or the unchanged code fails.
set -euo pipefail
exec python3 "$(dirname "$0")/faults/faults.py" "$@"
