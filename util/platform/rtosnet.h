// The platform layer's socket start-up and name resolution: the stand-ins for
// Winsock's start-up and clean-up, the local host name, a blocking, thread-safe
// lookup of IPv4 addresses, the layout of a lookup's result as a hostent in a
// caller's buffer (what gethostbyname and the asynchronous lookups hand back on
// Windows), and asynchronous lookups answered to a window
// (WSAAsyncGetHostByName). Building blocks of the library; hosts never include
// this file.
//
// Thread rules: every function may be called from any thread. The state kept:
// the socket start-up count (atomic), and for the asynchronous lookups a
// process-wide table of open requests and a few lookup threads.
#ifndef RTOSNET_H
#define RTOSNET_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "rtexport.h"
#include "rtosnetdefs.h"
#include "rtoswindow.h"

// The system's own type; declared here so that callers need no system header.
struct hostent;

namespace rtos {

// ---- Socket start-up ------------------------------------------------------------
// Each successful SocketStartup needs one SocketCleanup, as with Winsock.

// Version words: the major version in the low byte, the minor in the high one.
constexpr uint16_t kSocketVersion22 = 0x0202;
// 0, with *aGranted set to the version granted (2.2: POSIX sockets need no
// start), or an error with the last error set to it.
RT_API int SocketStartup(uint16_t aRequested, uint16_t* aGranted);
// 0, or EINVAL (with the last error set) when no start-up is outstanding.
RT_API int SocketCleanup();
// The start-ups not yet cleaned up (for checks and tests).
RT_API unsigned SocketStartupCount();

// ---- Name resolution -----------------------------------------------------------

// Lookup errors (rtosnetdefs.h): kHostNotFound, kTryAgain, kNoRecovery,
// kNoData, the system's values; a hostent layout also fails with
// kNoBufferSpace when not even the name fits.

// A lookup's result, neutral of any layout.
struct HostInfo {
    std::string name;                  // the official (canonical) name
    std::vector<std::string> aliases;  // other names of the host
    std::vector<uint32_t> addrs;       // IPv4 addresses in network byte order, no repeats
};

// The local host's name, terminated, in aBuf of aLen bytes. 0 or the error.
RT_API int GetHostName(char* aBuf, size_t aLen);

// Blocks until aName (a host name or a dotted IPv4 address) is resolved to its
// IPv4 addresses. 0 and aOut filled, or one of the lookup errors above, or
// kNoBufferSpace when memory ran out.
RT_API int LookupHostIPv4(const char* aName, HostInfo& aOut);

// Lays aInfo out as a hostent at the start of aBuf (aLen bytes, any alignment):
// the hostent, its alias and address lists and the strings, every pointer
// leading into aBuf. Entries that do not fit are cut, aliases first, then
// addresses from the end. 0 and *aHost set, or kNoBufferSpace when not even the
// hostent and its name fit (*aHost is then null).
RT_API int LayoutHostent(const HostInfo& aInfo, void* aBuf, size_t aLen, hostent** aHost);

// The address list of a hostent (null-terminated) and, in *aLength if given,
// the length of each address; null for a null aHost.
RT_API char** HostentAddrList(const hostent* aHost, int* aLength);

// gethostbyname into a caller's buffer: LookupHostIPv4, then LayoutHostent.
RT_API int GetHostByName(const char* aName, void* aBuf, size_t aLen, hostent** aHost);

// Replaces the system lookup behind LookupHostIPv4, and so behind every lookup
// of this layer, by aLookup (same contract); null restores the system's. For
// tests that need made-up names, failures or lookups that never end.
typedef int (*HostLookup)(const char* aName, HostInfo& aOut);
RT_API void SetHostLookup(HostLookup aLookup);

// ---- Asynchronous lookups -------------------------------------------------------

// A request of AsyncGetHostByName; never 0, never reused within a process.
typedef uintptr_t AsyncRequest;

// The lParam of a completion: the error in the high word (0 on success, else a
// lookup error above or kNoBufferSpace), the low word 0.
constexpr intptr_t AsyncLookupLParam(int aError) {
    return static_cast<intptr_t>((static_cast<uint32_t>(aError) & 0xFFFFu) << 16);
}
constexpr int AsyncLookupError(intptr_t aLParam) {
    return static_cast<int>((aLParam >> 16) & 0xFFFF);
}

// Looks aName up on a lookup thread and answers to aWnd: the result is laid out
// in aBuf as LayoutHostent does, then aMsg is posted with wParam = the request
// and lParam = AsyncLookupLParam(error). The caller keeps aBuf (aLen bytes;
// 1024 holds any answer the library needs) alive and untouched until the
// completion arrives or AsyncCancel succeeds; aName is copied. A window that is
// gone by then simply gets nothing. Requests beyond the few lookup threads wait
// their turn, so a lookup that never ends delays later ones but blocks no caller
// and no process exit. Returns the request, or 0 with EINVAL (null name, buffer
// or window) or EAGAIN (no lookup thread could be started) as the last error.
RT_API AsyncRequest AsyncGetHostByName(WindowHandle aWnd, uint32_t aMsg, const char* aName,
                                       void* aBuf, size_t aLen);

// Withdraws a request (WSACancelAsyncRequest). On true no completion is posted
// for it and its buffer is no longer written: the caller may free it at once.
// False with EINVAL when the request is unknown or has already completed (its
// completion is then posted, or was dropped for a window that is gone).
RT_API bool AsyncCancel(AsyncRequest aRequest);

}  // namespace rtos

#endif  // RTOSNET_H
