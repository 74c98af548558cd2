// Sockets on POSIX: the BSD calls under Winsock's names. readv and writev stand
// in for WSARecv and WSASend; sends go through sendmsg with MSG_NOSIGNAL so that
// a broken connection is an error, not a process-wide signal.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>

#include "rtossocket.h"

namespace rtos {
namespace {

int Fd(SocketHandle aSocket) {
    // A handle that is no descriptor (too large) must fail like a closed one.
    return aSocket >= 0 && aSocket <= INT_MAX ? static_cast<int>(aSocket) : -1;
}

size_t CutLength(unsigned long aLen) {
    return aLen > static_cast<unsigned long>(INT_MAX) ? static_cast<size_t>(INT_MAX) : aLen;
}

// ssize_t counts fit an int: the lengths were cut, and the kernel moves less
// than 2 GiB per call.
int Count(ssize_t aRv) {
    return aRv < 0 ? -1 : static_cast<int>(aRv);
}

// The length in and out of the address calls, as socklen_t.
class AddrLen {
public:
    explicit AddrLen(unsigned long* aLen)
        : m_pLen(aLen), m_len(aLen ? static_cast<socklen_t>(*aLen) : 0) {}
    ~AddrLen() {
        if (m_pLen) {
            *m_pLen = m_len;
        }
    }
    socklen_t* Get() { return m_pLen ? &m_len : nullptr; }

private:
    unsigned long* m_pLen;
    socklen_t m_len;
};

msghdr Message(const iovec* aIov, unsigned long aCount, const sockaddr* aAddr,
               unsigned long aAddrLen) {
    msghdr msg;
    ::memset(&msg, 0, sizeof(msg));
    msg.msg_name = const_cast<sockaddr*>(aAddr);
    msg.msg_namelen = static_cast<socklen_t>(aAddrLen);
    msg.msg_iov = const_cast<iovec*>(aIov);
    msg.msg_iovlen = aCount;
    return msg;
}

}  // namespace

uint32_t InetAddr(const char* aText) {
    if (!aText) {
        return kInaddrNone;
    }
    in_addr addr;
    return ::inet_aton(aText, &addr) ? addr.s_addr : kInaddrNone;
}

void InetNtoa(uint32_t aAddr, char* aBuf, size_t aLen) {
    if (!aBuf || aLen == 0) {
        return;
    }
    in_addr addr;
    addr.s_addr = aAddr;
    if (!::inet_ntop(AF_INET, &addr, aBuf, static_cast<socklen_t>(aLen))) {
        aBuf[0] = '\0';
    }
}

SocketHandle SocketCreate(int aFamily, int aType, int aProtocol) {
    // Close-on-exec: a child process must not keep the host's connections open.
    int fd = ::socket(aFamily, aType | SOCK_CLOEXEC, aProtocol);
    return fd < 0 ? kInvalidSocket : fd;
}

int SocketClose(SocketHandle aSocket) {
    // Linux releases the descriptor even when close reports EINTR: never retry.
    return ::close(Fd(aSocket)) == 0 ? 0 : -1;
}

int SocketShutdown(SocketHandle aSocket, int aHow) {
    return ::shutdown(Fd(aSocket), aHow == kShutRead ? SHUT_RD : SHUT_WR);
}

int SocketBind(SocketHandle aSocket, const sockaddr* aAddr, unsigned long aLen) {
    return ::bind(Fd(aSocket), aAddr, static_cast<socklen_t>(aLen));
}

int SocketListen(SocketHandle aSocket, int aBacklog) {
    return ::listen(Fd(aSocket), aBacklog);
}

SocketHandle SocketAccept(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen) {
    AddrLen len(aLen);
    int fd = ::accept4(Fd(aSocket), aAddr, len.Get(), SOCK_CLOEXEC);
    return fd < 0 ? kInvalidSocket : fd;
}

int SocketConnect(SocketHandle aSocket, const sockaddr* aAddr, unsigned long aLen) {
    return ::connect(Fd(aSocket), aAddr, static_cast<socklen_t>(aLen));
}

int SocketGetName(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen) {
    AddrLen len(aLen);
    return ::getsockname(Fd(aSocket), aAddr, len.Get());
}

int SocketGetPeerName(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen) {
    AddrLen len(aLen);
    return ::getpeername(Fd(aSocket), aAddr, len.Get());
}

int SocketSetOption(SocketHandle aSocket, int aLevel, int aOption, const void* aVal, int aLen) {
    return ::setsockopt(Fd(aSocket), aLevel, aOption, aVal, static_cast<socklen_t>(aLen));
}

int SocketGetOption(SocketHandle aSocket, int aLevel, int aOption, void* aVal, int* aLen) {
    socklen_t len = aLen ? static_cast<socklen_t>(*aLen) : 0;
    int rv = ::getsockopt(Fd(aSocket), aLevel, aOption, aVal, aLen ? &len : nullptr);
    if (aLen) {
        *aLen = static_cast<int>(len);
    }
    return rv;
}

int SocketSetNonBlocking(SocketHandle aSocket, bool aOn) {
    int on = aOn ? 1 : 0;
    return ::ioctl(Fd(aSocket), FIONBIO, &on);
}

int SocketIoctl(SocketHandle aSocket, int aCmd, void* aArg) {
    return ::ioctl(Fd(aSocket), static_cast<unsigned long>(aCmd), aArg);
}

int SocketRecv(SocketHandle aSocket, char* aBuf, unsigned long aLen, int aFlags) {
    return Count(::recv(Fd(aSocket), aBuf, CutLength(aLen), aFlags));
}

int SocketSend(SocketHandle aSocket, const char* aBuf, unsigned long aLen, int aFlags) {
    return Count(::send(Fd(aSocket), aBuf, CutLength(aLen), aFlags | MSG_NOSIGNAL));
}

int SocketRecvV(SocketHandle aSocket, iovec* aIov, unsigned long aCount) {
    return Count(::readv(Fd(aSocket), aIov, static_cast<int>(CutLength(aCount))));
}

int SocketSendV(SocketHandle aSocket, const iovec* aIov, unsigned long aCount) {
    msghdr msg = Message(aIov, aCount, nullptr, 0);
    return Count(::sendmsg(Fd(aSocket), &msg, MSG_NOSIGNAL));
}

int SocketRecvFrom(SocketHandle aSocket, char* aBuf, unsigned long aLen, int aFlags,
                   sockaddr* aAddr, unsigned long* aAddrLen) {
    AddrLen len(aAddrLen);
    return Count(::recvfrom(Fd(aSocket), aBuf, CutLength(aLen), aFlags, aAddr, len.Get()));
}

int SocketSendTo(SocketHandle aSocket, const char* aBuf, unsigned long aLen, int aFlags,
                 const sockaddr* aAddr, unsigned long aAddrLen) {
    return Count(::sendto(Fd(aSocket), aBuf, CutLength(aLen), aFlags | MSG_NOSIGNAL, aAddr,
                          static_cast<socklen_t>(aAddrLen)));
}

int SocketSendVTo(SocketHandle aSocket, const iovec* aIov, unsigned long aCount,
                  const sockaddr* aAddr, unsigned long aAddrLen) {
    msghdr msg = Message(aIov, aCount, aAddr, aAddrLen);
    return Count(::sendmsg(Fd(aSocket), &msg, MSG_NOSIGNAL));
}

bool SocketErrorIsWouldBlock(int aErr) {
    return aErr == EWOULDBLOCK || aErr == EAGAIN;
}

}  // namespace rtos
