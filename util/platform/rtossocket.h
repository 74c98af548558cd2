// The platform layer's socket calls and IPv4 address conversions: what the
// socket wrappers and the internet address stand on. Building blocks of the
// library; hosts never include this file.
//
// Result convention: every call that can fail returns -1 and leaves the
// system's socket error, unchanged, in the calling thread's last error
// (errno on POSIX; on Windows WSAGetLastError, copied to errno as well).
// Nothing is retried or translated.
//
// Thread rules: every function may be called from any thread; none keeps state.
#ifndef RTOSSOCKET_H
#define RTOSSOCKET_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rtexport.h"
#include "rtosdefs.h"  // iovec

// The system's own type; declared here so that callers need no system header.
struct sockaddr;

namespace rtos {

// A socket as the system names it (a descriptor on POSIX); -1 when none.
typedef intptr_t SocketHandle;
constexpr SocketHandle kInvalidSocket = -1;

// ---- Byte order ---------------------------------------------------------------
// Network order is big-endian whatever the host; written byte by byte so that
// no header decides the host's order.

inline uint16_t HostToNet16(uint16_t aValue) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(aValue >> 8),
                                    static_cast<unsigned char>(aValue)};
    uint16_t out;
    std::memcpy(&out, bytes, sizeof(out));
    return out;
}
inline uint16_t NetToHost16(uint16_t aValue) {
    unsigned char bytes[2];
    std::memcpy(bytes, &aValue, sizeof(bytes));
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}
inline uint32_t HostToNet32(uint32_t aValue) {
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(aValue >> 24), static_cast<unsigned char>(aValue >> 16),
        static_cast<unsigned char>(aValue >> 8), static_cast<unsigned char>(aValue)};
    uint32_t out;
    std::memcpy(&out, bytes, sizeof(out));
    return out;
}
inline uint32_t NetToHost32(uint32_t aValue) {
    unsigned char bytes[4];
    std::memcpy(bytes, &aValue, sizeof(bytes));
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

// ---- Address text ---------------------------------------------------------------

constexpr uint32_t kInaddrNone = 0xFFFFFFFFu;
// The dotted forms that inet_addr accepts ("a.b.c.d", "a.b.c", "a.b", "a", each
// part decimal, octal or hex). The network-order address, or kInaddrNone for
// text that is not an address (and for "255.255.255.255").
RT_API uint32_t InetAddr(const char* aText);
// Dotted-decimal text of a network-order address into aBuf (16 bytes suffice).
// Unlike inet_ntoa, it uses no shared buffer.
RT_API void InetNtoa(uint32_t aAddr, char* aBuf, size_t aLen);

// ---- Sockets --------------------------------------------------------------------

RT_API SocketHandle SocketCreate(int aFamily, int aType, int aProtocol);
RT_API int SocketClose(SocketHandle aSocket);
// aHow: kShutRead or kShutWrite.
constexpr int kShutRead = 0;
constexpr int kShutWrite = 1;
RT_API int SocketShutdown(SocketHandle aSocket, int aHow);

RT_API int SocketBind(SocketHandle aSocket, const sockaddr* aAddr, unsigned long aLen);
RT_API int SocketListen(SocketHandle aSocket, int aBacklog);
// The new connection's handle, or kInvalidSocket. aAddr and aLen may be null.
RT_API SocketHandle SocketAccept(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen);
RT_API int SocketConnect(SocketHandle aSocket, const sockaddr* aAddr, unsigned long aLen);

// *aLen is the room at aAddr in, the length written out.
RT_API int SocketGetName(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen);
RT_API int SocketGetPeerName(SocketHandle aSocket, sockaddr* aAddr, unsigned long* aLen);

RT_API int SocketSetOption(SocketHandle aSocket, int aLevel, int aOption, const void* aVal,
                           int aLen);
RT_API int SocketGetOption(SocketHandle aSocket, int aLevel, int aOption, void* aVal, int* aLen);
RT_API int SocketSetNonBlocking(SocketHandle aSocket, bool aOn);
// ioctlsocket: aCmd and aArg go to the system unchanged (FIONREAD takes an int*).
RT_API int SocketIoctl(SocketHandle aSocket, int aCmd, void* aArg);

// Byte counts or -1. Sends never raise SIGPIPE: a broken connection is the
// error EPIPE. Lengths above INT_MAX are cut so that any count fits an int.
RT_API int SocketRecv(SocketHandle aSocket, char* aBuf, unsigned long aLen, int aFlags);
RT_API int SocketSend(SocketHandle aSocket, const char* aBuf, unsigned long aLen, int aFlags);
RT_API int SocketRecvV(SocketHandle aSocket, iovec* aIov, unsigned long aCount);
RT_API int SocketSendV(SocketHandle aSocket, const iovec* aIov, unsigned long aCount);
// *aLen as in SocketGetName.
RT_API int SocketRecvFrom(SocketHandle aSocket, char* aBuf, unsigned long aLen, int aFlags,
                          sockaddr* aAddr, unsigned long* aAddrLen);
RT_API int SocketSendTo(SocketHandle aSocket, const char* aBuf, unsigned long aLen, int aFlags,
                        const sockaddr* aAddr, unsigned long aAddrLen);
RT_API int SocketSendVTo(SocketHandle aSocket, const iovec* aIov, unsigned long aCount,
                         const sockaddr* aAddr, unsigned long aAddrLen);

// True when aErr (a last error) says the call would have blocked.
RT_API bool SocketErrorIsWouldBlock(int aErr);

}  // namespace rtos

#endif  // RTOSSOCKET_H
