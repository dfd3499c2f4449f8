#!/usr/bin/env bash
# Installs and builds marlod, then lets it update a virtual Marlo
# co-processor from start to finish.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
exec build/marlo-sim demo --marlod build/marlod "$@"
