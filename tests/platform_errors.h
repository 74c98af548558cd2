// The error values the platform layer leaves in the last error, for the tests
// that check them: POSIX's errno values, or what Windows reports for the same
// condition.
#ifndef TESTS_PLATFORM_ERRORS_H
#define TESTS_PLATFORM_ERRORS_H

#include <errno.h>

#ifdef _WIN32
#include <winsock2.h>

constexpr int kErrBadArgument = ERROR_INVALID_PARAMETER;
constexpr int kErrBadHandle = ERROR_INVALID_HANDLE;
constexpr int kErrTooManyPosts = ERROR_TOO_MANY_POSTS;
constexpr int kErrBusy = ERROR_BUSY;
constexpr int kErrAddressInUse = WSAEADDRINUSE;
constexpr int kErrFamilyUnsupported = WSAEAFNOSUPPORT;
constexpr int kErrBadAddress = WSAEFAULT;
constexpr int kErrClosedSocket = WSAENOTSOCK;
// A send to a peer that has gone.
inline bool IsBrokenConnection(int aErr) {
    return aErr == WSAECONNRESET || aErr == WSAECONNABORTED;
}
#else
constexpr int kErrBadArgument = EINVAL;
constexpr int kErrBadHandle = EINVAL;
constexpr int kErrTooManyPosts = EINVAL;
constexpr int kErrBusy = EBUSY;
constexpr int kErrAddressInUse = EADDRINUSE;
constexpr int kErrFamilyUnsupported = EAFNOSUPPORT;
constexpr int kErrBadAddress = EFAULT;
constexpr int kErrClosedSocket = EBADF;
inline bool IsBrokenConnection(int aErr) {
    return aErr == EPIPE || aErr == ECONNRESET;
}
#endif

#endif  // TESTS_PLATFORM_ERRORS_H
