// Socket start-up and name resolution on POSIX. Sockets need no start, so only
// the count of start-ups is kept; lookups use getaddrinfo (thread-safe, unlike
// gethostbyname) restricted to IPv4, in the hostent layout Winsock callers
// expect.
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "rtos.h"
#include "rtosnet.h"
#include "common/rtos_lookup.h"

namespace rtos {
namespace {

std::atomic<unsigned> g_socketStartups{0};

int MapLookupError(int aEai) {
    switch (aEai) {
        case EAI_NONAME:
            return kHostNotFound;
        case EAI_AGAIN:
            return kTryAgain;
#ifdef EAI_NODATA
        case EAI_NODATA:
            return kNoData;
#endif
#ifdef EAI_ADDRFAMILY
        case EAI_ADDRFAMILY:
            return kNoData;
#endif
        default:
            return kNoRecovery;
    }
}

}  // namespace

int SystemLookup(const char* aName, HostInfo& aOut) {
    struct addrinfo hints;
    ::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    // One socket type, or every address comes back once per type.
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    struct addrinfo* res = nullptr;
    int rc = ::getaddrinfo(aName, nullptr, &hints, &res);
    if (rc != 0) {
        return MapLookupError(rc);
    }
    // Freed on every path, a failed allocation below included.
    std::unique_ptr<struct addrinfo, void (*)(struct addrinfo*)> owner(res, &::freeaddrinfo);
    for (const struct addrinfo* p = res; p; p = p->ai_next) {
        if (p->ai_canonname && aOut.name.empty()) {
            aOut.name = p->ai_canonname;
        }
        if (p->ai_family != AF_INET || !p->ai_addr || p->ai_addrlen < sizeof(sockaddr_in)) {
            continue;
        }
        uint32_t addr = reinterpret_cast<const sockaddr_in*>(p->ai_addr)->sin_addr.s_addr;
        if (std::find(aOut.addrs.begin(), aOut.addrs.end(), addr) == aOut.addrs.end()) {
            aOut.addrs.push_back(addr);
        }
    }
    if (aOut.addrs.empty()) {
        aOut = HostInfo();
        return kNoData;
    }
    if (aOut.name.empty()) {
        aOut.name = aName;
    } else if (::strcasecmp(aOut.name.c_str(), aName) != 0) {
        // The name asked for led to another one, as a CNAME does.
        aOut.aliases.push_back(aName);
    }
    return 0;
}

int SocketStartup(uint16_t aRequested, uint16_t* aGranted) {
    (void)aRequested;
    if (!aGranted) {
        SetLastError(EFAULT);
        return EFAULT;
    }
    *aGranted = kSocketVersion22;
    g_socketStartups++;
    return 0;
}

int SocketCleanup() {
    unsigned count = g_socketStartups.load();
    do {
        if (count == 0) {
            SetLastError(EINVAL);
            return EINVAL;
        }
    } while (!g_socketStartups.compare_exchange_weak(count, count - 1));
    return 0;
}

unsigned SocketStartupCount() {
    return g_socketStartups.load();
}

int GetHostName(char* aBuf, size_t aLen) {
    if (!aBuf || aLen == 0) {
        return EINVAL;
    }
    if (::gethostname(aBuf, aLen) != 0) {
        int err = errno;
        aBuf[0] = '\0';
        return err;
    }
    // POSIX leaves a truncated name unterminated.
    aBuf[aLen - 1] = '\0';
    return 0;
}

}  // namespace rtos
