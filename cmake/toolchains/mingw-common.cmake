# Shared part of the mingw-w64 toolchain files; KVT_MINGW_TRIPLET names the target.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${KVT_MINGW_TRIPLET})

# The -posix variants: std::thread and std::mutex need winpthreads.
set(CMAKE_C_COMPILER ${KVT_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KVT_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${KVT_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${KVT_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The compiler's own runtime DLLs (libstdc++, libgcc, winpthread) are linked
# in, so that the DLL and the programs run without them beside.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++ -static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++ -static")

# ctest runs the Windows programs under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../../scripts/wine-run.sh)
