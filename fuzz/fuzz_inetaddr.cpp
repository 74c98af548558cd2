// Internet address texts: any text given to Set leaves a well-formed address.
// An accepted numeric text prints back to one that parses to the same
// endpoint, a refused one leaves the object as it was, and the order stays
// irreflexive.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "rterror.h"
#include "rtinetaddr.h"
#include "rtmainloop.h"
#include "rtosnet.h"

namespace {

void Check(bool aHolds) {
    if (!aHolds) {
        std::abort();
    }
}

// Names are looked up by the DNS manager: answer at once, and never ask the
// network about random text.
int NoSuchHost(const char*, rtos::HostInfo&) {
    return rtos::kHostNotFound;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    rtos::SetHostLookup(&NoSuchHost);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    // An exactly sized copy, so that the sanitizer sees any read past the end.
    char* text = static_cast<char*>(std::malloc(aSize + 1));
    if (!text) {
        return 0;
    }
    if (aSize > 0) {
        std::memcpy(text, aData, aSize);
    }
    text[aSize] = '\0';

    CRtInetAddr addr("192.0.2.1:7");
    const int rv = addr.Set(text);
    if (rv == RT_ERROR_INVALID_ARG || rv == RT_ERROR_NOT_AVAILABLE) {
        // Refused: unchanged, unless a name was kept for a lookup.
        Check(addr.IsResolved() ? addr == CRtInetAddr("192.0.2.1:7") : !addr.GetHostName().empty());
    } else if (rv == RT_OK) {
        Check(addr.IsResolved() && addr.GetType() == AF_INET);
        const std::string shown = addr.GetIpDisplayName() + ":" + std::to_string(addr.GetPort());
        CRtInetAddr back(shown.c_str());
        Check(back.IsResolved() && back == addr);
    }
    if (addr.IsResolved()) {
        Check(!(addr < addr));
    }
    Check(addr.GetSize() == 16);

    unsigned long value = 0;
    CRtInetAddr::IpAddrStringTo4Bytes(text, value);
    std::free(text);
    // Lets the DNS cache's expiry run, so that a long run does not pile names up.
    RtProcessMainLoopPending();
    return 0;
}
