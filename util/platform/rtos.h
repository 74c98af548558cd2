// The platform layer: the small set of operating-system services the framework
// stands on. The framework calls only these; util/platform/<platform>/ supplies
// them. The layer knows nothing of the framework.
//
// Thread rules: every function may be called from any thread.
#ifndef RTOS_H
#define RTOS_H

#include <cstdint>

#include "rtexport.h"
#include "rtosdefs.h"

namespace rtos {

// ---- Identity, time and sleeping -------------------------------------------

RT_API uint32_t CurrentThreadId();  // kernel thread id
RT_API uint32_t CurrentProcessId();
RT_API uint32_t TickCount();             // monotonic milliseconds, truncated to 32 bits
RT_API uint64_t SystemTimeAsFileTime();  // 100 ns units since 1601-01-01 UTC
// The same clock in microseconds since 1970-01-01 UTC, to within a few
// milliseconds (the scheduler's tick), for checks on hot paths that only
// compare spans far longer than that; a fraction of the cost of the full read.
// Windows: GetSystemTimeAsFileTime, whose resolution is the tick already.
RT_API int64_t SystemTimeUsecCoarse();
RT_API void SleepMs(uint32_t aMsec);

struct CalendarTime {
    int year;   // four digits
    int month;  // 1 to 12
    int day;    // 1 to 31
    int hour;
    int minute;
    int second;
};
// Local calendar time of aSeconds since 1970-01-01 UTC.
RT_API void LocalCalendarTime(int64_t aSeconds, CalendarTime& aOut);

// The system's version, as GetVersionExA reports it. Platform ids: 1 for the
// Windows 95/98/Me family, 2 for the NT family; POSIX systems report 2 with the
// kernel's release numbers, so nothing takes them for Windows 95 or 98.
constexpr uint32_t kPlatformWin9x = 1;
constexpr uint32_t kPlatformNt = 2;
struct OsVersion {
    uint32_t platformId;
    uint32_t major;
    uint32_t minor;
};
// False, with the last error set, when the system cannot say.
RT_API bool GetOsVersion(OsVersion& aOut);

// The calling thread's last error: errno on POSIX, GetLastError on Windows.
// Error names in this layer's comments are POSIX's; Windows reports its own
// value for the same condition (WSAEINVAL, ERROR_INVALID_WINDOW_HANDLE...).
RT_API int LastError();
RT_API void SetLastError(int aErr);

// ---- Re-entrant locks -------------------------------------------------------

RT_API void LockInit(LockStorage& aLock);
RT_API void LockDestroy(LockStorage& aLock);
RT_API void LockEnter(LockStorage& aLock);
RT_API bool LockTryEnter(LockStorage& aLock);  // true when taken (also when re-entered)
RT_API void LockLeave(LockStorage& aLock);

// ---- Kernel objects: semaphores, events and threads -------------------------
// A handle is waited on with HandleWait and released with HandleClose.

typedef void* Handle;

constexpr uint32_t kInfinite = 0xFFFFFFFFu;
constexpr uint32_t kWaitSignalled = 0;
constexpr uint32_t kWaitTimeout = 258;
constexpr uint32_t kWaitFailed = 0xFFFFFFFFu;

// Null on failure (aMaximum < 1, aInitial out of 0..aMaximum), with the last error set.
RT_API Handle SemaphoreCreate(long aInitial, long aMaximum, const char* aName);
// Fails (false, EINVAL) for a count below 1 or one that would pass the maximum.
RT_API bool SemaphoreRelease(Handle aSem, long aCount);

RT_API Handle EventCreate(bool aManualReset, bool aInitialState, const char* aName);
RT_API bool EventSet(Handle aEvent);
RT_API bool EventReset(Handle aEvent);
// Releases the threads waiting now (one for an auto-reset event) and leaves the
// event not signalled.
RT_API bool EventPulse(Handle aEvent);
// The number of threads blocked in a wait on aEvent now (for tests and
// diagnostics: it tells when a pulse has waiters to release). -1 if not an event.
RT_API long EventWaiterCount(Handle aEvent);

// kWaitSignalled, kWaitTimeout or kWaitFailed. A thread handle is signalled when
// the thread has ended. A semaphore wait takes one count; an auto-reset event
// wait resets the event.
RT_API uint32_t HandleWait(Handle aHandle, uint32_t aMsec);
RT_API bool HandleClose(Handle aHandle);

typedef unsigned (*ThreadProc)(void* aArg);
// Starts aProc(aArg) on a new thread. Null on failure. *aTid receives the new
// thread's id once it is known (before this returns).
RT_API Handle ThreadCreate(ThreadProc aProc, void* aArg, uint32_t* aTid);
// Gives up on a thread that did not end in time. No system can stop a thread
// safely from outside (TerminateThread may leave a lock held for good), so it
// is left running, detached; the caller must keep alive whatever the thread
// still uses. Returns false: the thread was not terminated.
RT_API bool ThreadAbandon(Handle aThread);

// ---- Loaded modules and the library's entry point ---------------------------

// One module of the process: the file name of the loaded object (no folder;
// the main program's is its executable's) and the address it was loaded at.
struct ModuleInfo {
    const char* name;
    uintptr_t base;
};
// Return false to stop the walk.
typedef bool (*ModuleVisitor)(const ModuleInfo& aModule, void* aArg);
// Calls aVisit for each module, in load order (the main program first), until
// it returns false. False when the module list cannot be read.
RT_API bool ModuleForEach(ModuleVisitor aVisit, void* aArg);

// Reasons for ModuleEntry, with their Windows values.
constexpr uint32_t kProcessDetach = 0;
constexpr uint32_t kProcessAttach = 1;
constexpr uint32_t kThreadAttach = 2;
constexpr uint32_t kThreadDetach = 3;
// The library's entry point, defined by the library built on this layer (not
// by the layer): the layer calls it with kProcessAttach when the library is
// loaded and with kProcessDetach when it is unloaded, under the loader's lock,
// so it must neither start threads nor wait. POSIX has no thread notices.
int ModuleEntry(uint32_t aReason);

// ---- Debugger output --------------------------------------------------------

typedef void (*DebugSink)(const char* aLine);
// Sends a finished trace line to the installed sink and, when KVTIX_DEBUG_STDERR
// was "1" at load time, to standard error.
RT_API void DebugOutput(const char* aLine);
RT_API void SetDebugSink(DebugSink aSink);  // null removes it

}  // namespace rtos

#endif  // RTOS_H
