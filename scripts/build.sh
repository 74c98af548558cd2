#!/usr/bin/env bash
# Configures and builds one flavour of the project.
#   KVT_SANITIZE=""                 plain build in build/
#   KVT_SANITIZE=address,undefined  ASan + UBSan in build-address-undefined/
#   KVT_SANITIZE=thread             TSan in build-thread/
# Prints the build directory on the last line.
set -euo pipefail
cd "$(dirname "$0")/.."
flavour=${KVT_SANITIZE:-}
builddir=build${flavour:+-${flavour//,/-}}
extra=()
# Benchmarks are built (and so kept compiling) in the plain flavour only.
[ -n "$flavour" ] && extra+=(-DKVT_BUILD_BENCH=OFF)
cmake -S . -B "$builddir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVT_SANITIZE="$flavour" "${extra[@]}" >/dev/null
cmake --build "$builddir" -j"$(nproc)" >&2
echo "$builddir"
