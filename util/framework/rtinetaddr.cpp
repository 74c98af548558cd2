#include "rtinetaddr.h"

#include <cstdlib>
#include <cstring>

#include "rtdebug.h"
#include "rtdnsmanager.h"
#include "rtossocket.h"

CRtInetAddr CRtInetAddr::s_rtInetAddrNull;

CRtInetAddr::CRtInetAddr() {
    Set(nullptr, 0);
}

CRtInetAddr::CRtInetAddr(const char* aHostName, unsigned short aPort) {
    Set(aHostName, aPort);
}

CRtInetAddr::CRtInetAddr(const char* aIpAddrAndPort) {
    // A refused text must still leave a defined (null) address.
    Set(nullptr, 0);
    Set(aIpAddrAndPort);
}

int CRtInetAddr::Set(const char* aHostName, unsigned short aPort) {
    std::memset(&m_SockAddr, 0, sizeof(m_SockAddr));
    m_SockAddr.sin_family = AF_INET;
    m_SockAddr.sin_port = rtos::HostToNet16(aPort);
    if (RT_SUCCEEDED(SetIpAddrByString(aHostName))) {
        return RT_OK;
    }
    m_strHostName = aHostName;
    return TryResolve();
}

int CRtInetAddr::Set(const char* aIpAddrAndPort) {
    RT_ASSERTE_RETURN(aIpAddrAndPort, RT_ERROR_INVALID_ARG);

    const char* pColon = std::strchr(aIpAddrAndPort, ':');
    size_t nAddrLen;
    unsigned short wPort = 0;
    if (!pColon) {
        RT_WARNING_TRACE("CRtInetAddr::Set, unknow aIpAddrAndPort=" << aIpAddrAndPort);
        nAddrLen = std::strlen(aIpAddrAndPort);
    } else {
        nAddrLen = static_cast<size_t>(pColon - aIpAddrAndPort);
        // atoi's reading without its overflow: strtol saturates, and the cut to
        // 16 bits is the same modulo either way.
        wPort = static_cast<unsigned short>(std::strtol(pColon + 1, nullptr, 10));
    }

    char szBuf[256];
    RT_ASSERTE_RETURN((size_t)nAddrLen < sizeof(szBuf), RT_ERROR_NOT_AVAILABLE);
    std::memcpy(szBuf, aIpAddrAndPort, nAddrLen);
    szBuf[nAddrLen] = '\0';
    return Set(szBuf, wPort);
}

int CRtInetAddr::SetIpAddrByString(const char* aIpAddr) {
    unsigned long dwIp;
    if (!IpAddrStringTo4Bytes(aIpAddr, dwIp)) {
        return RT_ERROR_FAILURE;
    }
    return SetIpAddrBy4Bytes(dwIp, TRUE);
}

int CRtInetAddr::SetIpAddrBy4Bytes(unsigned long aIpAddr, int aIsNetworkOrder) {
    m_strHostName.clear();
    const uint32_t dwIp = static_cast<uint32_t>(aIpAddr);
    m_SockAddr.sin_addr.s_addr = aIsNetworkOrder ? dwIp : rtos::HostToNet32(dwIp);
    return RT_OK;
}

int CRtInetAddr::SetPortA(unsigned short aPort) {
    m_SockAddr.sin_port = rtos::HostToNet16(aPort);
    return RT_OK;
}

unsigned short CRtInetAddr::GetPort() const {
    return rtos::NetToHost16(m_SockAddr.sin_port);
}

unsigned long CRtInetAddr::GetIpAddrIn4Bytes() const {
    return m_SockAddr.sin_addr.s_addr;
}

unsigned long CRtInetAddr::GetSize() const {
    return sizeof(m_SockAddr);
}

unsigned long CRtInetAddr::GetType() const {
    return m_SockAddr.sin_family;
}

const sockaddr_in* CRtInetAddr::GetPtr() const {
    RT_ASSERTE(IsResolved());
    return &m_SockAddr;
}

CRtString CRtInetAddr::GetIpDisplayName() const {
    return IsResolved() ? IpAddr4BytesToString(m_SockAddr.sin_addr.s_addr) : m_strHostName;
}

CRtString CRtInetAddr::IpAddr4BytesToString(unsigned long aIpAddr) {
    char szBuf[16];
    rtos::InetNtoa(static_cast<uint32_t>(aIpAddr), szBuf, sizeof(szBuf));
    return szBuf;
}

int CRtInetAddr::IpAddrStringTo4Bytes(const char* aIpAddr, unsigned long& aIpOut) {
    aIpOut = 0;
    if (!aIpAddr || !*aIpAddr) {
        return TRUE;
    }
    aIpOut = rtos::InetAddr(aIpAddr);
    if (aIpOut != rtos::kInaddrNone) {
        return TRUE;
    }
    // The broadcast address is the one text whose value is the parser's "none".
    return std::strcmp(aIpAddr, "255.255.255.255") == 0 ? TRUE : FALSE;
}

int CRtInetAddr::TryResolve() {
    RT_ASSERTE_RETURN(!IsResolved(), RT_OK);
    // Never waits: without an observer the caller simply asks again later.
    CRtAutoPtr<CRtDnsRecord> record;
    int rv = CRtDnsManager::Instance()->AsyncResolve(record.ParaOut(), m_strHostName, nullptr,
                                                     FALSE, nullptr);
    if (rv == RT_OK) {
        SetIpAddrBy4Bytes(*record->begin(), TRUE);
    }
    return rv;
}

bool CRtInetAddr::operator==(const CRtInetAddr& aRight) const {
    RT_ASSERTE(IsResolved());
    return m_SockAddr.sin_family == aRight.m_SockAddr.sin_family &&
           m_SockAddr.sin_port == aRight.m_SockAddr.sin_port &&
           m_SockAddr.sin_addr.s_addr == aRight.m_SockAddr.sin_addr.s_addr;
}

bool CRtInetAddr::operator<(const CRtInetAddr& aRight) const {
    RT_ASSERTE(IsResolved());
    if (m_SockAddr.sin_addr.s_addr != aRight.m_SockAddr.sin_addr.s_addr) {
        return m_SockAddr.sin_addr.s_addr < aRight.m_SockAddr.sin_addr.s_addr;
    }
    return m_SockAddr.sin_port < aRight.m_SockAddr.sin_port;
}
