// Platform types that public headers hold by value (Windows build).
// Hosts never include this file directly; the framework's headers do.
#ifndef RTOSDEFS_H
#define RTOSDEFS_H

// Winsock 2 must come before anything that pulls in windows.h, which would
// bring the old Winsock header with it.
#include <winsock2.h>  // sockaddr_in, timeval, AF_*, SOCK_*, SOL_SOCKET, SO_*
#include <windows.h>   // CRITICAL_SECTION

// The separator of path components, as text.
#define RTOS_PATH_SEPARATOR "\\"

namespace rtos {

// Storage of a re-entrant lock: a critical section.
struct LockStorage {
    CRITICAL_SECTION section;
};

constexpr char kPathSeparator = '\\';
// The library's own file, as the module list names it.
constexpr char kLibraryFileName[] = "kvtframework.dll";

}  // namespace rtos

// The element of the vector socket calls: the library's own, laid out as
// WSABUF (length, then pointer), so arrays go to WSARecv/WSASend unchanged.
struct iovec {
    unsigned long iov_len;
    char* iov_base;
};

#endif  // RTOSDEFS_H
