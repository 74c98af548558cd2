// The hostent layout of a lookup's result, shared by every platform: what
// gethostbyname and the asynchronous lookups hand back in a caller's buffer.
#include <string.h>

#include <new>

#include "rtosnet.h"

namespace rtos {

int LayoutHostent(const HostInfo& aInfo, void* aBuf, size_t aLen, hostent** aHost) {
    if (aHost) {
        *aHost = nullptr;
    }
    if (!aBuf || !aHost) {
        return kBadArgument;
    }
    const uintptr_t misalign = reinterpret_cast<uintptr_t>(aBuf) % alignof(hostent);
    const size_t pad = misalign ? alignof(hostent) - misalign : 0;
    if (aLen < pad) {
        return kNoBufferSpace;
    }
    const size_t room = aLen - pad;
    const size_t kPtr = sizeof(char*);

    // Sizes first: the lists come before the data they point to. The layout is
    // [hostent][alias pointers, null][address pointers, null][addresses][strings].
    size_t need = sizeof(hostent) + 2 * kPtr + aInfo.name.size() + 1;
    if (need > room) {
        return kNoBufferSpace;
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
