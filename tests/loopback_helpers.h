// Loopback TCP endpoints for tests that need real sockets.
#ifndef TESTS_LOOPBACK_HELPERS_H
#define TESTS_LOOPBACK_HELPERS_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

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
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = Loopback(0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    EXPECT_EQ(::listen(fd, 16), 0);
    return fd;
}

#endif  // TESTS_LOOPBACK_HELPERS_H
