// Inside the platform layer: the system's own blocking lookup, which each
// platform's rtos_net.cpp provides, and the stand-in that tests may put in its
// place (common/rtos_lookup.cpp).
#ifndef UTIL_PLATFORM_COMMON_RTOS_LOOKUP_H
#define UTIL_PLATFORM_COMMON_RTOS_LOOKUP_H

#include "rtosnet.h"

namespace rtos {

// LookupHostIPv4's contract, straight from the system.
int SystemLookup(const char* aName, HostInfo& aOut);

// The lookup SetHostLookup put in place, null when the system's is used.
HostLookup HostLookupStandIn();

}  // namespace rtos

#endif  // UTIL_PLATFORM_COMMON_RTOS_LOOKUP_H
