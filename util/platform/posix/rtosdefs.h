// Platform types that public headers hold by value (POSIX build).
// Hosts never include this file directly; the framework's headers do.
#ifndef RTOSDEFS_H
#define RTOSDEFS_H

#include <netinet/in.h>  // sockaddr_in, held by CRtInetAddr
#include <pthread.h>
#include <sys/socket.h>  // AF_*, SOCK_*, SOL_SOCKET, SO_*: what hosts pass to the sockets
#include <sys/time.h>    // timeval
#include <sys/uio.h>     // iovec: the system's own, so arrays go to readv/writev unchanged

// The separator of path components, as text.
#define RTOS_PATH_SEPARATOR "/"

namespace rtos {

// Storage of a re-entrant lock (a recursive pthread mutex).
struct LockStorage {
    pthread_mutex_t mutex;
};

constexpr char kPathSeparator = '/';
// The library's own file, as the module list names it.
constexpr char kLibraryFileName[] = "libkvtframework.so";

}  // namespace rtos

#endif  // RTOSDEFS_H
