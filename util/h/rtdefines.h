// Basic definitions shared by every header of the library: the export macro,
// the library's byte string and the invalid handle value.
// Hosts use CRtString and RT_INVALID_HANDLE directly.
#ifndef RTDEFINES_H
#define RTDEFINES_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "rtexport.h"

// The library's string of 8-bit characters: value semantics, std::string's operations.
typedef std::string CRtString;

#ifndef FALSE
#define FALSE 0
#endif
#ifndef TRUE
#define TRUE 1
#endif

// The invalid socket or handle value (all bits set).
#define RT_INVALID_HANDLE (-1)

// RT_INVALID_HANDLE as the pointer-sized handle of sockets, handlers and reactors.
inline void* RtInvalidHandle() {
    return reinterpret_cast<void*>(static_cast<intptr_t>(RT_INVALID_HANDLE));
}

#endif  // RTDEFINES_H
