# Cross-compiles for 32-bit Windows with Debian's mingw-w64 (posix threads).
#   cmake -S . -B build-win32 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-i686.cmake
set(KVT_MINGW_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
