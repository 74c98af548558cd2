// Task threads: their loop, batches, stop, events sent and posted to them from
// other threads, and the timers of a timer task thread. Event order, stopping
// under load and timers on a busy thread are in the stress programs.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "task_thread_helpers.h"
#include "trace_capture.h"
#include "rtframework.h"

namespace {

// Holds the task thread in one event until opened.
struct Gate {
    CRtEventThread open{1, 0};  // manual reset
    IRtEvent* Event(std::function<void()> aWhileHeld = {}) {
        return new FnEvent([this, aWhileHeld] {
            if (aWhileHeld)
                aWhileHeld();
            open.Wait(nullptr);
            return RT_OK;
        });
    }
};

// Calls a function on every expiry.
class FnTimer : public IRtTimerHandler {
public:
    explicit FnTimer(std::function<void(void*)> aFn = {}) : m_fn(std::move(aFn)) {}
    void OnTimeout(const CRtTimeValue&, void* aArg) override {
        fired++;
        if (m_fn)
            m_fn(aArg);
    }
    std::atomic<int> fired{0};

private:
    std::function<void(void*)> m_fn;
};

// Holds aThread in a gate while aCount events queue up, then lets them run and
// ends the thread; returns the queue length each event saw when it ran.
std::vector<unsigned long> PendingSeenPerEvent(CRtThread* aThread, int aCount,
                                               std::function<void()> aEach = {},
                                               std::function<void()> aAtGate = {}) {
    IRtEventQueue* queue = aThread->GetEventQueue();
    Gate gate;
    queue->PostEvent(gate.Event(aAtGate));
    // The gate is taken alone and holds the thread while the others queue up.
    EXPECT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 0; }));
    std::vector<unsigned long> pendingSeen;  // written on the task thread only
    std::atomic<int> ran{0};
    for (int i = 0; i < aCount; ++i) {
        queue->PostEvent(new FnEvent([&] {
            pendingSeen.push_back(queue->GetPendingEventsCount());
            if (aEach)
                aEach();
            return ran++, RT_OK;
        }));
    }
    EXPECT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == unsigned(aCount); }));
    gate.open.Signal();
    EXPECT_TRUE(WaitUntil([&] { return ran.load() == aCount; }));
    return pendingSeen;
}

}  // namespace

TEST(TaskThread, StopEndsAnIdleThreadAndRefusesLaterPosts) {
    TraceCapture trace;
    CRtThread* thread = NewTaskThread();
    ASSERT_TRUE(thread);
    std::atomic<int> ran{0};
    IRtEventQueue* queue = thread->GetEventQueue();
    for (int i = 0; i < 10; ++i) {
        queue->PostEvent(new FnEvent([&] { return ran++, RT_OK; }));
    }
    EXPECT_EQ(thread->Stop(nullptr), RT_OK);
    std::atomic<int> released{0};
    EXPECT_EQ(queue->PostEvent(new FnEvent([] { return RT_OK; }, &released)),
              RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(released.load(), 1);
    EXPECT_EQ(thread->Stop(nullptr), RT_ERROR_NOT_INITIALIZED);  // already stopping
    EXPECT_EQ(thread->Join(0xFFFFFFFF), RT_OK);
    EXPECT_EQ(ran.load(), 10);  // everything posted before Stop ran
    EXPECT_EQ(trace.Count("CRtThreadTaskWithEventQueueOnly::OnThreadRun, End."), 1u);
    thread->Destory(0);
}

TEST(TaskThread, AnEventsOnlyThreadTakesTheWholeQueueInOneBatch) {
    CRtThread* thread = NewTaskThread();
    EXPECT_EQ(PendingSeenPerEvent(thread, 20), std::vector<unsigned long>(20, 0));
    StopJoinDestroy(thread);
}

TEST(TaskThread, SendRunsOnTheTaskThreadAndReturnsTheResult) {
    CRtThread* thread = NewTaskThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    unsigned long ranOn = 0;
    int nested = 0;
    int rv = queue->SendEvent(new FnEvent([&] {
        ranOn = CRtThreadManager::GetThreadSelfId();
        // A send from the owner thread runs at once, inside this event.
        nested = queue->SendEvent(new FnEvent([] { return RT_ERROR_PARTIAL_DATA; }));
        return RT_ERROR_WOULD_BLOCK;
    }));
    EXPECT_EQ(rv, RT_ERROR_WOULD_BLOCK);
    EXPECT_EQ(nested, RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(ranOn, thread->GetThreadId());
    StopJoinDestroy(thread);
}

// The loop ends while a send waits in the queue: the sender is released with
// RT_ERROR_NOT_AVAILABLE and its event is released unrun.
TEST(TaskThread, ASenderNeverHangsWhenTheLoopEndsUnderIt) {
    auto* thread = static_cast<CRtThreadTaskWithEventQueueOnly*>(NewTaskThread());
    IRtEventQueue* queue = thread->GetEventQueue();
    Gate first;
    Gate second;
    queue->PostEvent(first.Event());
    // The stop event and the second gate come in one batch, so the loop ends
    // after the second gate whatever is queued behind it.
    ASSERT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 0; }));
    queue->PostEvent(new CRtStopTaskEvent(thread));
    queue->PostEvent(second.Event());
    first.open.Signal();
    ASSERT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 0; }));

    std::atomic<int> fired{0};
    std::atomic<int> released{0};
    std::atomic<int> result{0};
    std::thread sender(
        [&] { result = queue->SendEvent(new FnEvent([&] { return fired++, RT_OK; }, &released)); });
    ASSERT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 1; }));
    second.open.Signal();
    sender.join();
    EXPECT_EQ(result.load(), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(fired.load(), 0);
    EXPECT_EQ(released.load(), 1);
    EXPECT_EQ(thread->Join(0xFFFFFFFF), RT_OK);
    thread->Destory(0);
}

// ---- Timer task threads ------------------------------------------------------

TEST(TimerTaskThread, HasATimerQueueFoundThroughTheThreadAndTheManager) {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtThread* thread = NewTaskThread(true);
    CRtThread* eventsOnly = NewTaskThread();
    // The adopted main thread has one too, owned by the host's thread.
    CRtThread* main = manager->GetThread(CRtThreadManager::TT_MAIN);
    for (CRtThread* t : {thread, main}) {
        ASSERT_NE(t->GetTimerQueue(), nullptr);
        EXPECT_EQ(manager->GetThreadTimerQueue(t->GetThreadType()), t->GetTimerQueue());
    }
    for (CRtThread* t : {thread, eventsOnly}) {
        EXPECT_NE(t->GetEventQueue(), nullptr);
        EXPECT_EQ(t->GetReactor(), nullptr);
    }
    EXPECT_EQ(eventsOnly->GetTimerQueue(), nullptr);
    EXPECT_EQ(manager->GetThreadTimerQueue(eventsOnly->GetThreadType()), nullptr);
    StopJoinDestroy(eventsOnly);
    StopJoinDestroy(thread);
}

// The host drives the main thread's loop; its timers fire there.
TEST(TimerTaskThread, TheMainThreadsTimersFireInTheHostsLoop) {
    CRtThread* main = CRtThreadManager::Instance()->GetThread(CRtThreadManager::TT_MAIN);
    ASSERT_TRUE(main);
    FnTimer timer([&](void*) { RtStopMainLoop(); });
    EXPECT_EQ(main->GetTimerQueue()->ScheduleTimer(&timer, nullptr, Ms(20), 1), RT_OK);
    EXPECT_EQ(RtRunMainLoop(), RT_OK);  // returns once the timer has stopped it
    EXPECT_EQ(timer.fired.load(), 1);
}

// Timers run only between passes, so a run of events with no timer inside it
// is one pass; a ticker kept due all the time marks where each pass begins.
TEST(TimerTaskThread, TakesFiveEventsPerPassWithATimerCheckBeforeEach) {
    CRtThread* thread = NewTaskThread(true);
    std::string log;  // written on the task thread only
    FnTimer ticker([&](void*) { log += 'T'; });
    RunOn(thread, [&] { thread->GetTimerQueue()->ScheduleTimer(&ticker, nullptr, Ms(1), 0); });
    std::vector<unsigned long> pendingSeen = PendingSeenPerEvent(
        thread, 12,
        [&] {
            log += 'E';
            std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the ticker comes due
        },
        [&] {
            log += 'G';
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        });
    RunOn(thread, [&] { EXPECT_EQ(thread->GetTimerQueue()->CancelTimer(&ticker), RT_OK); });
    StopJoinDestroy(thread);

    EXPECT_EQ(pendingSeen, std::vector<unsigned long>({7, 7, 7, 7, 7, 2, 2, 2, 2, 2, 0, 0}));
    // From the gate on: ticks, 5 events, ticks, 5 events, ticks, 2 events.
    std::string passes = log.substr(log.find('G') + 1);
    passes = passes.substr(0, passes.rfind('E') + 1);
    std::string squeezed;
    for (char c : passes) {
        if (c != 'T' || squeezed.empty() || squeezed.back() != 'T')
            squeezed += c;
    }
    EXPECT_EQ(squeezed, "TEEEEETEEEEETEE") << log;
}

// The loop ends with timers still scheduled: none fires, the queue and its
// nodes go with the object, and pending events are released unrun.
TEST(TimerTaskThread, StoppingWithPendingTimersReleasesEverything) {
    TraceCapture trace;
    CRtThread* thread = NewTaskThread(true);
    std::vector<FnTimer> handlers(100);
    RunOn(thread, [&] {
        for (size_t i = 0; i < handlers.size(); ++i) {
            thread->GetTimerQueue()->ScheduleTimer(&handlers[i], nullptr, Ms(3600 * 1000),
                                                   i % 2 ? 0 : 1);
        }
    });
    Gate gate;
    thread->GetEventQueue()->PostEvent(gate.Event());
    std::atomic<int> released{0};
    std::atomic<int> fired{0};
    thread->Stop(nullptr);
    // Behind the stop event: released with the queue, never run.
    EXPECT_EQ(
        thread->GetEventQueue()->PostEvent(new FnEvent([&] { return fired++, RT_OK; }, &released)),
        RT_ERROR_NOT_INITIALIZED);
    gate.open.Signal();
    EXPECT_EQ(thread->Join(0xFFFFFFFF), RT_OK);
    EXPECT_EQ(trace.Count("CRtThreadTask::OnThreadRun, End."), 1u);
    thread->Destory(0);
    EXPECT_EQ(released.load(), 1);
    EXPECT_EQ(fired.load(), 0);
    for (const FnTimer& handler : handlers) {
        EXPECT_EQ(handler.fired.load(), 0);
    }
}
