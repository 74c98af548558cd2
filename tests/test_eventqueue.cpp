// Event queues: posting, popping in batches, sending across threads, stopping
// and tearing down, with every event released exactly once. Order and send
// round trips under load are in stress_events.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "task_thread_helpers.h"
#include "trace_capture.h"
#include "rtframework.h"

namespace {

// Records its runs and releases in a shared ledger, by id.
struct Ledger {
    explicit Ledger(size_t aCount) : fired(aCount), released(aCount) {}
    std::vector<std::atomic<int>> fired;
    std::vector<std::atomic<int>> released;
    std::vector<int> order;  // ids in the order they ran (owner thread only)

    int TotalFired() const {
        int n = 0;
        for (auto& f : fired)
            n += f.load();
        return n;
    }
    bool EachReleasedOnce() const {
        for (auto& r : released) {
            if (r.load() != 1)
                return false;
        }
        return true;
    }
};

class LedgerEvent : public IRtEvent {
public:
    LedgerEvent(Ledger& aLedger, int aId, int aResult = RT_OK, int aSleepMs = 0)
        : m_ledger(aLedger), m_id(aId), m_result(aResult), m_sleepMs(aSleepMs) {}
    int OnEventFire() override {
        m_ledger.fired[m_id]++;
        m_ledger.order.push_back(m_id);
        if (m_sleepMs) {
            CRtThreadManager::SleepMs(m_sleepMs);
        }
        return m_result;
    }
    void OnDestorySelf() override {
        m_ledger.released[m_id]++;
        delete this;
    }

private:
    Ledger& m_ledger;
    int m_id;
    int m_result;
    int m_sleepMs;
};

// Stops itself just before taking a post, so that the post is refused.
class StopsOnPost : public CRtEventQueueUsingConditionVariable {
public:
    int PostEvent(IRtEvent* aEvent, EPriority aPri) override {
        Stop();
        return CRtEventQueueUsingConditionVariable::PostEvent(aEvent, aPri);
    }
};

}  // namespace

TEST(EventQueue, PopsTheOldestEventsFirstUpToTheMaximumPerCall) {
    TraceCapture trace;
    Ledger mutexLedger(12), condLedger(12), ledger(2);
    CRtEventQueueUsingMutex mutexQueue;
    CRtEventQueueUsingConditionVariable condQueue;
    for (int i = 0; i < 12; ++i) {
        mutexQueue.PostEvent(new LedgerEvent(mutexLedger, i));
        condQueue.PostEvent(new LedgerEvent(condLedger, i));
    }
    std::vector<unsigned long> seen;  // per pass: both batch sizes, then what remained
    for (int pass = 0; pass < 3; ++pass) {
        CRtEventQueueBase::EventsType batch, condBatch;
        unsigned long remain = 99;
        EXPECT_EQ(mutexQueue.PopPendingEventsWithoutWait(batch, 5, &remain), RT_OK);
        EXPECT_EQ(condQueue.PopOrWaitPendingEvents(condBatch, nullptr, 5), RT_OK);
        seen.insert(seen.end(), {batch.size(), condBatch.size(), remain});
        mutexQueue.ProcessEvents(batch);
        condQueue.ProcessEvents(condBatch);
    }
    EXPECT_EQ(seen, (std::vector<unsigned long>{5, 5, 7, 5, 5, 2, 2, 2, 0}));
    const std::vector<int> kInOrder = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    EXPECT_EQ(mutexLedger.order, kInOrder);
    EXPECT_EQ(condLedger.order, kInOrder);

    CRtEventQueueBase::EventsType batch;
    unsigned long remain = 99;
    EXPECT_EQ(mutexQueue.PopPendingEventsWithoutWait(batch, 2, &remain), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(remain, 99u);

    // A maximum of 0 asserts and takes nothing; the one-event pop says what is left.
    mutexQueue.PostEvent(new LedgerEvent(ledger, 0));
    mutexQueue.PostEvent(new LedgerEvent(ledger, 1));
    EXPECT_EQ(mutexQueue.PopPendingEventsWithoutWait(batch, 0), RT_OK);
    EXPECT_TRUE(batch.empty());
    EXPECT_EQ(trace.Count("Assert failed: aMaxCount > 0"), 1u);
    IRtEvent* one = nullptr;
    ASSERT_EQ(mutexQueue.PopOnePendingEventWithoutWait(one, &remain), RT_OK);
    EXPECT_EQ(remain, 1u);
    mutexQueue.ProcessOneEvent(one);
    EXPECT_EQ(ledger.order, std::vector<int>{0});
    // The other one is released unrun with the queue.
}

TEST(EventQueue, RefusesNullEventsAndReleasesEventsPostedAfterStop) {
    TraceCapture trace;
    Ledger ledger(3);
    CRtEventQueueUsingMutex queue;
    queue.Reset2CurrentThreadId();
    EXPECT_EQ(queue.PostEvent(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.SendEvent(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.ProcessOneEvent(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.Count("Assert failed: aEvent"), 3u);

    queue.Stop();
    EXPECT_EQ(queue.PostEvent(new LedgerEvent(ledger, 0)), RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(queue.SendEvent(new LedgerEvent(ledger, 1)), RT_ERROR_NOT_INITIALIZED);
    unsigned long oldSize = 7;
    EXPECT_EQ(queue.PostEventWithOldSize(new LedgerEvent(ledger, 2),
                                         IRtEventQueue::EPRIORITY_NORMAL, &oldSize),
              RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(oldSize, 0u);
    EXPECT_EQ(trace.Count("CRtEventQueueBase::PostEvent, has been stopped."), 2u);
    EXPECT_EQ(trace.Count("CRtEventQueueBase::SendEvent, has been stopped."), 1u);
    EXPECT_EQ(ledger.TotalFired(), 0);
    EXPECT_TRUE(ledger.EachReleasedOnce());
    EXPECT_EQ(queue.GetPendingEventsCount(), 0u);
}

TEST(EventQueue, PendingEventsAreReleasedUnrunByDestroyAndByTheDestructor) {
    TraceCapture trace;
    Ledger ledger(5);
    {
        CRtEventQueueUsingMutex queue;
        for (int i = 0; i < 3; ++i)
            queue.PostEvent(new LedgerEvent(ledger, i));
        queue.DestoryPendingEvents();
        EXPECT_EQ(queue.GetPendingEventsCount(), 0u);
        EXPECT_GE(trace.Count("CRtEventQueueBase::DestoryPendingEvents this="), 1u);
        queue.PostEvent(new LedgerEvent(ledger, 3));
        queue.PostEvent(new LedgerEvent(ledger, 4));
    }
    EXPECT_EQ(ledger.TotalFired(), 0);
    EXPECT_TRUE(ledger.EachReleasedOnce());
}

TEST(EventQueue, ReportsSlowEventsAndLongQueues) {
    TraceCapture trace;
    Ledger ledger(103);
    CRtEventQueueUsingMutex queue;
    queue.ProcessOneEvent(new LedgerEvent(ledger, 0, RT_OK, 150));
    queue.ProcessOneEvent(new LedgerEvent(ledger, 1));
    EXPECT_EQ(trace.Count("CRtEventQueueBase::ProcessOneEvent, report, sec=0 usec="), 1u);

    // The length is checked by the first post more than 3 s after the last check.
    for (int i = 2; i < 102; ++i)
        queue.PostEvent(new LedgerEvent(ledger, i));
    EXPECT_EQ(trace.Count("CRtEventQueueBase::PostEvent, m_dwSize="), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(3100));
    queue.PostEvent(new LedgerEvent(ledger, 102));
    EXPECT_EQ(trace.Count("CRtEventQueueBase::PostEvent, m_dwSize=101 m_Tid="), 1u);
    queue.DestoryPendingEvents();
    EXPECT_TRUE(ledger.EachReleasedOnce());
}

TEST(ConditionVariableQueue, WaitsForAPostOrTheTimeOut) {
    CRtEventQueueUsingConditionVariable queue;
    queue.Reset2CurrentThreadId();

    CRtEventQueueBase::EventsType batch;
    CRtTimeValue limit(0L, 50000L);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(queue.PopOrWaitPendingEvents(batch, &limit, 0xFFFFFFFF), RT_ERROR_NOT_FOUND);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
    EXPECT_TRUE(batch.empty());

    Ledger ledger(1);
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        queue.PostEvent(new LedgerEvent(ledger, 0));
    });
    // No limit: only the post can end this wait (a spurious wake-up goes round).
    while (batch.empty()) {
        queue.PopOrWaitPendingEvents(batch, nullptr, 0xFFFFFFFF);
    }
    poster.join();
    EXPECT_EQ(batch.size(), 1u);
    queue.ProcessEvents(batch);
    EXPECT_EQ(ledger.TotalFired(), 1);
}

TEST(SendEvent, ARefusedWrapperLeavesNothingBehindForTheNextSends) {
    Ledger ledger(4);
    {
        // The queue stops between the send's check and its post; the sends
        // that follow from this thread wait on the same kernel event.
        StopsOnPost stopping;
        EXPECT_EQ(stopping.SendEvent(new LedgerEvent(ledger, 3)), RT_ERROR_NOT_INITIALIZED);
    }
    CRtThread* owner = NewTaskThread();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(owner->GetEventQueue()->SendEvent(new LedgerEvent(ledger, i, RT_ERROR_BASE + i)),
                  RT_ERROR_BASE + i);
        EXPECT_EQ(ledger.fired[i].load(), 1);
    }
    StopJoinDestroy(owner);
    EXPECT_TRUE(ledger.EachReleasedOnce());
}

// Through DestoryPendingEvents and through the destructor.
TEST(SendEvent, ASenderIsWokenWhenItsEventIsDiscarded) {
    Ledger ledger(2);
    for (int id : {0, 1}) {
        auto* queue = new CRtEventQueueUsingConditionVariable();
        queue->Reset2CurrentThreadId();  // this thread owns it and never runs it
        std::atomic<int> result{-1};
        std::thread sender([&] { result = queue->SendEvent(new LedgerEvent(ledger, id)); });
        ASSERT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 1; }));
        if (id == 0)
            queue->DestoryPendingEvents();
        delete queue;
        sender.join();
        EXPECT_EQ(result.load(), RT_ERROR_NOT_AVAILABLE);
    }
    EXPECT_EQ(ledger.TotalFired(), 0);
    EXPECT_TRUE(ledger.EachReleasedOnce());
}

// Senders and posters race the owner while the queue stops and is torn down:
// each event runs at most once, is released exactly once, and every send ends.
TEST(SendEvent, StressWhileTheQueueStopsLosesAndDuplicatesNothing) {
    const int kThreads = 4;
    const int kPerThread = 1500;
    Ledger ledger(kThreads * kPerThread);
    std::atomic<int> sendsRun{0};
    std::atomic<int> sendsRefused{0};
    CRtThread* owner = NewTaskThread();
    IRtEventQueue* queue = owner->GetEventQueue();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                int id = t * kPerThread + i;
                if (t % 2 == 0) {
                    queue->PostEvent(new LedgerEvent(ledger, id));
                    continue;
                }
                int rv = queue->SendEvent(new LedgerEvent(ledger, id, RT_ERROR_FOUND));
                if (rv == RT_ERROR_FOUND) {
                    sendsRun++;
                } else {
                    EXPECT_TRUE(rv == RT_ERROR_NOT_INITIALIZED || rv == RT_ERROR_NOT_AVAILABLE)
                        << rv;
                    sendsRefused++;
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    owner->Stop(nullptr);  // stops the queue; the loop discards what is left
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(owner->Join(0xFFFFFFFF), RT_OK);
    owner->Destory(0);
    EXPECT_TRUE(ledger.EachReleasedOnce());
    for (auto& f : ledger.fired)
        EXPECT_LE(f.load(), 1);
    EXPECT_EQ(sendsRun + sendsRefused, (kThreads / 2) * kPerThread);
}
