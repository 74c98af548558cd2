#!/usr/bin/env bash
# Runs a Windows program under Wine: the CMAKE_CROSSCOMPILING_EMULATOR of the
# Windows builds (cmake/toolchains), so ctest runs the test programs through
# it. Wine's own chatter is off unless WINEDEBUG says otherwise; WINEPREFIX
# is the caller's (scripts/windows.sh keeps one in the build directory).
set -euo pipefail
export WINEDEBUG=${WINEDEBUG:--all}
wine=$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)
exec "$wine" "$@"
