// The handler repository and the reactor logic shared by every reactor:
// registration, dispatch of readiness to handlers, the event-queue turn and the
// timer pass.
#include "rtreactorbase.h"

#include <new>

#include "rtclock.h"
#include "rtdebug.h"
#include "rttimerqueueorderedlist.h"

// ---- CRtEventHandlerRepository ---------------------------------------------

CRtEventHandlerRepository::~CRtEventHandlerRepository() {
    RT_INFO_TRACE("CRtEventHandlerRepository::~CRtEventHandlerRepository"
                  << " this=" << this);
    Close();
}

int CRtEventHandlerRepository::Open() {
    RT_ASSERTE_RETURN(m_Handlers.empty(), RT_ERROR_ALREADY_INITIALIZED);
    return RT_OK;
}

int CRtEventHandlerRepository::Close() {
    m_Handlers.clear();
    return RT_OK;
}

int CRtEventHandlerRepository::Find(void* aFd, CElement& aEle) {
    RT_ASSERTE_RETURN(IsVaildHandle(aFd), RT_ERROR_INVALID_ARG);
    auto it = m_Handlers.find(aFd);
    if (it == m_Handlers.end()) {
        return RT_ERROR_NOT_FOUND;
    }
    aEle = it->second;
    RT_ASSERTE(!aEle.IsCleared());
    return RT_OK;
}

int CRtEventHandlerRepository::Bind(void* aFd, const CElement& aEle) {
    RT_ASSERTE_RETURN(IsVaildHandle(aFd), RT_ERROR_INVALID_ARG);
    RT_ASSERTE_RETURN(!aEle.IsCleared(), RT_ERROR_INVALID_ARG);
    auto result = m_Handlers.insert(std::make_pair(aFd, aEle));
    if (result.second) {
        return RT_OK;
    }
    result.first->second = aEle;
    return RT_ERROR_FOUND;
}

int CRtEventHandlerRepository::UnBind(void* aFd) {
    RT_ASSERTE_RETURN(IsVaildHandle(aFd), RT_ERROR_INVALID_ARG);
    m_Handlers.erase(aFd);
    return RT_OK;
}

// ---- CRtReactorBase ----------------------------------------------------------

namespace {

typedef CRtEventHandlerRepository::CElement CElement;

const IRtEventHandler::MASK kRemoveAndClose =
    IRtEventHandler::ALL_EVENTS_MASK | IRtEventHandler::SHOULD_CALL;

}  // namespace

CRtReactorBase::CRtReactorBase()
    : m_pTimerQueue(nullptr), m_bProcessingEvents(0), m_bPendingNotify(0) {}

CRtReactorBase::~CRtReactorBase() {
    // Normally gone with Close; a reactor never opened may still hold none.
    delete m_pTimerQueue;
}

int CRtReactorBase::PostEvent(IRtEvent* aEvent, EPriority aPri) {
    // Counted in flight until the wake-up is posted, so that Close waits for
    // it before the reactor goes away.
    EnterInFlight_i();
    unsigned long oldSize = 0;
    int rv = PostEventWithOldSize(aEvent, aPri, &oldSize);
    if (RT_SUCCEEDED(rv) && oldSize == 0) {
        NotifyHandler(nullptr, IRtEventHandler::EVENTQUEUE_MASK);
    }
    LeaveInFlight_i();
    return rv;
}

int CRtReactorBase::SendEvent(IRtEvent* aEvent) {
    return CRtEventQueueUsingMutex::SendEvent(aEvent);
}

unsigned long CRtReactorBase::GetPendingEventsCount() {
    return CRtEventQueueUsingMutex::GetPendingEventsCount();
}

int CRtReactorBase::Open() {
    m_Est.Reset2CurrentThreadId();
    CRtEventQueueUsingMutex::Reset2CurrentThreadId();
    m_StopFlag.m_Est.Reset2CurrentThreadId();

    if (!m_pTimerQueue) {
        m_pTimerQueue = new (std::nothrow) CRtTimerQueueOrderedList(nullptr);
        if (!m_pTimerQueue) {
            return RT_ERROR_OUT_OF_MEMORY;
        }
    }
    return m_EhRepository.Open();
}

int CRtReactorBase::RegisterHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) {
    m_Est.EnsureSingleThread();
    RT_ASSERTE_RETURN(aEh, RT_ERROR_INVALID_ARG);
    IRtEventHandler::MASK mask = aMask & IRtEventHandler::ALL_EVENTS_MASK;
    if (mask == IRtEventHandler::NULL_MASK) {
        RT_WARNING_TRACE("CRtReactorBase::RegisterHandler, NULL_MASK. aMask=" << aMask);
        return RT_ERROR_INVALID_ARG;
    }

    void* fd = aEh->GetHandle();
    CElement ele;
    int rvFind = m_EhRepository.Find(fd, ele);
    if (RT_SUCCEEDED(rvFind) && ele.m_pEh == aEh && ele.m_Mask == mask) {
        return RT_OK;
    }
    if (RT_FAILED(rvFind)) {
        int rv = OnHandleRegister(fd, mask, aEh);
        if (RT_FAILED(rv)) {
            return rv;
        }
    }
    return m_EhRepository.Bind(fd, CElement(aEh, mask));
}

int CRtReactorBase::RemoveHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) {
    m_Est.EnsureSingleThread();
    RT_ASSERTE_RETURN(aEh, RT_ERROR_INVALID_ARG);
    IRtEventHandler::MASK mask = aMask & IRtEventHandler::ALL_EVENTS_MASK;
    if (mask == IRtEventHandler::NULL_MASK) {
        RT_WARNING_TRACE("CRtReactorBase::RemoveHandler, NULL_MASK. aMask=" << aMask);
        return RT_ERROR_INVALID_ARG;
    }

    void* fd = aEh->GetHandle();
    CElement ele;
    int rv = m_EhRepository.Find(fd, ele);
    if (RT_FAILED(rv)) {
        return rv;
    }
    return RemoveHandleWithoutFinding_i(fd, ele, mask);
}

int CRtReactorBase::RemoveHandleWithoutFinding_i(void* aFd, const CElement& aEle,
                                                 IRtEventHandler::MASK aMask) {
    IRtEventHandler::MASK remove = aMask & IRtEventHandler::ALL_EVENTS_MASK;
    IRtEventHandler::MASK left = aEle.m_Mask & ~remove;
    if (left == aEle.m_Mask) {
        RT_WARNING_TRACE(
            "CRtReactorBase::RemoveHandleWithoutFinding_i, mask is equal. aMask=" << aMask);
        return RT_OK;
    }

    if (left == IRtEventHandler::NULL_MASK) {
        int rv = m_EhRepository.UnBind(aFd);
        if (RT_FAILED(rv)) {
            RT_WARNING_TRACE("CRtReactorBase::RemoveHandleWithoutFinding_i, UnBind() failed! aFd="
                             << aFd << " aMask=" << aMask << " rv=" << rv);
        }
        OnHandleRemoved(aFd);
        if (aMask & IRtEventHandler::SHOULD_CALL) {
            aEle.m_pEh->OnClose(aFd, aEle.m_Mask);
        }
        return RT_OK;
    }

    // The platform keeps watching every event of the handle; dispatch filters.
    int rvBind = m_EhRepository.Bind(aFd, CElement(aEle.m_pEh, left));
    RT_ASSERTE(rvBind == RT_ERROR_FOUND);
    return rvBind;
}

int CRtReactorBase::ScheduleTimer(IRtTimerHandler* aEh, void* aToken, const CRtTimeValue& aInterval,
                                  unsigned long aCount) {
    m_Est.EnsureSingleThread();
    if (!m_pTimerQueue) {
        RT_WARNING_TRACE("CRtReactorBase::ScheduleTimer, m_pTimerQueue not inited or closed.");
        return RT_ERROR_NOT_INITIALIZED;
    }
    return m_pTimerQueue->ScheduleTimer(aEh, aToken, aInterval, aCount);
}

int CRtReactorBase::CancelTimer(IRtTimerHandler* aEh) {
    m_Est.EnsureSingleThread();
    if (!m_pTimerQueue) {
        RT_WARNING_TRACE("CRtReactorBase::CancelTimer, m_pTimerQueue not inited or closed.");
        return RT_ERROR_NOT_INITIALIZED;
    }
    return m_pTimerQueue->CancelTimer(aEh);
}

int CRtReactorBase::ProcessEventQueue_i(IRtEventHandler::MASK aMask) {
    RT_ASSERTE(aMask == IRtEventHandler::EVENTQUEUE_MASK);
    if (m_bProcessingEvents) {
        // An event ran a nested loop: let the outer turn notify again, so the
        // events behind this one are not stranded.
        RT_ERROR_TRACE("CRtReactorBase::ProcessHandleEvent() should not be overlapped here!");
        m_bPendingNotify = 1;
        return RT_OK;
    }

    m_bProcessingEvents = 1;
    unsigned long remain = 0;
    int rv = PopPendingEventsWithoutWait(m_TurnEvents, kMaxEventsPerTurn, &remain);
    if (RT_SUCCEEDED(rv)) {
        rv = ProcessEvents(m_TurnEvents);
        m_TurnEvents.clear();
    }
    if (remain > 0 || m_bPendingNotify) {
        NotifyHandler(nullptr, IRtEventHandler::EVENTQUEUE_MASK);
    }
    m_bProcessingEvents = 0;
    m_bPendingNotify = 0;
    return rv;
}

int CRtReactorBase::ProcessHandleEvent(void* aFd, IRtEventHandler::MASK aMask, int aReason,
                                       int bIsNotify, int bDropConnect) {
    m_Est.EnsureSingleThread();
    if (aFd == RtInvalidHandle()) {
        return ProcessEventQueue_i(aMask);
    }

    const int64_t start = RtCoarseClockUsec();
    CElement ele;
    int rv = m_EhRepository.Find(aFd, ele);
    if (RT_FAILED(rv)) {
        if (!bDropConnect) {
            RT_WARNING_TRACE("CRtReactorBase::ProcessHandleEvent, handle not registed. aFd="
                             << aFd << " aMask=" << aMask << " aReason=" << aReason
                             << " rv=" << rv);
        }
        return rv;
    }

    if (aMask & IRtEventHandler::CLOSE_MASK) {
        RemoveHandleWithoutFinding_i(aFd, ele, kRemoveAndClose);
        ReportSlowHandle_i(start, aFd, aMask, ele, aReason);
        return RT_ERROR_FAILURE;
    }

    IRtEventHandler::MASK select = ele.m_Mask & aMask;
    if (select == IRtEventHandler::NULL_MASK && !bIsNotify) {
        RT_WARNING_TRACE("CRtReactorBase::ProcessHandleEvent, mask not registed. aFd="
                         << aFd << " aMask=" << aMask << " m_Mask=" << ele.m_Mask
                         << " aReason=" << aReason);
        return RT_OK;
    }

    int cbResult = 0;
    if (bDropConnect && (select & IRtEventHandler::CONNECT_MASK)) {
        RT_WARNING_TRACE("CRtReactorBase::ProcessHandleEvent, drop connect. aFd="
                         << aFd << " aMask=" << aMask << " m_Mask=" << ele.m_Mask);
        cbResult = -1;
    } else {
        if (select & (IRtEventHandler::ACCEPT_MASK | IRtEventHandler::READ_MASK)) {
            cbResult = ele.m_pEh->OnInput(aFd);
        }
        if ((cbResult == 0 || cbResult == -2) &&
            (select & (IRtEventHandler::CONNECT_MASK | IRtEventHandler::WRITE_MASK))) {
            cbResult = ele.m_pEh->OnOutput(aFd);
        }
    }

    if (cbResult == 0) {
        rv = RT_OK;
    } else if (cbResult == -2) {
        rv = RT_ERROR_WOULD_BLOCK;
    } else {
        // The callback may have removed or replaced its own registration.
        CElement now;
        if (RT_SUCCEEDED(m_EhRepository.Find(aFd, now)) && now.m_pEh == ele.m_pEh) {
            RemoveHandleWithoutFinding_i(aFd, now, kRemoveAndClose);
        }
        rv = RT_ERROR_FAILURE;
    }
    ReportSlowHandle_i(start, aFd, aMask, ele, aReason);
    return rv;
}

void CRtReactorBase::ReportSlowHandle_i(int64_t aStartUsec, void* aFd, IRtEventHandler::MASK aMask,
                                        const CElement& aEle, int aReason) {
    const int64_t elapsedUsec = RtCoarseClockUsec() - aStartUsec;
    if (elapsedUsec > RtToUsec(CRtEventQueueBase::s_tvReportInterval)) {
        const CRtTimeValue elapsed = RtFromUsec(elapsedUsec);
        RT_WARNING_TRACE("CRtReactorBase::ProcessHandleEvent, report, sec="
                         << elapsed.GetSec() << " usec=" << elapsed.GetUsec() << " aFd=" << aFd
                         << " aMask=" << aMask << " maskFind=" << aEle.m_Mask
                         << " ehFind=" << static_cast<void*>(aEle.m_pEh) << " aReason=" << aReason
                         << " this=" << this);
    }
}

void CRtReactorBase::ProcessTimerTick() {
    m_Est.EnsureSingleThread();
    RT_ASSERTE_RETURN_VOID(m_pTimerQueue);
    // Runs after every message: with no timer there is nothing to time.
    if (m_pTimerQueue->GetEarliestTime() == CRtTimeValue::s_tvMax) {
        return;
    }
    const int64_t start = RtCoarseClockUsec();
    m_pTimerQueue->CheckExpire(nullptr);

    const int64_t elapsedUsec = RtCoarseClockUsec() - start;
    if (elapsedUsec > RtToUsec(CRtEventQueueBase::s_tvReportInterval)) {
        const CRtTimeValue elapsed = RtFromUsec(elapsedUsec);
        RT_WARNING_TRACE("CRtReactorBase::ProcessTimerTick, report, sec="
                         << elapsed.GetSec() << " usec=" << elapsed.GetUsec() << " this=" << this);
    }
}

int CRtReactorBase::Close() {
    RT_INFO_TRACE("CRtReactorBase::Close m_pTimerQueue=" << static_cast<void*>(m_pTimerQueue)
                                                         << " this=" << this);
    // Pending timers vanish without callbacks.
    delete m_pTimerQueue;
    m_pTimerQueue = nullptr;

    m_EhRepository.Close();
    RT_INFO_TRACE("CRtReactorBase::Close after m_EhRepository.Close"
                  << " this=" << this);
    DestoryPendingEvents();
    RT_INFO_TRACE("CRtReactorBase::Close after DestoryPendingEvents"
                  << " this=" << this);
    return RT_OK;
}
