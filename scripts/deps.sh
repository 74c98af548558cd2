#!/usr/bin/env bash
# Installs, with apt-get, whatever the build and the tests need and the machine
# lacks. Does nothing when everything is there.
#   --compare  also the peer libraries of scripts/compare.sh
#   --package  also what cpack needs for Debian packages (scripts/package.sh)
#   --windows  also the mingw-w64 cross compilers, GoogleTest's sources, Wine
#              and a virtual X display (scripts/windows.sh)
set -euo pipefail
packages=(build-essential cmake pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-14-dev)
case "${1:-}" in
    --compare) packages+=(libuv1-dev libasio-dev libevent-dev libace-dev gnuplot-nox) ;;
    # dpkg-shlibdeps works out the runtime package's dependencies; it needs file.
    --package) packages+=(dpkg-dev file) ;;
    --windows) packages+=(g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix googletest
                          wine64 xvfb xauth) ;;
esac
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
