// The blocking lookup every platform shares: the system's, or the stand-in a
// test put in its place, with allocation failures turned into an error.
#include <atomic>
#include <new>

#include "rtos_lookup.h"

namespace rtos {
namespace {

std::atomic<HostLookup> g_lookup{nullptr};

}  // namespace

void SetHostLookup(HostLookup aLookup) {
    g_lookup.store(aLookup, std::memory_order_release);
}

HostLookup HostLookupStandIn() {
    return g_lookup.load(std::memory_order_acquire);
}

int LookupHostIPv4(const char* aName, HostInfo& aOut) {
    aOut = HostInfo();
    if (!aName || !*aName) {
        return kHostNotFound;
    }
    HostLookup lookup = HostLookupStandIn();
    // Lookup threads run this too: an allocation failure must come back as an
    // error, never end the process.
    try {
        return lookup ? lookup(aName, aOut) : SystemLookup(aName, aOut);
    } catch (const std::bad_alloc&) {
        aOut = HostInfo();
        return kNoBufferSpace;
    }
}

}  // namespace rtos
