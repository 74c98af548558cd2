// Loopback TCP endpoints for tests that need real sockets, and the few system
// socket calls those tests make directly, under one spelling for POSIX and
// Windows.
#ifndef TESTS_LOOPBACK_HELPERS_H
#define TESTS_LOOPBACK_HELPERS_H

#include <gtest/gtest.h>

#include <errno.h>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>

typedef int socklen_t;
// Sockets are not inherited by other programs on Windows unless asked for.
constexpr int SOCK_CLOEXEC = 0;
constexpr int SHUT_WR = SD_SEND;

// The error of the last direct socket call.
inline int SocketErrno() {
    return ::WSAGetLastError();
}
inline int CloseSocket(int aFd) {
    return ::closesocket(static_cast<SOCKET>(aFd));
}
constexpr int kErrInProgress = WSAEWOULDBLOCK;  // a non-blocking connect under way
inline bool IsWouldBlock(int aErr) {
    return aErr == WSAEWOULDBLOCK;
}
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

inline int SocketErrno() {
    return errno;
}
inline int CloseSocket(int aFd) {
    return ::close(aFd);
}
constexpr int kErrInProgress = EINPROGRESS;
inline bool IsWouldBlock(int aErr) {
    return aErr == EWOULDBLOCK || aErr == EAGAIN;
}
#endif

inline int SetSocketOption(int aFd, int aLevel, int aOption, const void* aValue, int aLen) {
    return ::setsockopt(aFd, aLevel, aOption, static_cast<const char*>(aValue), aLen);
}

inline sockaddr_in Loopback(uint16_t aPort) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(aPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

inline uint16_t PortOf(int aFd) {
    sockaddr_in a{};
    socklen_t len = sizeof(a);
    ::getsockname(aFd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

// A listening socket on a free loopback port.
inline int Listener() {
    int fd = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a = Loopback(0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    EXPECT_EQ(::listen(fd, 16), 0);
    return fd;
}

#endif  // TESTS_LOOPBACK_HELPERS_H
