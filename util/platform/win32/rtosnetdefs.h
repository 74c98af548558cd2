// Lookup errors of the Windows build: the Winsock values.
#ifndef RTOSNETDEFS_H
#define RTOSNETDEFS_H

#include <winsock2.h>  // hostent

namespace rtos {

constexpr int kHostNotFound = WSAHOST_NOT_FOUND;  // no such name
constexpr int kTryAgain = WSATRY_AGAIN;           // may work later
constexpr int kNoRecovery = WSANO_RECOVERY;       // the lookup failed for good
constexpr int kNoData = WSANO_DATA;               // the name has no IPv4 address
constexpr int kNoBufferSpace = WSAENOBUFS;
constexpr int kBadArgument = WSAEINVAL;

}  // namespace rtos

#endif  // RTOSNETDEFS_H
