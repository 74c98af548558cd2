// Kernel-object synchronisation: CRtSemaphore, CRtConditionVariableThread and
// CRtEventThread. Hosts use CRtEventThread directly; the semaphore and the
// condition variable are building blocks of the event queues.
//
// Thread rules: every operation may be called from any thread. Objects must
// not be destroyed while a thread waits on them. Failures are traced at level 0
// with the platform's last error; a time-out is not a failure.
#ifndef RTCONDITIONVARIABLE_H
#define RTCONDITIONVARIABLE_H

#include "rtdefines.h"
#include "rtmutex.h"

class CRtTimeValue;

// A counting semaphore with a maximum count.
class RT_API CRtSemaphore {
public:
    explicit CRtSemaphore(long aInitialCount = 0, const char* aName = nullptr,
                          long aMaximumCount = 0x7FFFFFFF);
    ~CRtSemaphore();

    int Lock();  // waits without limit and takes one count
    int UnLock() { return UnLock(1); }
    int UnLock(long aCount);  // RT_ERROR_FAILURE below 1 or past the maximum

    void* GetHandle() const { return m_hSemaphore; }

private:
    CRtSemaphore(const CRtSemaphore&) = delete;
    CRtSemaphore& operator=(const CRtSemaphore&) = delete;

    void* m_hSemaphore;
};

// A condition variable bound to the caller's lock, built from a semaphore and
// an auto-reset event. A Signal with no waiter is lost.
class RT_API CRtConditionVariableThread {
public:
    explicit CRtConditionVariableThread(CRtMutexThread& aMutex);
    ~CRtConditionVariableThread();

    // Called with the bound lock held; holds it again on return, whatever the
    // result. Null waits without limit. RT_OK, RT_ERROR_TIMEOUT or RT_ERROR_FAILURE.
    int Wait(CRtTimeValue* aTimeout = nullptr);
    void Signal();
    // Wakes every current waiter and returns once all have left their wait.
    int Broadcast();

private:
    CRtConditionVariableThread(const CRtConditionVariableThread&) = delete;
    CRtConditionVariableThread& operator=(const CRtConditionVariableThread&) = delete;

    CRtMutexThread& m_MutexExternal;
    int m_nWaiters;
    CRtMutexThread m_WaitersLock;
    CRtSemaphore m_Semaphore;
    void* m_hWaitersDone;
    int m_bWasBroadcast;
};

// A kernel event: auto-reset (the default) or manual-reset. Not copyable: the
// handle is closed by its one owner.
class RT_API CRtEventThread {
public:
    explicit CRtEventThread(int aManualReset = 0, int aInitialState = 0,
                            const char* aName = nullptr);
    ~CRtEventThread();

    // Null waits without limit; a negative time-out checks once.
    // RT_OK, RT_ERROR_TIMEOUT or RT_ERROR_FAILURE.
    int Wait(CRtTimeValue* aTimeout = nullptr);
    int Signal();
    // Releases the current waiters (one, for auto-reset) and leaves it not signalled.
    int Pulse();

private:
    CRtEventThread(const CRtEventThread&) = delete;
    CRtEventThread& operator=(const CRtEventThread&) = delete;

    void* m_hEvent;
};

#endif  // RTCONDITIONVARIABLE_H
