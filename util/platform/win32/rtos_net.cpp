// Socket start-up and name resolution on Windows: WSAStartup and WSACleanup,
// and gethostbyname (thread-safe here: Winsock keeps its result per thread)
// restricted to IPv4, in the hostent layout of the asynchronous lookups.
#include <winsock2.h>

#include <algorithm>
#include <atomic>

#include "rtos.h"
#include "rtosnet.h"
#include "common/rtos_lookup.h"
#include "rtos_winsock.h"

namespace rtos {
namespace {

std::atomic<unsigned> g_socketStartups{0};

}  // namespace

int SystemLookup(const char* aName, HostInfo& aOut) {
    EnsureWinsock();
    const hostent* host = ::gethostbyname(aName);
    if (!host) {
        int err = ::WSAGetLastError();
        return err ? err : kNoRecovery;
    }
    if (host->h_addrtype != AF_INET || host->h_length != 4) {
        return kNoData;
    }
    for (char** p = host->h_addr_list; p && *p; ++p) {
        uint32_t addr;
        ::memcpy(&addr, *p, 4);
        if (std::find(aOut.addrs.begin(), aOut.addrs.end(), addr) == aOut.addrs.end()) {
            aOut.addrs.push_back(addr);
        }
    }
    if (aOut.addrs.empty()) {
        return kNoData;
    }
    aOut.name = host->h_name && *host->h_name ? host->h_name : aName;
    for (char** p = host->h_aliases; p && *p; ++p) {
        aOut.aliases.push_back(*p);
    }
    return 0;
}

bool EnsureWinsock() {
    static const bool s_started = [] {
        WSADATA data;
        return ::WSAStartup(kSocketVersion22, &data) == 0;
    }();
    return s_started;
}

int SocketStartup(uint16_t aRequested, uint16_t* aGranted) {
    if (!aGranted) {
        ::WSASetLastError(WSAEFAULT);
        return WSAEFAULT;
    }
    WSADATA data;
    int err = ::WSAStartup(aRequested, &data);
    if (err != 0) {
        ::WSASetLastError(err);
        return err;
    }
    *aGranted = data.wVersion;
    g_socketStartups++;
    return 0;
}

int SocketCleanup() {
    unsigned count = g_socketStartups.load();
    do {
        if (count == 0) {
            ::WSASetLastError(WSANOTINITIALISED);
            return WSANOTINITIALISED;
        }
    } while (!g_socketStartups.compare_exchange_weak(count, count - 1));
    return ::WSACleanup() == 0 ? 0 : ::WSAGetLastError();
}

unsigned SocketStartupCount() {
    return g_socketStartups.load();
}

int GetHostName(char* aBuf, size_t aLen) {
    if (!aBuf || aLen == 0) {
        return WSAEFAULT;
    }
    EnsureWinsock();
    if (::gethostname(aBuf, static_cast<int>(std::min<size_t>(aLen, 0x7FFFFFFF))) != 0) {
        aBuf[0] = '\0';
        return ::WSAGetLastError();
    }
    return 0;
}

}  // namespace rtos
