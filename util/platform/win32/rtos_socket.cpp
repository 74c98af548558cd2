// Sockets on Windows: Winsock 2 itself. WSARecv, WSASend and WSASendTo take
// the iovec array as it is, since it has WSABUF's layout.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <errno.h>

#include <climits>

#include "rtos_winsock.h"
#include "rtossocket.h"

static_assert(sizeof(iovec) == sizeof(WSABUF) &&
                  offsetof(iovec, iov_len) == offsetof(WSABUF, len) &&
                  offsetof(iovec, iov_base) == offsetof(WSABUF, buf),
              "iovec must have WSABUF's layout");

namespace rtos {
namespace {

SOCKET Sock(SocketHandle aSocket) {
    return static_cast<SOCKET>(aSocket);
}

int CutLength(unsigned long aLen) {
    return aLen > static_cast<unsigned long>(INT_MAX) ? INT_MAX : static_cast<int>(aLen);
}

// Winsock's result: -1 for SOCKET_ERROR, with its error copied to errno as
// well, where callers of the socket wrappers look for it.
int Count(int aRv) {
    if (aRv == SOCKET_ERROR) {
        errno = ::WSAGetLastError();
        return -1;
    }
    return aRv;
}

SocketHandle Opened(SOCKET aSocket) {
    if (aSocket == INVALID_SOCKET) {
        errno = ::WSAGetLastError();
        return kInvalidSocket;
    }
    return static_cast<SocketHandle>(aSocket);
}

// The length in and out of the address calls, as Winsock's int.
class AddrLen {
public:
    explicit AddrLen(unsigned long* aLen)
        : m_pLen(aLen), m_len(aLen ? static_cast<int>(*aLen) : 0) {}
    ~AddrLen() {
        if (m_pLen) {
            *m_pLen = static_cast<unsigned long>(m_len);
        }
    }
    int* Get() { return m_pLen ? &m_len : nullptr; }

private:
    unsigned long* m_pLen;
    int m_len;
};

WSABUF* Buffers(const iovec* aIov) {
    return reinterpret_cast<WSABUF*>(const_cast<iovec*>(aIov));
}

// A vector call's byte count, or -1.
int Moved(int aRv, DWORD aBytes) {
    return Count(aRv) < 0 ? -1 : static_cast<int>(aBytes > INT_MAX ? INT_MAX : aBytes);
}

}  // namespace

uint32_t InetAddr(const char* aText) {
    return aText ? ::inet_addr(aText) : kInaddrNone;
}

void InetNtoa(uint32_t aAddr, char* aBuf, size_t aLen) {
    if (!aBuf || aLen == 0) {
        return;
    }
    in_addr addr;
    addr.s_addr = aAddr;
    if (!::inet_ntop(AF_INET, &addr, aBuf, aLen)) {
        aBuf[0] = '\0';
    }
}

SocketHandle SocketCreate(int aFamily, int aType, int aProtocol) {
    EnsureWinsock();
    // WSASocket rather than socket: without WSA_FLAG_NO_HANDLE_INHERIT a
    // child process would keep the host's connections open.
    SOCKET s = ::WSASocketA(aFamily, aType, aProtocol, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
    return Opened(s);
}

int SocketClose(SocketHandle aSocket) {
    return Count(::closesocket(Sock(aSocket)));
}

int SocketShutdown(SocketHandle aSocket, int aHow) {
    return Count(::shutdown(Sock(aSocket), aHow == kShutRead ? SD_RECEIVE : SD_SEND));
}

int SocketBind(SocketHandle aSocket, const sockaddr* aAddr, unsigned long aLen) {
    return Count(::bind(Sock(aSocket), aAddr, static_cast<int>(aLen)));
}

int SocketListen(SocketHandle aSocket, int aBacklog) {
    return Count(::listen(Sock(aSocket), aBacklog));
}

SocketHandle SocketAccept(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen) {
    AddrLen len(aLen);
    SOCKET s = ::accept(Sock(aSocket), aAddr, len.Get());
    return Opened(s);
}

int SocketConnect(SocketHandle aSocket, const sockaddr* aAddr, unsigned long aLen) {
    return Count(::connect(Sock(aSocket), aAddr, static_cast<int>(aLen)));
}

int SocketGetName(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen) {
    AddrLen len(aLen);
    return Count(::getsockname(Sock(aSocket), aAddr, len.Get()));
}

int SocketGetPeerName(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen) {
    AddrLen len(aLen);
    return Count(::getpeername(Sock(aSocket), aAddr, len.Get()));
}

int SocketSetOption(SocketHandle aSocket, int aLevel, int aOption, const void* aVal, int aLen) {
    return Count(
        ::setsockopt(Sock(aSocket), aLevel, aOption, static_cast<const char*>(aVal), aLen));
}

int SocketGetOption(SocketHandle aSocket, int aLevel, int aOption, void* aVal, int* aLen) {
    return Count(::getsockopt(Sock(aSocket), aLevel, aOption, static_cast<char*>(aVal), aLen));
}

int SocketSetNonBlocking(SocketHandle aSocket, bool aOn) {
    u_long on = aOn ? 1 : 0;
    return Count(::ioctlsocket(Sock(aSocket), FIONBIO, &on));
}

int SocketIoctl(SocketHandle aSocket, int aCmd, void* aArg) {
    return Count(::ioctlsocket(Sock(aSocket), static_cast<long>(aCmd), static_cast<u_long*>(aArg)));
}

int SocketRecv(SocketHandle aSocket, char* aBuf, unsigned long aLen, int aFlags) {
    return Count(::recv(Sock(aSocket), aBuf, CutLength(aLen), aFlags));
}

int SocketSend(SocketHandle aSocket, const char* aBuf, unsigned long aLen, int aFlags) {
    return Count(::send(Sock(aSocket), aBuf, CutLength(aLen), aFlags));
}

int SocketRecvV(SocketHandle aSocket, iovec* aIov, unsigned long aCount) {
    DWORD bytes = 0, flags = 0;
    int rv = ::WSARecv(Sock(aSocket), Buffers(aIov), aCount, &bytes, &flags, nullptr, nullptr);
    return Moved(rv, bytes);
}

int SocketSendV(SocketHandle aSocket, const iovec* aIov, unsigned long aCount) {
    DWORD bytes = 0;
    int rv = ::WSASend(Sock(aSocket), Buffers(aIov), aCount, &bytes, 0, nullptr, nullptr);
    return Moved(rv, bytes);
}

int SocketRecvFrom(SocketHandle aSocket, char* aBuf, unsigned long aLen, int aFlags,
                   sockaddr* aAddr, unsigned long* aAddrLen) {
    AddrLen len(aAddrLen);
    return Count(::recvfrom(Sock(aSocket), aBuf, CutLength(aLen), aFlags, aAddr, len.Get()));
}

int SocketSendTo(SocketHandle aSocket, const char* aBuf, unsigned long aLen, int aFlags,
                 const sockaddr* aAddr, unsigned long aAddrLen) {
    return Count(
        ::sendto(Sock(aSocket), aBuf, CutLength(aLen), aFlags, aAddr, static_cast<int>(aAddrLen)));
}

int SocketSendVTo(SocketHandle aSocket, const iovec* aIov, unsigned long aCount,
                  const sockaddr* aAddr, unsigned long aAddrLen) {
    DWORD bytes = 0;
    int rv = ::WSASendTo(Sock(aSocket), Buffers(aIov), aCount, &bytes, 0, aAddr,
                         static_cast<int>(aAddrLen), nullptr, nullptr);
    return Moved(rv, bytes);
}

bool SocketErrorIsWouldBlock(int aErr) {
    return aErr == WSAEWOULDBLOCK;
}

}  // namespace rtos
