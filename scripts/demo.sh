#!/usr/bin/env bash
# Installs what is missing, builds and runs the demo host program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
builddir=$(bash scripts/build.sh | tail -n 1)
# From examples/, so that the demo reads examples/conf/kvtix.ini.
cd examples
"../$builddir/examples/kvt_demo" "$@"
