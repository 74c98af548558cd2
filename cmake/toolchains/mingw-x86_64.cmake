# Cross-compiles for 64-bit Windows with Debian's mingw-w64 (posix threads).
#   cmake -S . -B build-win64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-x86_64.cmake
set(KVT_MINGW_TRIPLET x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
