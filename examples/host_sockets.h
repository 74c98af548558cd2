// The example hosts' few direct socket calls and error checks, for POSIX and
// Windows alike. The library's socket wrappers leave a failure's error in
// errno (Winsock's value on Windows); a direct system call leaves it in
// LastSocketError().
#ifndef EXAMPLES_HOST_SOCKETS_H
#define EXAMPLES_HOST_SOCKETS_H

#include <errno.h>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif

namespace host {

#ifdef _WIN32
inline int LastSocketError() {
    return ::WSAGetLastError();
}
inline bool WouldBlock(int aErr) {
    return aErr == WSAEWOULDBLOCK;
}
inline bool Interrupted(int aErr) {
    return aErr == WSAEINTR;
}
// A non-blocking connect under way.
inline bool ConnectPending(int aErr) {
    return aErr == WSAEWOULDBLOCK;
}
// A connection that went away while it waited to be accepted.
inline bool AcceptAborted(int aErr) {
    return aErr == WSAECONNRESET;
}
// -1 when none waits or on failure; the new socket does not block.
inline int AcceptNonBlocking(int aListener) {
    SOCKET s = ::accept(static_cast<SOCKET>(aListener), nullptr, nullptr);
    if (s == INVALID_SOCKET) {
        return -1;
    }
    u_long on = 1;
    ::ioctlsocket(s, FIONBIO, &on);
    return static_cast<int>(s);
}
inline int SetIntOption(int aFd, int aLevel, int aOption, int aValue) {
    return ::setsockopt(static_cast<SOCKET>(aFd), aLevel, aOption,
                        reinterpret_cast<const char*>(&aValue), sizeof(aValue));
}
#else
inline int LastSocketError() {
    return errno;
}
inline bool WouldBlock(int aErr) {
    return aErr == EWOULDBLOCK || aErr == EAGAIN;
}
inline bool Interrupted(int aErr) {
    return aErr == EINTR;
}
inline bool ConnectPending(int aErr) {
    return aErr == EINPROGRESS;
}
inline bool AcceptAborted(int aErr) {
    return aErr == ECONNABORTED;
}
inline int AcceptNonBlocking(int aListener) {
    return ::accept4(aListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}
inline int SetIntOption(int aFd, int aLevel, int aOption, int aValue) {
    return ::setsockopt(aFd, aLevel, aOption, &aValue, sizeof(aValue));
}
#endif

}  // namespace host

#endif  // EXAMPLES_HOST_SOCKETS_H
