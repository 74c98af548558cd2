#!/usr/bin/env bash
# Builds the library in build-package/ for the /usr prefix and makes its Debian
# packages there (libkvtframework<N>_*.deb and libkvtframework-dev_*.deb).
# Prints the package paths.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh --package >&2
builddir=build-package
cmake -S . -B "$builddir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DKVT_BUILD_TESTS=OFF -DKVT_BUILD_BENCH=OFF -DKVT_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$builddir" -j"$(nproc)" --target kvtframework >&2
(cd "$builddir" && cpack -G DEB >&2)
ls "$PWD/$builddir"/*.deb
