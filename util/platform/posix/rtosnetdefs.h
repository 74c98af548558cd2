// Lookup errors of the POSIX build: the values of h_errno, so they read the
// same as the system's, ENOBUFS for a result that does not fit and EINVAL
// for a missing argument.
#ifndef RTOSNETDEFS_H
#define RTOSNETDEFS_H

#include <errno.h>
#include <netdb.h>  // hostent

namespace rtos {

constexpr int kHostNotFound = 1;  // no such name
constexpr int kTryAgain = 2;      // the name server did not answer; may work later
constexpr int kNoRecovery = 3;    // the lookup failed for good
constexpr int kNoData = 4;        // the name exists but has no IPv4 address
constexpr int kNoBufferSpace = ENOBUFS;
constexpr int kBadArgument = EINVAL;

}  // namespace rtos

#endif  // RTOSNETDEFS_H
