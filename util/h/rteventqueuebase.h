// Events and event queues: work handed from one thread to another.
//
// Hosts use IRtEvent (derive from it) and IRtEventQueue (obtained from
// CRtThreadManager::GetThreadEventQueue). CRtEventQueueBase, CRtEventQueueUsingMutex,
// CRtEventQueueUsingConditionVariable and CRtEventSync are building blocks of the
// library's thread loops; hosts that run a loop of their own may use them too.
//
// Thread rules, for every queue here:
//   - PostEvent, SendEvent and GetPendingEventsCount: any thread.
//   - Stop: any thread.
//   - Reset2CurrentThreadId, the Pop operations, ProcessEvents, ProcessOneEvent
//     and DestoryPendingEvents: the owner thread only.
// The queue's lock is held only while events move in or out, never while one
// runs, so a running event may post to its own queue.
//
// Ownership: a posted or sent event belongs to the queue. The queue releases it
// through OnDestorySelf exactly once per post, whether it ran, was refused or was
// discarded; the poster must not touch it afterwards.
#ifndef RTEVENTQUEUEBASE_H
#define RTEVENTQUEUEBASE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>

#include "rtconditionvariable.h"
#include "rtdefines.h"
#include "rtmutex.h"
#include "rttimevalue.h"

// A unit of work run on another thread.
class RT_API IRtEvent {
public:
    IRtEvent() = default;
    IRtEvent(const IRtEvent&) = default;
    IRtEvent& operator=(const IRtEvent&) = default;

    // Does the work, on the queue's owner thread. The result reaches the caller
    // only through SendEvent.
    virtual int OnEventFire() = 0;
    // Releases the event once it has run or was refused or discarded. The
    // default deletes it.
    virtual void OnDestorySelf();

protected:
    virtual ~IRtEvent();
};

class RT_API IRtEventQueue {
public:
    // Accepted and passed along; no queue orders events by it.
    enum EPriority { EPRIORITY_HIGH = 0, EPRIORITY_NORMAL = 1, EPRIORITY_LOW = 2 };

    // Fire and forget. The event is released exactly once whatever the result.
    virtual int PostEvent(IRtEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) = 0;
    // Runs the event on the owner thread and returns its OnEventFire result.
    // From another thread this blocks until the owner has run it; two threads
    // must not send to each other at the same time.
    virtual int SendEvent(IRtEvent* aEvent) = 0;
    virtual unsigned long GetPendingEventsCount() = 0;

    virtual ~IRtEventQueue() = default;
};

class CRtEventSync;

// The queue logic, without a lock: a derived queue calls PostEvent and the Pop
// operations with its own lock held. Owns the events in m_Events.
class RT_API CRtEventQueueBase : public IRtEventQueue {
public:
    // Oldest first. A deque rather than a list: one allocation per 64 events,
    // and a drained batch handed back by swap keeps its storage.
    typedef std::deque<IRtEvent*> EventsType;

    CRtEventQueueBase();
    ~CRtEventQueueBase() override;

    int PostEvent(IRtEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    int SendEvent(IRtEvent* aEvent) override;
    unsigned long GetPendingEventsCount() override;

    // Refuses every later post and send; events already queued stay. For good.
    void Stop();
    void Reset2CurrentThreadId();

    // Runs every event of aEvents in order; the caller discards the list.
    int ProcessEvents(const EventsType& aEvents);
    int ProcessOneEvent(IRtEvent* aEvent);
    // Releases every pending event without running it. A sender whose event is
    // among them is woken with RT_ERROR_NOT_AVAILABLE.
    void DestoryPendingEvents();

    // A single event running longer than this is reported.
    static CRtTimeValue s_tvReportInterval;

protected:
    int PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount,
                         unsigned long* aRemainSize = nullptr);
    int PopOnePendingEvent(IRtEvent*& aEvent, unsigned long* aRemainSize = nullptr);

    // Runs and releases one event that started at aStartUsec (the library's
    // coarse clock); returns when it ended, where the next event of a batch
    // starts.
    int64_t RunOneEvent_i(IRtEvent* aEvent, int64_t aStartUsec);

    // Moves every pending event into aEvents; a derived queue takes its lock
    // around the base version.
    virtual void TakeAllPendingEvents_i(EventsType& aEvents);
    // The second post of a send's wrapper, which only has it deleted: a queue
    // may take it without waking its owner. The default is PostEvent.
    virtual int RepostSyncWrapper_i(IRtEvent* aEvent);
    // Callers whose event the owner may already see but who still touch the
    // queue: a poster about to signal the owner, a woken sender about to
    // re-post its wrapper. DestoryPendingEvents waits for them, so a derived
    // queue calls it first thing in its destructor, while its lock still works.
    void EnterInFlight_i() { m_nInFlight.fetch_add(1, std::memory_order_relaxed); }
    void LeaveInFlight_i() { m_nInFlight.fetch_sub(1, std::memory_order_release); }
    void WaitForCallersInFlight_i();

    EventsType m_Events;
    std::atomic<uint32_t> m_dwSize;
    CRtTimeValue m_tvLastSizeCheck;
    std::atomic<uint32_t> m_Tid;
    std::atomic<int> m_bIsStopped;

private:
    friend class CRtEventSync;

    CRtEventQueueBase(const CRtEventQueueBase&) = delete;
    CRtEventQueueBase& operator=(const CRtEventQueueBase&) = delete;

    std::atomic<int> m_nInFlight;
};

// The queue of the reactor threads: every change of the list is under m_Mutex.
class RT_API CRtEventQueueUsingMutex : public CRtEventQueueBase {
public:
    CRtEventQueueUsingMutex() = default;
    ~CRtEventQueueUsingMutex() override;

    int PostEvent(IRtEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    // aOldSize receives the length before the post (also when it is refused),
    // so that a loop is woken only when its queue stops being empty.
    int PostEventWithOldSize(IRtEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL,
                             unsigned long* aOldSize = nullptr);
    int PopPendingEventsWithoutWait(EventsType& aEvents, unsigned long aMaxCount,
                                    unsigned long* aRemainSize = nullptr);
    int PopOnePendingEventWithoutWait(IRtEvent*& aEvent, unsigned long* aRemainSize = nullptr);

protected:
    void TakeAllPendingEvents_i(EventsType& aEvents) override;

    CRtMutexThread m_Mutex;
};

// The queue of the task threads: the owner blocks in PopOrWaitPendingEvents
// until an event is posted or its time-out passes.
class RT_API CRtEventQueueUsingConditionVariable : public CRtEventQueueBase {
public:
    CRtEventQueueUsingConditionVariable();
    ~CRtEventQueueUsingConditionVariable() override;

    int PostEvent(IRtEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    // Owner thread only. Waits at most once (null: without limit) when the
    // queue is empty, then takes up to aMaxCount events, oldest first.
    // RT_ERROR_NOT_FOUND when there is still nothing.
    int PopOrWaitPendingEvents(EventsType& aEvents, CRtTimeValue* aTimeout,
                               unsigned long aMaxCount);

protected:
    void TakeAllPendingEvents_i(EventsType& aEvents) override;
    // Left for the owner's next pass or the end of its loop: a wake-up here
    // would only delete the wrapper.
    int RepostSyncWrapper_i(IRtEvent* aEvent) override;

    CRtMutexThread m_Mutex;
    CRtConditionVariableThread m_Condition;

private:
    // Both under m_Mutex. A post signals only when the owner waits and no
    // wake-up is on its way already: each signal costs a system call.
    int m_bOwnerWaiting;
    int m_bWakeupPending;
};

// The wrapper through which a send from another thread waits for its result.
// Posted twice: once to run the caller's event, once more by the woken sender
// so that the owner, which may still be using it, deletes it. The second
// OnDestorySelf deletes it, on whichever thread makes that call.
class RT_API CRtEventSync : public IRtEvent {
public:
    CRtEventSync(IRtEvent* aEventPost, CRtEventQueueBase* aEventQueue);

    int OnEventFire() override;
    void OnDestorySelf() override;
    // Sender only: waits for the run and returns its result, or
    // RT_ERROR_NOT_AVAILABLE if the wrapper was discarded without running.
    int WaitResultAndDeleteThis();

protected:
    ~CRtEventSync() override;

private:
    friend class CRtEventQueueBase;

    // True when the wrapper has an event for its sender to wait on.
    bool HasSendEvent_i() const { return m_pSendEvent && m_pSendEvent->GetHandle(); }
    // Sets m_bAnswered, then signals the sender's event.
    void WakeSender_i();

    // How long a sender polls m_bAnswered before it sleeps on its event.
    static constexpr std::chrono::microseconds kAwakeWait{30};

    IRtEvent* m_pEventPost;
    int m_nResult;
    CRtEventQueueBase* m_pEventQueue;
    std::atomic<int> m_bPostDestroyed;
    // The auto-reset event the sender waits on: its thread's own, made on the
    // thread's first send and reused by every later one (a sender is blocked
    // until its send is over, so a thread never has two), or m_pOwnEvent for a
    // send made after the thread's own is gone (the exit clean-up). Never
    // left signalled once the send is over.
    CRtEventThread* m_pSendEvent;
    CRtEventThread* m_pOwnEvent;  // owned; null unless needed
    // Written by the owner before it signals m_pSendEvent.
    int m_bFired;
    // Completed releases; the one that makes it 2 deletes the wrapper.
    std::atomic<int> m_nReleases;
    // Set just before m_pSendEvent is signalled for the sender.
    std::atomic<int> m_bAnswered{0};
};

#endif  // RTEVENTQUEUEBASE_H
