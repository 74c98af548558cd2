// The timer wrapper: one timer of an object on its own thread's timer queue.
#include "rttimerwrapper.h"

#include "rtdebug.h"
#include "rtthread.h"
#include "rtthreadmanager.h"

CRtTimerWrapper::~CRtTimerWrapper() {
    Cancel();
}

int CRtTimerWrapper::Schedule(CRtTimerWrapperSink* aSink, const CRtTimeValue& aInterval,
                              unsigned long aCount) {
    // A null sink is traced but still scheduled; OnTimeout then skips the call.
    RT_ASSERTE(aSink);

    // The queue is looked up once: afterwards the wrapper stays on that
    // thread's queue, whichever thread calls.
    if (!m_pTimerQueue) {
        CRtThreadManager* pManager = CRtThreadManager::Instance();
        CRtThread* pThread = pManager ? pManager->GetThread(CRtThreadManager::TT_CURRENT) : nullptr;
        if (pThread) {
            m_pTimerQueue = pThread->GetTimerQueue();
        }
        if (!m_pTimerQueue) {
            RT_ERROR_TRACE("CRtTimerWrapper::Schedule, this thread doesn't suppport TimerQueue!");
            return RT_ERROR_NULL_POINTER;
        }
    }

    if (m_bScheduled) {
        Cancel();
    }
    m_bScheduled = 1;
    return m_pTimerQueue->ScheduleTimer(this, aSink, aInterval, aCount);
}

int CRtTimerWrapper::Cancel() {
    if (!m_bScheduled) {
        return RT_OK;
    }
    m_bScheduled = 0;
    if (!m_pTimerQueue) {
        return RT_ERROR_NULL_POINTER;
    }
    return m_pTimerQueue->CancelTimer(this);
}

void CRtTimerWrapper::OnTimeout(const CRtTimeValue& aCurTime, void* aArg) {
    (void)aCurTime;
    RT_ASSERTE(m_bScheduled);
    CRtTimerWrapperSink* pSink = static_cast<CRtTimerWrapperSink*>(aArg);
    RT_ASSERTE_RETURN_VOID(pSink);
    pSink->OnTimer(this);
}
