// Kernel objects on Windows: semaphores, events and threads are the kernel's
// own, waited on with WaitForSingleObject. Each handle of this layer wraps the
// kernel handle with its kind, so that a wrong handle fails cleanly, and counts
// the waiters of an event (the kernel does not tell).
#include <process.h>
#include <windows.h>

#include <atomic>
#include <new>

#include "rtos.h"

namespace rtos {
namespace {

struct KernelObject {
    enum Kind { kSemaphore, kEvent, kThread };
    Kind kind;
    HANDLE handle;
    std::atomic<long> waiters{0};
};

// The object behind aHandle if it is of aKind, else null with
// ERROR_INVALID_HANDLE.
KernelObject* As(Handle aHandle, KernelObject::Kind aKind) {
    KernelObject* obj = static_cast<KernelObject*>(aHandle);
    if (!obj || obj->kind != aKind) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return obj;
}

Handle Wrap(KernelObject::Kind aKind, HANDLE aHandle) {
    if (!aHandle) {
        return nullptr;
    }
    KernelObject* obj = new (std::nothrow) KernelObject{aKind, aHandle};
    if (!obj) {
        ::CloseHandle(aHandle);
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return obj;
}

// _beginthreadex wants a __stdcall procedure; this layer's is a plain one.
struct ThreadStart {
    ThreadProc proc;
    void* arg;
};

unsigned __stdcall RunThread(void* aStart) {
    ThreadStart start = *static_cast<ThreadStart*>(aStart);
    delete static_cast<ThreadStart*>(aStart);
    return start.proc(start.arg);
}

}  // namespace

Handle SemaphoreCreate(long aInitial, long aMaximum, const char* aName) {
    return Wrap(KernelObject::kSemaphore, ::CreateSemaphoreA(nullptr, aInitial, aMaximum, aName));
}

bool SemaphoreRelease(Handle aSem, long aCount) {
    KernelObject* sem = As(aSem, KernelObject::kSemaphore);
    if (sem && aCount < 1) {
        ::SetLastError(ERROR_INVALID_PARAMETER);  // Wine would take a count of 0
        return false;
    }
    return sem && ::ReleaseSemaphore(sem->handle, aCount, nullptr);
}

Handle EventCreate(bool aManualReset, bool aInitialState, const char* aName) {
    return Wrap(KernelObject::kEvent, ::CreateEventA(nullptr, aManualReset, aInitialState, aName));
}

bool EventSet(Handle aEvent) {
    KernelObject* ev = As(aEvent, KernelObject::kEvent);
    return ev && ::SetEvent(ev->handle);
}

bool EventReset(Handle aEvent) {
    KernelObject* ev = As(aEvent, KernelObject::kEvent);
    return ev && ::ResetEvent(ev->handle);
}

bool EventPulse(Handle aEvent) {
    KernelObject* ev = As(aEvent, KernelObject::kEvent);
    return ev && ::PulseEvent(ev->handle);
}

long EventWaiterCount(Handle aEvent) {
    KernelObject* ev = As(aEvent, KernelObject::kEvent);
    return ev ? ev->waiters.load() : -1;
}

uint32_t HandleWait(Handle aHandle, uint32_t aMsec) {
    KernelObject* obj = static_cast<KernelObject*>(aHandle);
    if (!obj) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return kWaitFailed;
    }
    obj->waiters++;
    DWORD rv = ::WaitForSingleObject(obj->handle, aMsec);
    obj->waiters--;
    switch (rv) {
        case WAIT_OBJECT_0:
        case WAIT_ABANDONED:
            return kWaitSignalled;
        case WAIT_TIMEOUT:
            return kWaitTimeout;
        default:
            return kWaitFailed;
    }
}

bool HandleClose(Handle aHandle) {
    KernelObject* obj = static_cast<KernelObject*>(aHandle);
    if (!obj) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    bool ok = ::CloseHandle(obj->handle);
    delete obj;
    return ok;
}

Handle ThreadCreate(ThreadProc aProc, void* aArg, uint32_t* aTid) {
    ThreadStart* start = new (std::nothrow) ThreadStart{aProc, aArg};
    if (!start) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    unsigned tid = 0;
    uintptr_t thread = ::_beginthreadex(nullptr, 0, &RunThread, start, 0, &tid);
    if (thread == 0) {
        delete start;
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (aTid) {
        *aTid = tid;
    }
    return Wrap(KernelObject::kThread, reinterpret_cast<HANDLE>(thread));
}

// TerminateThread would stop the thread wherever it is, holding the heap's or
// the loader's lock perhaps, and hang the process later: it is left running,
// as on POSIX. Its handle stays valid until closed.
bool ThreadAbandon(Handle aThread) {
    if (As(aThread, KernelObject::kThread)) {
        ::SetLastError(ERROR_BUSY);
    }
    return false;
}

}  // namespace rtos
