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
#include <new>

#include "rtos.h"
#include "rtosnet.h"

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

std::atomic<HostLookup> g_lookup{nullptr};

}  // namespace

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

void SetHostLookup(HostLookup aLookup) {
    g_lookup.store(aLookup, std::memory_order_release);
}

int LookupHostIPv4(const char* aName, HostInfo& aOut) {
    aOut = HostInfo();
    if (!aName || !*aName) {
        return kHostNotFound;
    }
    HostLookup lookup = g_lookup.load(std::memory_order_acquire);
    // Lookup threads run this too: an allocation failure must come back as an
    // error, never end the process.
    try {
        return lookup ? lookup(aName, aOut) : SystemLookup(aName, aOut);
    } catch (const std::bad_alloc&) {
        aOut = HostInfo();
        return ENOBUFS;
    }
}

int LayoutHostent(const HostInfo& aInfo, void* aBuf, size_t aLen, hostent** aHost) {
    if (aHost) {
        *aHost = nullptr;
    }
    if (!aBuf || !aHost) {
        return EINVAL;
    }
    const uintptr_t misalign = reinterpret_cast<uintptr_t>(aBuf) % alignof(hostent);
    const size_t pad = misalign ? alignof(hostent) - misalign : 0;
    if (aLen < pad) {
        return ENOBUFS;
    }
    const size_t room = aLen - pad;
    const size_t kPtr = sizeof(char*);

    // Sizes first: the lists come before the data they point to. The layout is
    // [hostent][alias pointers, null][address pointers, null][addresses][strings].
    size_t need = sizeof(hostent) + 2 * kPtr + aInfo.name.size() + 1;
    if (need > room) {
        return ENOBUFS;
    }
    size_t nAddr = 0;
    while (nAddr < aInfo.addrs.size() && need + kPtr + 4 <= room) {
        need += kPtr + 4;
        ++nAddr;
    }
    std::vector<const std::string*> aliases;
    for (const std::string& alias : aInfo.aliases) {
        if (need + kPtr + alias.size() + 1 <= room) {
            need += kPtr + alias.size() + 1;
            aliases.push_back(&alias);
        }
    }

    char* start = static_cast<char*>(aBuf) + pad;
    hostent* host = new (start) hostent();
    char** aliasList = reinterpret_cast<char**>(start + sizeof(hostent));
    char** addrList = aliasList + aliases.size() + 1;
    char* addrBytes = reinterpret_cast<char*>(addrList + nAddr + 1);
    char* text = addrBytes + 4 * nAddr;

    for (size_t i = 0; i < nAddr; ++i) {
        ::memcpy(addrBytes + 4 * i, &aInfo.addrs[i], 4);
        addrList[i] = addrBytes + 4 * i;
    }
    addrList[nAddr] = nullptr;

    host->h_name = text;
    ::memcpy(text, aInfo.name.c_str(), aInfo.name.size() + 1);
    text += aInfo.name.size() + 1;
    for (size_t i = 0; i < aliases.size(); ++i) {
        aliasList[i] = text;
        ::memcpy(text, aliases[i]->c_str(), aliases[i]->size() + 1);
        text += aliases[i]->size() + 1;
    }
    aliasList[aliases.size()] = nullptr;

    host->h_aliases = aliasList;
    host->h_addrtype = AF_INET;
    host->h_length = 4;
    host->h_addr_list = addrList;
    *aHost = host;
    return 0;
}

char** HostentAddrList(const hostent* aHost, int* aLength) {
    if (aLength) {
        *aLength = aHost ? aHost->h_length : 0;
    }
    return aHost ? aHost->h_addr_list : nullptr;
}

int GetHostByName(const char* aName, void* aBuf, size_t aLen, hostent** aHost) {
    if (aHost) {
        *aHost = nullptr;
    }
    HostInfo info;
    int rc = LookupHostIPv4(aName, info);
    if (rc != 0) {
        return rc;
    }
    return LayoutHostent(info, aBuf, aLen, aHost);
}

}  // namespace rtos
