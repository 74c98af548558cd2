#!/usr/bin/env bash
# The Windows build, cross-compiled with mingw-w64 and tested under Wine:
#   - build-win32/ (i686, the original 32-bit target): compiled only, since
#     32-bit Wine is not installed here;
#   - build-win64/ (x86_64): compiled, its test suite run by ctest under Wine
#     inside a virtual X display (Wine makes windows only with a display),
#     then the demo end to end.
# Arguments go to ctest, e.g. `-R Socket`. scripts/deps.sh --windows installs
# what it needs.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh --windows
start=$(date +%s)

configure() {
    cmake -S . -B "$1" -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$2.cmake" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVT_BUILD_BENCH=OFF "${@:3}" >/dev/null
}
configure build-win32 mingw-i686 -DKVT_BUILD_TESTS=OFF
cmake --build build-win32 -j"$(nproc)" --target kvtframework kvt_demo kvt_resolve \
    kvt_echo_server >&2
configure build-win64 mingw-x86_64
cmake --build build-win64 -j"$(nproc)" >&2
echo "windows: built in $(($(date +%s) - start)) s"

# A Wine prefix of the build's own, made once.
export WINEPREFIX=$PWD/build-win64/wine
export WINEDEBUG=-all
if [ ! -f "$WINEPREFIX/system.reg" ]; then
    xvfb-run -a bash scripts/wine-run.sh wineboot -i >/dev/null 2>&1
fi

# Most cases wait on timers and threads, so twice the cores keeps them busy.
xvfb-run -a ctest --test-dir build-win64 --output-on-failure -j"$((2 * $(nproc)))" "$@"
# From examples/, so that the demo reads examples/conf/kvtix.ini.
(cd examples && xvfb-run -a bash ../scripts/wine-run.sh ../build-win64/bin/kvt_demo.exe)
echo "windows: done in $(($(date +%s) - start)) s"
