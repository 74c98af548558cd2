#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
# KVT_SANITIZE selects a sanitizer flavour (see scripts/build.sh); arguments go
# to ctest, e.g. `-L stress` for the stress programs alone. KVT_STRESS_SCALE
# sizes the stress programs (README, Reliability).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
builddir=$(bash scripts/build.sh | tail -n 1)
# Trace files of the test processes go below the build directory, not into
# the user's own trace folder.
mkdir -p "$builddir/test-data/share"
export XDG_DATA_HOME="$PWD/$builddir/test-data/share"
args=(--test-dir "$builddir" --output-on-failure -j"$(nproc)")
# The installed-library check links host programs without sanitizer runtimes;
# the echo soak (KVT_SOAK_SECONDS, default 20) measures the plain build only.
[ -n "${KVT_SANITIZE:-}" ] && args+=(-LE 'install|soak')
ctest "${args[@]}" "$@"
