// The number of descriptors (handles on Windows) this process holds, for
// tests that check every path gives back what it opened.
#ifndef TESTS_FD_COUNT_H
#define TESTS_FD_COUNT_H

#ifdef _WIN32
#include <windows.h>

inline int OpenFdCount() {
    DWORD n = 0;
    ::GetProcessHandleCount(::GetCurrentProcess(), &n);
    return static_cast<int>(n);
}
#else
#include <dirent.h>

// Counts "." and ".." and the directory's own descriptor too: compare counts,
// never read one as an absolute number.
inline int OpenFdCount() {
    int n = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir)) {
            ++n;
        }
        ::closedir(dir);
    }
    return n;
}
#endif

#endif  // TESTS_FD_COUNT_H
