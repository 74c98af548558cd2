// CRtInetAddr: an IPv4 endpoint (address and port) held in the system's socket
// address, so the socket wrappers (rtsocket.h) hand it to the system unchanged.
// Hosts use it directly: to name endpoints, as a key of ordered containers and
// in traces.
//
// An endpoint given by a host name keeps the name and is "not resolved" (its
// address reads 0.0.0.0) until the DNS manager has the name's address; the
// address never waits for a lookup. Its owner calls TryResolve (or Set) again
// later.
//
// Thread rules: a plain value without a lock; one thread uses an object at a
// time. Copies are independent.
#ifndef RTINETADDR_H
#define RTINETADDR_H

#include "rtdefines.h"
#include "rtosdefs.h"  // sockaddr_in

class RT_API CRtInetAddr {
public:
    // 0.0.0.0 port 0, resolved.
    CRtInetAddr();
    // Set(aHostName, aPort) and Set(aIpAddrAndPort); their results are dropped,
    // so a name not resolved at once leaves the object unresolved.
    CRtInetAddr(const char* aHostName, unsigned short aPort);
    explicit CRtInetAddr(const char* aIpAddrAndPort);

    // A dotted address (null or empty meaning 0.0.0.0), or a host name that is
    // then resolved through TryResolve; aPort in host byte order. Clears the
    // trailing bytes of the socket address.
    int Set(const char* aHostName, unsigned short aPort);
    // "address:port" or "hostname:port". Without a colon the whole text is the
    // address and the port is 0; the port is read like atoi and cut to 16 bits.
    // RT_ERROR_INVALID_ARG for null, RT_ERROR_NOT_AVAILABLE for an address part
    // of 256 characters or more: the object is then unchanged.
    int Set(const char* aIpAddrAndPort);
    // RT_ERROR_FAILURE, object unchanged, when aIpAddr is not a dotted address.
    int SetIpAddrByString(const char* aIpAddr);
    // Stores a numeric address, which makes the object resolved. Port untouched.
    int SetIpAddrBy4Bytes(unsigned long aIpAddr, int aIsNetworkOrder);
    int SetPortA(unsigned short aPort);  // aPort in host byte order

    unsigned short GetPort() const;           // host byte order
    unsigned long GetIpAddrIn4Bytes() const;  // network byte order, as stored
    unsigned long GetSize() const;            // of the socket address: 16
    unsigned long GetType() const;            // the address family, AF_INET
    const sockaddr_in* GetPtr() const;        // traces when not resolved
    int IsResolved() const { return m_strHostName.empty(); }
    CRtString GetHostName() const { return m_strHostName; }  // empty when resolved
    // Dotted text when resolved, else the host name.
    CRtString GetIpDisplayName() const;

    // Dotted text of a network-order address.
    static CRtString IpAddr4BytesToString(unsigned long aIpAddr);
    // Non-zero when aIpAddr is a dotted address (null and empty read as
    // 0.0.0.0), with its network-order value in aIpOut.
    static int IpAddrStringTo4Bytes(const char* aIpAddr, unsigned long& aIpOut);

    // Asks the DNS manager, without waiting, for the address of the kept host
    // name. RT_OK once the object holds the address; otherwise the manager's
    // code (RT_ERROR_WOULD_BLOCK while a lookup runs) and the object keeps its
    // name and port.
    int TryResolve();

    // Family, port and address; the host name and trailing bytes are ignored.
    bool operator==(const CRtInetAddr& aRight) const;
    // Orders the stored network-order address, then port, each read as a host
    // integer: a strict weak order, though not the numeric order on
    // little-endian hosts.
    bool operator<(const CRtInetAddr& aRight) const;

    // 0.0.0.0 port 0, resolved; lives as long as the library.
    static CRtInetAddr s_rtInetAddrNull;

private:
    // The socket wrappers write addresses the system reports (getsockname,
    // recvfrom) straight into m_SockAddr.
    friend class CRtSocketBase;

    sockaddr_in m_SockAddr;
    CRtString m_strHostName;  // non-empty while not resolved
};

#endif  // RTINETADDR_H
