// Events, the event queue logic and the two locked queues.
#include "rteventqueuebase.h"

#include <chrono>
#include <new>
#include <thread>

#include "rtclock.h"
#include "rtdebug.h"
#include "rtthreadmanager.h"

// ---- IRtEvent ----------------------------------------------------------------

IRtEvent::~IRtEvent() = default;

void IRtEvent::OnDestorySelf() {
    delete this;
}

// ---- CRtEventQueueBase -------------------------------------------------------

CRtTimeValue CRtEventQueueBase::s_tvReportInterval(0L, 100000L);

CRtEventQueueBase::CRtEventQueueBase()
    : m_dwSize(0),
      m_tvLastSizeCheck(RtFromUsec(RtCoarseClockUsec())),
      m_Tid(0),
      m_bIsStopped(0),
      m_nInFlight(0) {}

CRtEventQueueBase::~CRtEventQueueBase() {
    // The derived queues have released their events already, under their lock.
    if (!m_Events.empty()) {
        DestoryPendingEvents();
    }
}

int CRtEventQueueBase::PostEvent(IRtEvent* aEvent, EPriority aPri) {
    (void)aPri;
    RT_ASSERTE_RETURN(aEvent, RT_ERROR_INVALID_ARG);
    if (m_bIsStopped.load(std::memory_order_acquire)) {
        RT_ERROR_TRACE("CRtEventQueueBase::PostEvent, has been stopped.");
        aEvent->OnDestorySelf();
        return RT_ERROR_NOT_INITIALIZED;
    }

    try {
        m_Events.push_back(aEvent);
    } catch (const std::bad_alloc&) {
        RT_ERROR_TRACE("CRtEventQueueBase::PostEvent, out of memory. m_dwSize="
                       << m_dwSize.load(std::memory_order_relaxed));
        aEvent->OnDestorySelf();
        return RT_ERROR_OUT_OF_MEMORY;
    }
    uint32_t size = m_dwSize.load(std::memory_order_relaxed) + 1;
    m_dwSize.store(size, std::memory_order_relaxed);

    // A queue that keeps growing is reported at most once every 3 seconds; the
    // coarse clock keeps the check cheap, and 3 s dwarf its tick.
    const int64_t now = RtCoarseClockUsec();
    if (now - RtToUsec(m_tvLastSizeCheck) > 3000000) {
        if (size > 100) {
            RT_ERROR_TRACE("CRtEventQueueBase::PostEvent, m_dwSize="
                           << size << " m_Tid=" << m_Tid.load(std::memory_order_relaxed));
        }
        m_tvLastSizeCheck = RtFromUsec(now);
    }
    return RT_OK;
}

int CRtEventQueueBase::SendEvent(IRtEvent* aEvent) {
    RT_ASSERTE_RETURN(aEvent, RT_ERROR_INVALID_ARG);
    if (m_bIsStopped.load(std::memory_order_acquire)) {
        RT_ERROR_TRACE("CRtEventQueueBase::SendEvent, has been stopped.");
        aEvent->OnDestorySelf();
        return RT_ERROR_NOT_INITIALIZED;
    }

    unsigned long tid = m_Tid.load(std::memory_order_relaxed);
    if (CRtThreadManager::IsEqualCurrentThread(tid)) {
        int rv = aEvent->OnEventFire();
        aEvent->OnDestorySelf();
        return rv;
    }

    CRtEventSync* pSync = new (std::nothrow) CRtEventSync(aEvent, this);
    if (!pSync) {
        aEvent->OnDestorySelf();
        return RT_ERROR_OUT_OF_MEMORY;
    }
    if (!pSync->HasSendEvent_i()) {
        // Without its kernel event the sender could never learn the result:
        // refuse before the event can run. The wrapper releases it.
        delete pSync;
        return RT_ERROR_OUT_OF_MEMORY;
    }
    int rv = PostEvent(pSync, EPRIORITY_NORMAL);
    if (RT_FAILED(rv)) {
        // The refusal has released the caller's event and signalled the
        // thread's send event; the signal is taken back, so that the next
        // send waits for its own. Nobody else holds the wrapper.
        CRtTimeValue noWait;
        pSync->m_pSendEvent->Wait(&noWait);
        delete pSync;
        return rv;
    }
    return pSync->WaitResultAndDeleteThis();
}

unsigned long CRtEventQueueBase::GetPendingEventsCount() {
    return m_dwSize.load(std::memory_order_relaxed);
}

void CRtEventQueueBase::Stop() {
    m_bIsStopped.store(1, std::memory_order_release);
}

void CRtEventQueueBase::Reset2CurrentThreadId() {
    m_Tid.store(static_cast<uint32_t>(CRtThreadManager::GetThreadSelfId()),
                std::memory_order_relaxed);
}

int CRtEventQueueBase::PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount,
                                        unsigned long* aRemainSize) {
    RT_ASSERTE(aEvents.empty());
    RT_ASSERTE(aMaxCount > 0);
    uint32_t size = m_dwSize.load(std::memory_order_relaxed);
    if (size == 0) {
        return RT_ERROR_NOT_FOUND;
    }

    if (size > aMaxCount) {
        auto last = m_Events.begin() + static_cast<EventsType::difference_type>(aMaxCount);
        aEvents.insert(aEvents.end(), m_Events.begin(), last);
        m_Events.erase(m_Events.begin(), last);
        size -= static_cast<uint32_t>(aMaxCount);
        RT_ASSERTE(!m_Events.empty());
    } else {
        aEvents.swap(m_Events);
        size = 0;
        RT_ASSERTE(m_Events.empty());
    }
    m_dwSize.store(size, std::memory_order_relaxed);
    if (aRemainSize) {
        *aRemainSize = size;
    }
    return RT_OK;
}

int CRtEventQueueBase::PopOnePendingEvent(IRtEvent*& aEvent, unsigned long* aRemainSize) {
    RT_ASSERTE(!aEvent);
    uint32_t size = m_dwSize.load(std::memory_order_relaxed);
    if (size == 0) {
        return RT_ERROR_NOT_FOUND;
    }
    aEvent = m_Events.front();
    m_Events.pop_front();
    m_dwSize.store(--size, std::memory_order_relaxed);
    if (aRemainSize) {
        *aRemainSize = size;
    }
    return RT_OK;
}

int CRtEventQueueBase::ProcessEvents(const EventsType& aEvents) {
    // One clock read per event: each event's end is the next one's start.
    int64_t start = RtCoarseClockUsec();
    for (IRtEvent* event : aEvents) {
        if (event) {
            start = RunOneEvent_i(event, start);
        } else {
            ProcessOneEvent(event);
        }
    }
    return RT_OK;
}

int CRtEventQueueBase::ProcessOneEvent(IRtEvent* aEvent) {
    RT_ASSERTE_RETURN(aEvent, RT_ERROR_INVALID_ARG);
    RunOneEvent_i(aEvent, RtCoarseClockUsec());
    return RT_OK;
}

int64_t CRtEventQueueBase::RunOneEvent_i(IRtEvent* aEvent, int64_t aStartUsec) {
    aEvent->OnEventFire();
    aEvent->OnDestorySelf();
    // The coarse clock: a report is about events that ran for 100 ms, and the
    // tick it may be off by is a few.
    const int64_t end = RtCoarseClockUsec();
    if (end - aStartUsec > RtToUsec(s_tvReportInterval)) {
        const CRtTimeValue elapsed = RtFromUsec(end - aStartUsec);
        RT_WARNING_TRACE("CRtEventQueueBase::ProcessOneEvent, report, sec="
                         << elapsed.GetSec() << " usec=" << elapsed.GetUsec()
                         << " aEvent=" << static_cast<const void*>(aEvent)
                         << " m_dwSize=" << m_dwSize.load(std::memory_order_relaxed));
    }
    return end;
}

void CRtEventQueueBase::DestoryPendingEvents() {
    RT_INFO_TRACE("CRtEventQueueBase::DestoryPendingEvents"
                  << " this=" << this);
    // A woken sender re-posts its wrapper here; let it, so that the wrapper is
    // among the events released below.
    WaitForCallersInFlight_i();
    EventsType events;
    TakeAllPendingEvents_i(events);
    for (IRtEvent* event : events) {
        event->OnDestorySelf();
    }
}

void CRtEventQueueBase::TakeAllPendingEvents_i(EventsType& aEvents) {
    aEvents.swap(m_Events);
    m_dwSize.store(0, std::memory_order_relaxed);
}

int CRtEventQueueBase::RepostSyncWrapper_i(IRtEvent* aEvent) {
    return PostEvent(aEvent, EPRIORITY_NORMAL);
}

void CRtEventQueueBase::WaitForCallersInFlight_i() {
    // The wait is short: each counted caller is past every wait of its own.
    while (m_nInFlight.load(std::memory_order_acquire) > 0) {
        CRtThreadManager::SleepMs(1);
    }
}

// ---- CRtEventQueueUsingMutex -------------------------------------------------

CRtEventQueueUsingMutex::~CRtEventQueueUsingMutex() {
    DestoryPendingEvents();
}

int CRtEventQueueUsingMutex::PostEvent(IRtEvent* aEvent, EPriority aPri) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    return CRtEventQueueBase::PostEvent(aEvent, aPri);
}

int CRtEventQueueUsingMutex::PostEventWithOldSize(IRtEvent* aEvent, EPriority aPri,
                                                  unsigned long* aOldSize) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    if (aOldSize) {
        *aOldSize = m_dwSize.load(std::memory_order_relaxed);
    }
    return CRtEventQueueBase::PostEvent(aEvent, aPri);
}

int CRtEventQueueUsingMutex::PopPendingEventsWithoutWait(EventsType& aEvents,
                                                         unsigned long aMaxCount,
                                                         unsigned long* aRemainSize) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    return PopPendingEvents(aEvents, aMaxCount, aRemainSize);
}

int CRtEventQueueUsingMutex::PopOnePendingEventWithoutWait(IRtEvent*& aEvent,
                                                           unsigned long* aRemainSize) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    return PopOnePendingEvent(aEvent, aRemainSize);
}

void CRtEventQueueUsingMutex::TakeAllPendingEvents_i(EventsType& aEvents) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    CRtEventQueueBase::TakeAllPendingEvents_i(aEvents);
}

// ---- CRtEventQueueUsingConditionVariable -------------------------------------

CRtEventQueueUsingConditionVariable::CRtEventQueueUsingConditionVariable()
    : m_Condition(m_Mutex), m_bOwnerWaiting(0), m_bWakeupPending(0) {}

CRtEventQueueUsingConditionVariable::~CRtEventQueueUsingConditionVariable() {
    DestoryPendingEvents();
}

int CRtEventQueueUsingConditionVariable::PostEvent(IRtEvent* aEvent, EPriority aPri) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    int rv = CRtEventQueueBase::PostEvent(aEvent, aPri);
    bool wake = RT_SUCCEEDED(rv) && m_bOwnerWaiting && !m_bWakeupPending;
    if (!wake) {
        return rv;
    }
    m_bWakeupPending = 1;
    EnterInFlight_i();
    guard.UnLock();

    // The owner registers as a waiter before it lets go of m_Mutex, so a signal
    // given after the post cannot be lost.
    m_Condition.Signal();
    LeaveInFlight_i();
    return rv;
}

int CRtEventQueueUsingConditionVariable::PopOrWaitPendingEvents(EventsType& aEvents,
                                                                CRtTimeValue* aTimeout,
                                                                unsigned long aMaxCount) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    if (m_Events.empty()) {
        m_bOwnerWaiting = 1;
        int rv = m_Condition.Wait(aTimeout);
        m_bOwnerWaiting = 0;
        m_bWakeupPending = 0;
        if (rv != RT_OK && rv != RT_ERROR_TIMEOUT) {
            RT_ERROR_TRACE(
                "CRtEventQueueUsingConditionVariable::PopOrWaitPendingEvents,m_Events is not "
                "empty. nSize="
                << m_dwSize.load(std::memory_order_relaxed) << " rv=" << rv);
        }
    }
    return PopPendingEvents(aEvents, aMaxCount, nullptr);
}

int CRtEventQueueUsingConditionVariable::RepostSyncWrapper_i(IRtEvent* aEvent) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    return CRtEventQueueBase::PostEvent(aEvent, EPRIORITY_NORMAL);
}

void CRtEventQueueUsingConditionVariable::TakeAllPendingEvents_i(EventsType& aEvents) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    CRtEventQueueBase::TakeAllPendingEvents_i(aEvents);
}

// ---- CRtEventSync ------------------------------------------------------------

namespace {

// Each thread's send event; both trivially destroyed, so that they can still
// be read after the holder below is gone.
thread_local CRtEventThread* t_pSendEvent = nullptr;
thread_local bool t_bSendEventGone = false;

// Deletes the thread's send event when the thread ends.
struct SendEventHolder {
    ~SendEventHolder() {
        delete t_pSendEvent;
        t_pSendEvent = nullptr;
        t_bSendEventGone = true;
    }
};
thread_local SendEventHolder t_sendEventHolder;

// The calling thread's send event, made on first use; null once the thread's
// thread-local objects are gone or when it cannot be made.
CRtEventThread* ThreadSendEvent() {
    if (!t_pSendEvent && !t_bSendEventGone) {
        CRtEventThread* event = new (std::nothrow) CRtEventThread(0, 0, nullptr);
        if (event && event->GetHandle()) {
            static_cast<void>(&t_sendEventHolder);  // registers its destructor
            t_pSendEvent = event;
        } else {
            delete event;
        }
    }
    return t_pSendEvent;
}

}  // namespace

CRtEventSync::CRtEventSync(IRtEvent* aEventPost, CRtEventQueueBase* aEventQueue)
    : m_pEventPost(aEventPost),
      m_nResult(RT_ERROR_NOT_AVAILABLE),
      m_pEventQueue(aEventQueue),
      m_bPostDestroyed(0),
      m_pSendEvent(ThreadSendEvent()),
      m_pOwnEvent(nullptr),
      m_bFired(0),
      m_nReleases(0) {
    RT_ASSERTE(m_pEventPost);
    RT_ASSERTE(m_pEventQueue);
    if (!m_pSendEvent) {
        m_pOwnEvent = new (std::nothrow) CRtEventThread(0, 0, nullptr);
        m_pSendEvent = m_pOwnEvent;
    }
}

CRtEventSync::~CRtEventSync() {
    if (m_pEventPost) {
        m_pEventPost->OnDestorySelf();
        m_pEventPost = nullptr;
    }
    if (!m_bPostDestroyed.load(std::memory_order_acquire) && HasSendEvent_i()) {
        WakeSender_i();
    }
    delete m_pOwnEvent;
}

int CRtEventSync::OnEventFire() {
    if (m_bPostDestroyed.load(std::memory_order_acquire)) {
        return RT_OK;  // the second pass, which only releases the wrapper
    }
    m_nResult = m_pEventPost ? m_pEventPost->OnEventFire() : RT_ERROR_NULL_POINTER;
    int rv = m_nResult;
    m_bFired = 1;
    if (m_pEventQueue) {
        m_pEventQueue->EnterInFlight_i();
    }
    WakeSender_i();
    return rv;
}

void CRtEventSync::OnDestorySelf() {
    // The first release and a refused re-post may race (the owner releases the
    // caller's event while the sender's re-post is turned away): the exchange
    // picks one of them to release the caller's event, and the counter lets the
    // later of the two delete the wrapper.
    if (m_bPostDestroyed.exchange(1, std::memory_order_acq_rel) == 0) {
        if (m_pEventPost) {
            m_pEventPost->OnDestorySelf();
            m_pEventPost = nullptr;
        }
        if (!m_bFired) {
            // Discarded or refused before it ran: wake the sender, which then
            // deletes the wrapper. Nothing here may touch it after the signal.
            WakeSender_i();
            return;
        }
    }
    if (m_nReleases.fetch_add(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

void CRtEventSync::WakeSender_i() {
    CRtEventThread* event = m_pSendEvent;
    m_bAnswered.store(1, std::memory_order_release);
    event->Signal();
}

int CRtEventSync::WaitResultAndDeleteThis() {
    // Most sends are answered within a few microseconds: the sender stays awake
    // that long before it sleeps. On a virtual machine whose host halts an idle
    // core, waking a sleeping sender took tens of microseconds, ten times the
    // round trip itself. The event is still waited on, to take its signal.
    // With a single core the answer cannot come while the sender polls.
    static const bool s_bPoll = std::thread::hardware_concurrency() > 1;
    const auto until = std::chrono::steady_clock::now() + kAwakeWait;
    while (s_bPoll && !m_bAnswered.load(std::memory_order_acquire) &&
           std::chrono::steady_clock::now() < until) {
    }
    int rv = m_pSendEvent->Wait(nullptr);
    if (RT_FAILED(rv)) {
        RT_ERROR_TRACE("CRtEventSync::WaitResultAndDeleteThis, m_SendEvent.Wait() failed!");
        return rv;
    }

    int result = m_nResult;
    if (!m_bFired) {
        // Discarded unprocessed: the queue may be going away, so the wrapper is
        // not posted again; the discarder no longer touches it.
        delete this;
        return result;
    }

    CRtEventQueueBase* queue = m_pEventQueue;
    if (!queue) {
        OnDestorySelf();
        return result;
    }
    // The wrapper may be deleted inside this post; only the local copies are
    // used afterwards.
    queue->RepostSyncWrapper_i(this);
    queue->LeaveInFlight_i();
    return result;
}
