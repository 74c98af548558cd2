#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a
# host program against it twice: through pkg-config and through the CMake package.
set -euo pipefail
: "${KVT_SOURCE_DIR:?}" "${KVT_BUILD_DIR:?}"
cxx=${KVT_CXX:-c++}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$KVT_BUILD_DIR" --prefix "$work/prefix" > "$work/install.log"
libdir=$(dirname "$(find "$work/prefix" -name 'libkvtframework.so' | head -n 1)")

echo "== pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
"$cxx" -std=c++17 -o "$work/consumer_pc" "$KVT_SOURCE_DIR/tests/install/consumer.cpp" \
    $(pkg-config --cflags --libs kvtframework)
LD_LIBRARY_PATH="$libdir" "$work/consumer_pc"

echo "== CMake package"
cmake -S "$KVT_SOURCE_DIR/tests/install" -B "$work/cmake-build" \
    -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" > "$work/cmake.log"
cmake --build "$work/cmake-build" > "$work/build.log"
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"
