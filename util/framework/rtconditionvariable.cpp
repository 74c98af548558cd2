// Locks, semaphores, the condition variable and kernel events.
#include "rtconditionvariable.h"

#include "rtdebug.h"
#include "rtos.h"
#include "rttimevalue.h"

namespace {

// A null time-out waits without limit; a negative one checks once.
uint32_t ToWaitMsec(const CRtTimeValue* aTimeout) {
    if (!aTimeout) {
        return rtos::kInfinite;
    }
    int32_t ms = static_cast<int32_t>(aTimeout->GetTotalInMsec());
    return ms < 0 ? 0u : static_cast<uint32_t>(ms);
}

}  // namespace

// ---- CRtMutexBase -----------------------------------------------------------

CRtMutexBase::CRtMutexBase() {
    rtos::LockInit(m_Lock);
}
CRtMutexBase::~CRtMutexBase() {
    rtos::LockDestroy(m_Lock);
}

int CRtMutexBase::Lock() {
    rtos::LockEnter(m_Lock);
    return RT_OK;
}

int CRtMutexBase::UnLock() {
    rtos::LockLeave(m_Lock);
    return RT_OK;
}

int CRtMutexBase::TryLock() {
    return rtos::LockTryEnter(m_Lock) ? RT_OK : RT_ERROR_FAILURE;
}

// ---- CRtSemaphore -----------------------------------------------------------

CRtSemaphore::CRtSemaphore(long aInitialCount, const char* aName, long aMaximumCount)
    : m_hSemaphore(rtos::SemaphoreCreate(aInitialCount, aMaximumCount, aName)) {
    if (!m_hSemaphore) {
        RT_ERROR_TRACE(
            "CRtSemaphore::CRtSemaphore, CreateSemaphoreA() failed! err=" << rtos::LastError());
        RT_ASSERTE(FALSE);
    }
}

CRtSemaphore::~CRtSemaphore() {
    if (m_hSemaphore && !rtos::HandleClose(m_hSemaphore)) {
        RT_ERROR_TRACE(
            "CRtSemaphore::~CRtSemaphore, CloseHandle() failed! err=" << rtos::LastError());
    }
}

int CRtSemaphore::Lock() {
    uint32_t ret = rtos::HandleWait(m_hSemaphore, rtos::kInfinite);
    if (ret == rtos::kWaitSignalled) {
        return RT_OK;
    }
    RT_ERROR_TRACE("CRtSemaphore::Lock, WaitForSingleObject() failed! dwRet=" << ret << " err="
                                                                              << rtos::LastError());
    return RT_ERROR_FAILURE;
}

int CRtSemaphore::UnLock(long aCount) {
    RT_ASSERTE(aCount >= 1);
    if (!rtos::SemaphoreRelease(m_hSemaphore, aCount)) {
        RT_ERROR_TRACE(
            "CRtSemaphore::UnLock, ReleaseSemaphore() failed! err=" << rtos::LastError());
        return RT_ERROR_FAILURE;
    }
    return RT_OK;
}

// ---- CRtConditionVariableThread ---------------------------------------------

CRtConditionVariableThread::CRtConditionVariableThread(CRtMutexThread& aMutex)
    : m_MutexExternal(aMutex),
      m_nWaiters(0),
      m_Semaphore(0, nullptr, 0x7FFFFFFF),
      m_hWaitersDone(rtos::EventCreate(false, false, nullptr)),
      m_bWasBroadcast(0) {
    if (!m_hWaitersDone) {
        RT_ERROR_TRACE(
            "CRtConditionVariableThread::CRtConditionVariableThread, CreateEventA() failed! err="
            << rtos::LastError());
        RT_ASSERTE(FALSE);
    }
}

CRtConditionVariableThread::~CRtConditionVariableThread() {
    if (m_hWaitersDone && !rtos::HandleClose(m_hWaitersDone)) {
        RT_ERROR_TRACE(
            "CRtConditionVariableThread::~CRtConditionVariableThread, CloseHandle() failed! err="
            << rtos::LastError());
    }
}

int CRtConditionVariableThread::Wait(CRtTimeValue* aTimeout) {
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_WaitersLock);
        ++m_nWaiters;
    }
    uint32_t msec = ToWaitMsec(aTimeout);

    int rv = m_MutexExternal.UnLock();
    RT_ASSERTE_RETURN(RT_SUCCEEDED(rv), rv);

    uint32_t ret = rtos::HandleWait(m_Semaphore.GetHandle(), msec);

    bool lastOfBroadcast;
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_WaitersLock);
        --m_nWaiters;
        lastOfBroadcast = m_bWasBroadcast && m_nWaiters == 0;
    }

    if (ret == rtos::kWaitSignalled) {
        rv = RT_OK;
    } else if (ret == rtos::kWaitTimeout) {
        rv = RT_ERROR_TIMEOUT;
    } else {
        RT_ERROR_TRACE("CRtConditionVariableThread::Wait, WaitForSingleObject() failed! result="
                       << ret << " err=" << rtos::LastError());
        rv = RT_ERROR_FAILURE;
    }

    if (lastOfBroadcast && !rtos::EventSet(m_hWaitersDone)) {
        RT_ERROR_TRACE(
            "CRtConditionVariableThread::Wait, SetEvent() failed! err=" << rtos::LastError());
    }
    m_MutexExternal.Lock();
    return rv;
}

void CRtConditionVariableThread::Signal() {
    bool haveWaiters;
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_WaitersLock);
        haveWaiters = m_nWaiters > 0;
    }
    if (haveWaiters) {
        m_Semaphore.UnLock();
    }
}

int CRtConditionVariableThread::Broadcast() {
    int waiters;
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_WaitersLock);
        waiters = m_nWaiters;
        if (waiters > 0) {
            m_bWasBroadcast = 1;
        }
    }
    if (waiters <= 0) {
        return RT_OK;
    }

    int rv = m_Semaphore.UnLock(waiters);
    uint32_t ret = rtos::HandleWait(m_hWaitersDone, rtos::kInfinite);
    if (ret != rtos::kWaitSignalled) {
        RT_ERROR_TRACE(
            "CRtConditionVariableThread::Broadcast, WaitForSingleObject() failed! result="
            << ret << " err=" << rtos::LastError());
        rv = RT_ERROR_FAILURE;
    }
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_WaitersLock);
        m_bWasBroadcast = 0;
    }
    return rv;
}

// ---- CRtEventThread ---------------------------------------------------------

CRtEventThread::CRtEventThread(int aManualReset, int aInitialState, const char* aName)
    : m_hEvent(rtos::EventCreate(aManualReset != 0, aInitialState != 0, aName)) {
    if (!m_hEvent) {
        RT_ERROR_TRACE(
            "CRtEventThread::CRtEventThread, CreateEventA() failed! err=" << rtos::LastError());
        RT_ASSERTE(FALSE);
    }
}

CRtEventThread::~CRtEventThread() {
    if (m_hEvent && !rtos::HandleClose(m_hEvent)) {
        RT_ERROR_TRACE(
            "CRtEventThread::~CRtEventThread, CloseHandle() failed! err=" << rtos::LastError());
    }
}

int CRtEventThread::Wait(CRtTimeValue* aTimeout) {
    uint32_t ret = rtos::HandleWait(m_hEvent, ToWaitMsec(aTimeout));
    if (ret == rtos::kWaitSignalled) {
        return RT_OK;
    }
    if (ret == rtos::kWaitTimeout) {
        return RT_ERROR_TIMEOUT;
    }
    RT_ERROR_TRACE("CRtEventThread::Wait, WaitForSingleObject() failed! result="
                   << ret << " err=" << rtos::LastError());
    return RT_ERROR_FAILURE;
}

int CRtEventThread::Signal() {
    if (!rtos::EventSet(m_hEvent)) {
        RT_ERROR_TRACE("CRtEventThread::Signal, SetEvent failed! err=" << rtos::LastError());
        return RT_ERROR_FAILURE;
    }
    return RT_OK;
}

int CRtEventThread::Pulse() {
    if (!rtos::EventPulse(m_hEvent)) {
        RT_ERROR_TRACE("CRtEventThread::Pulse, PulseEvent failed! err=" << rtos::LastError());
        return RT_ERROR_FAILURE;
    }
    return RT_OK;
}
