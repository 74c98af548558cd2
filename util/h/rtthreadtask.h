// Task threads: threads that serve only events (CRtThreadTaskWithEventQueueOnly)
// or events and timers (CRtThreadTask). Hosts get them from
// CRtThreadManager::CreateUserTaskThread and use them through CRtThread;
// CRtStopTaskEvent is a building block.
//
// Thread rules:
//   - Stop, GetEventQueue, GetTimerQueue: any thread.
//   - Events and timers run on the task thread only; an idle thread blocks in
//     its queue without polling.
//
// Ownership: a task thread owns its event queue and its timer queue; pending
// events are released unrun when the loop ends, pending timers are dropped with
// the object.
#ifndef RTTHREADTASK_H
#define RTTHREADTASK_H

#include "rteventqueuebase.h"
#include "rtthread.h"
#include "rttimerqueuebase.h"
#include "rtutiltemplates.h"

class CRtThreadTaskWithEventQueueOnly;

// Run on the task thread, it ends the loop after the batch it came in.
class RT_API CRtStopTaskEvent : public IRtEvent {
public:
    explicit CRtStopTaskEvent(CRtThreadTaskWithEventQueueOnly* aQueue);
    int OnEventFire() override;

private:
    CRtThreadTaskWithEventQueueOnly* m_pQueue;
};

class RT_API CRtThreadTaskWithEventQueueOnly : public CRtThread {
public:
    CRtThreadTaskWithEventQueueOnly();

    // Posts the stop event behind everything already queued, then refuses
    // further posts. Does not wait: Join does.
    int Stop(CRtTimeValue* aTimeout = nullptr) override;
    void OnThreadInit() override;
    void OnThreadRun() override;
    IRtEventQueue* GetEventQueue() override;

protected:
    ~CRtThreadTaskWithEventQueueOnly() override;

    friend class CRtStopTaskEvent;

    CRtStopFlag m_Stop;
    CRtEventQueueUsingConditionVariable m_EventQueue;
};

// Events and timers. The timer queue is created on the task thread in
// OnThreadInit (or on the host's thread for the main thread), so timers are
// scheduled and fire there; GetTimerQueue is null before that.
class RT_API CRtThreadTask : public CRtThreadTaskWithEventQueueOnly {
public:
    CRtThreadTask();

    void OnThreadInit() override;
    void OnThreadRun() override;
    IRtTimerQueue* GetTimerQueue() override;

protected:
    ~CRtThreadTask() override;

    // Owned; its single-thread check belongs to the thread that ran OnThreadInit.
    CRtTimerQueueBase* m_pTimerQueue;
};

#endif  // RTTHREADTASK_H
