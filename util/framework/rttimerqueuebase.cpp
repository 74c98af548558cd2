// The scheduling rules of a timer queue; the storage is the derived class's.
#include "rttimerqueuebase.h"

#include "rtdebug.h"
#include "rtobserver.h"

namespace {

// Skipped periods are counted in microseconds, saturating at "never" instead
// of wrapping the 32-bit seconds into the past.
constexpr int64_t kUsecPerSec = 1000000;

int64_t ToUsec(const CRtTimeValue& aTv) {
    return static_cast<int64_t>(aTv.GetSec()) * kUsecPerSec + aTv.GetUsec();
}

CRtTimeValue FromUsecSaturated(int64_t aUsec) {
    static const int64_t s_llMax = ToUsec(CRtTimeValue::s_tvMax);
    static const int64_t s_llMin = -s_llMax;
    if (aUsec >= s_llMax) {
        return CRtTimeValue::s_tvMax;
    }
    if (aUsec <= s_llMin) {
        return CRtTimeValue(-CRtTimeValue::s_tvMax.GetSec(), -CRtTimeValue::s_tvMax.GetUsec());
    }
    return CRtTimeValue(static_cast<long>(aUsec / kUsecPerSec),
                        static_cast<long>(aUsec % kUsecPerSec));
}

// aNow + aInterval, saturated at "never" rather than wrapped into the past.
// The clock is positive, so only a large positive interval can overflow.
CRtTimeValue DueTime(const CRtTimeValue& aNow, const CRtTimeValue& aInterval) {
    if (aInterval >= CRtTimeValue::s_tvMax - aNow) {
        return CRtTimeValue::s_tvMax;
    }
    return aNow + aInterval;
}

// The first aExpired + k * aInterval (k >= 0) after aCur. One division rather
// than a period at a time: a 1 ms timer whose loop stalled for an hour would
// otherwise take millions of steps.
CRtTimeValue SkipMissedPeriods(const CRtTimeValue& aExpired, const CRtTimeValue& aInterval,
                               const CRtTimeValue& aCur) {
    int64_t llExpired = ToUsec(aExpired);
    int64_t llCur = ToUsec(aCur);
    if (llExpired > llCur) {
        return aExpired;
    }
    int64_t llInterval = ToUsec(aInterval);
    int64_t llPeriods = (llCur - llExpired) / llInterval + 1;
    return FromUsecSaturated(llExpired + llPeriods * llInterval);
}

}  // namespace

CRtTimerQueueBase::CRtTimerQueueBase(IRtObserver* aObserver) : m_pObserver(aObserver) {}

CRtTimerQueueBase::~CRtTimerQueueBase() = default;

CRtTimeValue CRtTimerQueueBase::GetTimeOfDay_i() const {
    return CRtTimeValue::GetTimeOfDay();
}

int CRtTimerQueueBase::ScheduleTimer(IRtTimerHandler* aEh, void* aToken,
                                     const CRtTimeValue& aInterval, unsigned long aCount) {
    RT_ASSERTE_RETURN(aEh, RT_ERROR_INVALID_ARG);
    RT_ASSERTE_RETURN(aInterval > CRtTimeValue::s_tvZero || aCount == 1, RT_ERROR_INVALID_ARG);

    int nRet;
    bool bWasEmpty = false;
    {
        m_Est.EnsureSingleThread();
        if (m_pObserver) {
            CRtTimeValue tvEarliest;
            bWasEmpty = GetEarliestTime_l(tvEarliest) == -1;
        }

        CNode node(aEh, aToken);
        node.m_tvInterval = aInterval;
        node.m_tvExpired = DueTime(GetTimeOfDay_i(), aInterval);
        // Counts beyond 32 bits cannot be told from "without end" in practice.
        node.m_dwCount = (aCount == 0 || aCount >= kCountForever) ? kCountForever
                                                                  : static_cast<uint32_t>(aCount);
        nRet = PushNode_l(node);
    }

    // Outside the guard: the observer may well schedule or cancel timers.
    if (bWasEmpty && m_pObserver) {
        m_pObserver->OnObserve("TimerQueue", nullptr);
    }

    if (nRet == 0) {
        return RT_OK;
    }
    if (nRet == kNoMemory) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    return nRet == 1 ? RT_ERROR_FOUND : RT_ERROR_FAILURE;
}

int CRtTimerQueueBase::CancelTimer(IRtTimerHandler* aEh) {
    RT_ASSERTE_RETURN(aEh, RT_ERROR_INVALID_ARG);

    m_Est.EnsureSingleThread();
    int nRet = EraseNode_l(aEh);
    if (nRet == 0) {
        return RT_OK;
    }
    return nRet == 1 ? RT_ERROR_NOT_FOUND : RT_ERROR_FAILURE;
}

int CRtTimerQueueBase::CheckExpire(CRtTimeValue* aRemainTime) {
    // A reactor checks after every message: an empty queue costs no clock read.
    m_Est.EnsureSingleThread();
    CRtTimeValue tvEarliestFirst;
    if (GetEarliestTime_l(tvEarliestFirst) == -1) {
        if (aRemainTime) {
            *aRemainTime = CRtTimeValue::s_tvMax;
        }
        return 0;
    }
    const CRtTimeValue tvCur = GetTimeOfDay_i();
    int nCount = 0;
    for (;;) {
        IRtTimerHandler* pEh;
        void* pToken;
        {
            m_Est.EnsureSingleThread();
            CRtTimeValue tvEarliest;
            if (GetEarliestTime_l(tvEarliest) == -1) {
                if (aRemainTime) {
                    *aRemainTime = CRtTimeValue::s_tvMax;
                }
                return nCount;
            }
            if (tvEarliest > tvCur) {
                if (aRemainTime) {
                    *aRemainTime = tvEarliest - tvCur;
                }
                return nCount;
            }

            CNode node;
            int nRet = PopFirstNode_l(node);
            RT_ASSERTE(nRet == 0);
            if (nRet != 0) {
                // A storage that reports a timer it cannot hand out would
                // otherwise keep this pass going for ever.
                if (aRemainTime) {
                    *aRemainTime = CRtTimeValue::s_tvMax;
                }
                return nCount;
            }
            pEh = node.m_pEh;
            pToken = node.m_pToken;

            if (node.m_dwCount != kCountForever) {
                --node.m_dwCount;
            }
            // Re-armed before the callback, so that OnTimeout sees (and may
            // cancel or replace) its own next expiry.
            if (node.m_dwCount != 0 && node.m_tvInterval > CRtTimeValue::s_tvZero) {
                node.m_tvExpired = SkipMissedPeriods(node.m_tvExpired, node.m_tvInterval, tvCur);
                RePushNode_l(node);
            }
        }

        // The handler may delete itself here; it is not touched afterwards.
        RT_ASSERTE(pEh);
        if (pEh) {
            pEh->OnTimeout(tvCur, pToken);
        }
        ++nCount;
    }
}

CRtTimeValue CRtTimerQueueBase::GetEarliestTime() {
    m_Est.EnsureSingleThread();
    CRtTimeValue tvEarliest;
    if (GetEarliestTime_l(tvEarliest) == -1) {
        return CRtTimeValue::s_tvMax;
    }
    return tvEarliest;
}
