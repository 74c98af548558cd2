// Result codes and the macros that test results and flag bits.
// Every operation of the library that can fail returns one of these codes.
#ifndef RTERROR_H
#define RTERROR_H

#define RT_OK 0

#define RT_ERROR_BASE 10000
#define RT_ERROR_FAILURE (RT_ERROR_BASE + 1)              // generic failure
#define RT_ERROR_NOT_INITIALIZED (RT_ERROR_BASE + 2)      // stopped, missing buffer or window
#define RT_ERROR_ALREADY_INITIALIZED (RT_ERROR_BASE + 3)  // created or started already
#define RT_ERROR_NOT_IMPLEMENTED (RT_ERROR_BASE + 4)  // a base operation a derived class supplies
#define RT_ERROR_NULL_POINTER (RT_ERROR_BASE + 5)     // a needed object is missing at run time
#define RT_ERROR_UNEXPECTED (RT_ERROR_BASE + 6)       // a system call did what it should not
#define RT_ERROR_OUT_OF_MEMORY (RT_ERROR_BASE + 7)
#define RT_ERROR_INVALID_ARG (RT_ERROR_BASE + 8)
#define RT_ERROR_NOT_AVAILABLE (RT_ERROR_BASE + 9)  // cannot be met now or here
#define RT_ERROR_WOULD_BLOCK (RT_ERROR_BASE + 10)   // accepted; the result comes by callback
#define RT_ERROR_NOT_FOUND (RT_ERROR_BASE + 11)
#define RT_ERROR_FOUND (RT_ERROR_BASE + 12)         // the item to add is there already
#define RT_ERROR_PARTIAL_DATA (RT_ERROR_BASE + 13)  // fewer bytes moved than asked for
#define RT_ERROR_TIMEOUT (RT_ERROR_BASE + 14)

#define RT_ERROR_NETWORK_BASE 20000
#define RT_ERROR_NETWORK_SOCKET_ERROR (RT_ERROR_NETWORK_BASE + 1)
#define RT_ERROR_NETWORK_SOCKET_CLOSE (RT_ERROR_NETWORK_BASE + 3)
#define RT_ERROR_NETWORK_DNS_FAILURE (RT_ERROR_NETWORK_BASE + 7)

#define RT_SUCCEEDED(rv) ((rv) == RT_OK)
#define RT_FAILED(rv) ((rv) != RT_OK)

#define RT_BIT_ENABLED(flags, bit) (((flags) & (bit)) != 0)
#define RT_BIT_DISABLED(flags, bit) (((flags) & (bit)) == 0)

#endif  // RTERROR_H
