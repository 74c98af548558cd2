// Timers of one thread. Hosts use IRtTimerHandler (implement it) and
// IRtTimerQueue (schedule and cancel on a thread's queue) directly;
// CRtTimerQueueBase is the building block that holds the scheduling rules and
// leaves the storage of the timers to a derived class
// (CRtTimerQueueOrderedList, rttimerqueueorderedlist.h).
#ifndef RTTIMERQUEUEBASE_H
#define RTTIMERQUEUEBASE_H

#include <cstdint>

#include "rtdefines.h"
#include "rttimevalue.h"
#include "rtutiltemplates.h"

class IRtObserver;

// A timer's callback. A handler is identified by its address: a queue holds at
// most one timer per handler. The queue never owns or deletes a handler; a
// handler may delete itself inside OnTimeout, and must cancel its timer before
// it is destroyed otherwise.
class RT_API IRtTimerHandler {
public:
    // aCurTime is the time at which the queue began the current expiry pass,
    // not the timer's own due time; aArg is the token given to ScheduleTimer.
    virtual void OnTimeout(const CRtTimeValue& aCurTime, void* aArg) = 0;

    virtual ~IRtTimerHandler() = default;
};

// The timers of one thread. Owner thread only: a queue has no lock, and
// callbacks run on its owner thread.
class RT_API IRtTimerQueue {
public:
    // First expiry after aInterval, then every aInterval, aCount expiries in
    // all; 0 means without end. A non-positive interval is allowed only with a
    // count of 1. RT_OK for a new timer; RT_ERROR_FOUND when the handler's
    // earlier timer was replaced by this one.
    virtual int ScheduleTimer(IRtTimerHandler* aEh, void* aToken, const CRtTimeValue& aInterval,
                              unsigned long aCount) = 0;
    // RT_OK, or RT_ERROR_NOT_FOUND when the handler has no timer.
    virtual int CancelTimer(IRtTimerHandler* aEh) = 0;

    virtual ~IRtTimerQueue() = default;
};

// The scheduling rules of a timer queue: argument checks, counting, re-arming
// and callbacks. The storage class keeps the nodes ordered by due time; among
// equal due times, the node pushed last comes first.
//
// Thread rules: the thread that constructs the queue owns it and is the only
// one that may call ScheduleTimer, CancelTimer, CheckExpire and
// GetEarliestTime. Each checks its caller with CRtEnsureSingleThread, traces a
// violation and goes on. Callbacks run outside any guard, so OnTimeout may
// schedule and cancel any timer of the queue, its own included.
class RT_API CRtTimerQueueBase : public IRtTimerQueue {
public:
    // One timer, copied in and out of the storage.
    struct RT_API CNode {
        CNode() = default;
        CNode(IRtTimerHandler* aEh, void* aToken) : m_pEh(aEh), m_pToken(aToken) {}

        IRtTimerHandler* m_pEh = nullptr;  // never null in a stored node
        void* m_pToken = nullptr;
        CRtTimeValue m_tvExpired;   // absolute due time, wall clock
        CRtTimeValue m_tvInterval;  // the period; also the first delay
        uint32_t m_dwCount = 0;     // expiries still to deliver; kCountForever: no end
    };
    static constexpr uint32_t kCountForever = 0xFFFFFFFFu;

    // aObserver (may be null, not owned) hears "TimerQueue" whenever a
    // schedule makes the queue non-empty.
    explicit CRtTimerQueueBase(IRtObserver* aObserver);
    ~CRtTimerQueueBase() override;

    int ScheduleTimer(IRtTimerHandler* aEh, void* aToken, const CRtTimeValue& aInterval,
                      unsigned long aCount) override;
    int CancelTimer(IRtTimerHandler* aEh) override;

    // Fires every timer due when the pass begins and returns the number of
    // callbacks made. *aRemainTime (if given) receives the time until the next
    // timer, or CRtTimeValue::s_tvMax when none is left.
    int CheckExpire(CRtTimeValue* aRemainTime = nullptr);
    // The earliest due time, or CRtTimeValue::s_tvMax when the queue is empty.
    CRtTimeValue GetEarliestTime();

protected:
    // The storage, called with the guard held.
    // Inserts aNode, replacing the node of the same handler: 0 if there was
    // none, 1 if one was replaced, kNoMemory (nothing changed) without memory.
    virtual int PushNode_l(const CNode& aNode) = 0;
    static constexpr int kNoMemory = -2;
    // Removes aEh's node: 0, or 1 if there was none.
    virtual int EraseNode_l(IRtTimerHandler* aEh) = 0;
    // Inserts a node whose handler is known to be absent: 0.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    // Takes out the earliest node: 0, or -1 if the queue is empty.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    // The earliest due time: 0, or -1 if the queue is empty.
    virtual int GetEarliestTime_l(CRtTimeValue& aTime) = 0;

    // The wall-clock time every schedule and expiry pass starts from. Tests
    // override it to drive the queue with a clock of their own.
    virtual CRtTimeValue GetTimeOfDay_i() const;

    CRtEnsureSingleThread m_Est;
    IRtObserver* m_pObserver;

private:
    CRtTimerQueueBase(const CRtTimerQueueBase&) = delete;
    CRtTimerQueueBase& operator=(const CRtTimerQueueBase&) = delete;
};

#endif  // RTTIMERQUEUEBASE_H
