// CRtTimerWrapper: a timer an object keeps on the thread it lives on. Hosts use
// it directly: derive from CRtTimerWrapperSink, own one CRtTimerWrapper per
// timer, and Schedule it; OnTimer tells the sink which wrapper expired.
//
// Thread rules: a wrapper belongs to the thread whose timer queue it took at
// its first Schedule (the calling thread's). Schedule, Cancel, the destructor
// and OnTimer all run on that thread only; the queue has no lock.
//
// Ownership: the wrapper does not own the sink (it travels as the timer's
// token) or the queue (the thread owns it). The sink must outlive the timer:
// cancel or destroy the wrapper first. A wrapper must not outlive its thread's
// timer queue.
#ifndef RTTIMERWRAPPER_H
#define RTTIMERWRAPPER_H

#include <cstdint>

#include "rtdefines.h"
#include "rttimerqueuebase.h"

class CRtTimerWrapper;

class RT_API CRtTimerWrapperSink {
public:
    // aId is the wrapper that expired, so one sink can run several timers.
    virtual void OnTimer(CRtTimerWrapper* aId) = 0;

    virtual ~CRtTimerWrapperSink() = default;
};

class RT_API CRtTimerWrapper : public IRtTimerHandler {
public:
    CRtTimerWrapper() = default;
    // Copies keep the original's state and queue; they do not hold its timer.
    CRtTimerWrapper(const CRtTimerWrapper&) = default;
    CRtTimerWrapper& operator=(const CRtTimerWrapper&) = default;
    // Cancels the timer.
    ~CRtTimerWrapper() override;

    // Starts (or restarts, replacing sink, interval and count) the timer: first
    // expiry after aInterval, then every aInterval, aCount expiries in all, 0
    // meaning without end. RT_ERROR_NULL_POINTER when the calling thread has no
    // timer queue; otherwise the queue's result (RT_OK, or RT_ERROR_FOUND when
    // the queue still held this wrapper's timer).
    int Schedule(CRtTimerWrapperSink* aSink, const CRtTimeValue& aInterval,
                 unsigned long aCount = 0);
    // RT_OK when nothing is scheduled; else the queue's result: RT_OK, or
    // RT_ERROR_NOT_FOUND when the timer had already run out.
    int Cancel();
    // True from Schedule to Cancel, also after the last expiry of a counted
    // timer.
    bool IsScheduled() const { return m_bScheduled != 0; }

protected:
    void OnTimeout(const CRtTimeValue& aCurTime, void* aArg) override;

private:
    int32_t m_bScheduled = 0;
    IRtTimerQueue* m_pTimerQueue = nullptr;  // not owned
};

#endif  // RTTIMERWRAPPER_H
