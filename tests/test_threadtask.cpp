// Task threads: their loop, batches, stop, events sent and posted to them from
// other threads, and the timers of a timer task thread.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "task_thread_helpers.h"
#include "trace_capture.h"
#include "rtframework.h"

namespace {

std::atomic<int> g_destroyed{0};

class CountedTask : public CRtThreadTaskWithEventQueueOnly {
protected:
    ~CountedTask() override { g_destroyed++; }
};

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

CRtThread* NewTaskThread(CRtThreadManager::TFlag aFlag = CRtThreadManager::TF_JOINABLE) {
    CRtThread* thread = nullptr;
    EXPECT_EQ(CRtThreadManager::Instance()->CreateUserTaskThread(thread, aFlag, 0), RT_OK);
    return thread;
}

CRtThread* NewTimerTaskThread() {
    CRtThread* thread = nullptr;
    EXPECT_EQ(CRtThreadManager::Instance()->CreateUserTaskThread(thread,
                                                                 CRtThreadManager::TF_JOINABLE, 1),
              RT_OK);
    return thread;
}

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

}  // namespace

TEST(TaskThread, StopEndsAnIdleThreadAndRefusesLaterPosts) {
    TraceCapture trace;
    CRtThread* thread = NewTaskThread();
    ASSERT_TRUE(thread);
    EXPECT_NE(thread->GetEventQueue(), nullptr);
    EXPECT_EQ(thread->GetTimerQueue(), nullptr);
    EXPECT_EQ(thread->GetReactor(), nullptr);

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
    IRtEventQueue* queue = thread->GetEventQueue();
    Gate gate;
    queue->PostEvent(gate.Event());
    // The gate is taken alone and holds the thread while the others queue up.
    EXPECT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 0; }));
    std::vector<unsigned long> pendingSeen;
    std::atomic<int> ran{0};
    for (int i = 0; i < 20; ++i) {
        queue->PostEvent(new FnEvent([&] {
            pendingSeen.push_back(queue->GetPendingEventsCount());
            return ran++, RT_OK;
        }));
    }
    EXPECT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 20; }));
    gate.open.Signal();
    EXPECT_TRUE(WaitUntil([&] { return ran.load() == 20; }));
    StopJoinDestroy(thread);
    EXPECT_EQ(pendingSeen, std::vector<unsigned long>(20, 0));
}

TEST(TaskThread, EventsFromEachPosterRunInTheirOrder) {
    const int kPosters = 3;
    const int kEach = 3000;
    CRtThread* thread = NewTaskThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    std::vector<int> next(kPosters, 0);
    std::atomic<int> outOfOrder{0};
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
        posters.emplace_back([&, p] {
            for (int i = 0; i < kEach; ++i) {
                queue->PostEvent(new FnEvent([&, p, i] {
                    if (next[p] != i)
                        outOfOrder++;
                    next[p] = i + 1;
                    return RT_OK;
                }));
            }
        });
    }
    for (auto& t : posters)
        t.join();
    StopJoinDestroy(thread);
    EXPECT_EQ(outOfOrder.load(), 0);
    EXPECT_EQ(next, std::vector<int>(kPosters, kEach));
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
    auto* thread = new CountedTask();
    ASSERT_EQ(thread->Create(CRtThreadManager::Instance()->GetAndIncreamUserType(),
                             CRtThreadManager::TF_JOINABLE),
              RT_OK);
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
    EXPECT_EQ(g_destroyed.load(), 1);
}

// Posters and senders race a stop: nothing runs twice, nothing is released
// twice or lost, and every sender comes back.
TEST(TaskThread, StressPostsAndSendsWhileTheThreadStops) {
    const int kThreads = 4;
    const int kEach = 2500;
    CRtThread* thread = NewTaskThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    std::vector<std::atomic<int>> fired(kThreads * kEach);
    std::vector<std::atomic<int>> released(kThreads * kEach);
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            started++;
            for (int i = 0; i < kEach; ++i) {
                int id = t * kEach + i;
                auto* ev = new FnEvent([&, id] { return fired[id]++, RT_OK; }, &released[id]);
                if (t == 0 && i % 50 == 0) {
                    queue->SendEvent(ev);
                } else {
                    queue->PostEvent(ev);
                }
            }
        });
    }
    WaitUntil([&] { return started.load() == kThreads; });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    thread->Stop(nullptr);
    EXPECT_EQ(thread->Join(0xFFFFFFFF), RT_OK);
    for (auto& th : threads)
        th.join();
    thread->Destory(0);
    for (int id = 0; id < kThreads * kEach; ++id) {
        ASSERT_EQ(released[id].load(), 1) << id;
        ASSERT_LE(fired[id].load(), 1) << id;
    }
}

TEST(TaskThread, ASelfDeletingTaskThreadIsDeletedOnceInEitherOrder) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    TraceCapture trace;
    auto* ended = new CountedTask();
    ASSERT_EQ(ended->Create(2001, CRtThreadManager::TF_DETACHED), RT_OK);
    ended->Stop(nullptr);
    // The thread's last trace line tells the test that its procedure is over.
    ASSERT_TRUE(WaitUntil([&] { return trace.Count("CRtThread::ThreadProc, quit") == 1; }));
    EXPECT_EQ(g_destroyed.load(), 0);
    ended->Destory(0);
    EXPECT_EQ(g_destroyed.load(), 1);

    auto* running = new CountedTask();
    ASSERT_EQ(running->Create(2002, CRtThreadManager::TF_DETACHED), RT_OK);
    Gate gate;
    running->GetEventQueue()->PostEvent(gate.Event());
    running->Stop(nullptr);
    running->Destory(0);
    EXPECT_EQ(g_destroyed.load(), 1);  // still running its gate
    gate.open.Signal();
    EXPECT_TRUE(WaitUntil([&] { return trace.Count("CRtThread::ThreadProc, quit") == 2; }));
    EXPECT_EQ(g_destroyed.load(), 2);
}

// ---- Timer task threads ------------------------------------------------------

TEST(TimerTaskThread, HasATimerQueueFoundThroughTheThreadAndTheManager) {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtThread* thread = NewTimerTaskThread();
    ASSERT_TRUE(thread);
    IRtTimerQueue* timers = thread->GetTimerQueue();
    ASSERT_NE(timers, nullptr);
    EXPECT_EQ(manager->GetThreadTimerQueue(thread->GetThreadType()), timers);
    EXPECT_NE(thread->GetEventQueue(), nullptr);
    EXPECT_EQ(thread->GetReactor(), nullptr);

    CRtThread* eventsOnly = NewTaskThread();
    EXPECT_EQ(eventsOnly->GetTimerQueue(), nullptr);
    EXPECT_EQ(manager->GetThreadTimerQueue(eventsOnly->GetThreadType()), nullptr);

    // The adopted main thread has one too, owned by the host's thread.
    CRtThread* main = manager->GetThread(CRtThreadManager::TT_MAIN);
    ASSERT_TRUE(main);
    ASSERT_NE(main->GetTimerQueue(), nullptr);
    EXPECT_EQ(manager->GetThreadTimerQueue(CRtThreadManager::TT_MAIN), main->GetTimerQueue());

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

TEST(TimerTaskThread, ATimerFiresWithoutAnyPostWakingTheThread) {
    CRtThread* thread = NewTimerTaskThread();
    unsigned long firedOn = 0;
    FnTimer timer([&](void*) { firedOn = CRtThreadManager::GetThreadSelfId(); });
    auto start = std::chrono::steady_clock::now();
    std::atomic<long long> elapsedMs{-1};
    FnTimer stamp([&](void*) {
        elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    });
    RunOn(thread, [&] {
        EXPECT_EQ(thread->GetTimerQueue()->ScheduleTimer(&timer, nullptr, Ms(200), 1), RT_OK);
        EXPECT_EQ(thread->GetTimerQueue()->ScheduleTimer(&stamp, nullptr, Ms(200), 1), RT_OK);
    });
    // Nothing is posted from here on: the thread wakes for the timer alone.
    ASSERT_TRUE(WaitUntil([&] { return elapsedMs.load() >= 0; }));
    EXPECT_GE(elapsedMs.load(), 190);  // never early (clock granularity aside)
    EXPECT_EQ(timer.fired.load(), 1);
    EXPECT_EQ(firedOn, thread->GetThreadId());
    StopJoinDestroy(thread);
    EXPECT_EQ(timer.fired.load(), 1);
}

// Timers run only between passes, so a run of events with no timer inside it
// is one pass; a ticker kept due all the time marks where each pass begins.
TEST(TimerTaskThread, TakesFiveEventsPerPassWithATimerCheckBeforeEach) {
    CRtThread* thread = NewTimerTaskThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    std::string log;  // written on the task thread only
    std::vector<unsigned long> pendingSeen;
    FnTimer ticker([&](void*) { log += 'T'; });
    RunOn(thread, [&] { thread->GetTimerQueue()->ScheduleTimer(&ticker, nullptr, Ms(1), 0); });
    Gate gate;
    queue->PostEvent(gate.Event([&] { log += 'G'; }));
    ASSERT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 0; }));
    std::atomic<int> ran{0};
    for (int i = 0; i < 12; ++i) {
        queue->PostEvent(new FnEvent([&] {
            log += 'E';
            pendingSeen.push_back(queue->GetPendingEventsCount());
            std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the ticker comes due
            return ran++, RT_OK;
        }));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    gate.open.Signal();
    ASSERT_TRUE(WaitUntil([&] { return ran.load() == 12; }));
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

TEST(TimerTaskThread, AFloodOfEventsDelaysADueTimerByOnePassAtMost) {
    CRtThread* thread = NewTimerTaskThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    std::atomic<int> ran{0};
    std::atomic<int> ranWhenFired{-1};
    FnTimer timer([&](void*) { ranWhenFired = ran.load(); });
    RunOn(thread, [&] { thread->GetTimerQueue()->ScheduleTimer(&timer, nullptr, Ms(10), 1); });
    Gate gate;
    queue->PostEvent(gate.Event());
    ASSERT_TRUE(WaitUntil([&] { return queue->GetPendingEventsCount() == 0; }));
    const int kFlood = 5000;
    for (int i = 0; i < kFlood; ++i) {
        queue->PostEvent(new FnEvent([&] { return ran++, RT_OK; }));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // the timer comes due
    gate.open.Signal();
    ASSERT_TRUE(WaitUntil([&] { return ran.load() == kFlood; }));
    StopJoinDestroy(thread);
    EXPECT_EQ(timer.fired.load(), 1);
    EXPECT_GE(ranWhenFired.load(), 0);
    EXPECT_LE(ranWhenFired.load(), 5);
}

// Events posted from another thread and a periodic timer share the thread;
// every one runs there, events in their order.
TEST(TimerTaskThread, TimersAndEventsInterleave) {
    CRtThread* thread = NewTimerTaskThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    const unsigned long tid = thread->GetThreadId();
    std::atomic<int> wrongThread{0};
    int next = 0;
    int outOfOrder = 0;
    int ticksSeenByEvents = 0;
    FnTimer ticker([&](void*) {
        if (!CRtThreadManager::IsEqualCurrentThread(tid))
            wrongThread++;
    });
    RunOn(thread, [&] { thread->GetTimerQueue()->ScheduleTimer(&ticker, nullptr, Ms(2), 20); });
    const int kEvents = 200;
    for (int i = 0; i < kEvents; ++i) {
        queue->PostEvent(new FnEvent([&, i] {
            if (!CRtThreadManager::IsEqualCurrentThread(tid))
                wrongThread++;
            if (next != i)
                outOfOrder++;
            next = i + 1;
            ticksSeenByEvents = ticker.fired.load();
            return RT_OK;
        }));
        if (i % 10 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(WaitUntil([&] { return ticker.fired.load() == 20; }));
    StopJoinDestroy(thread);
    EXPECT_EQ(next, kEvents);
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_EQ(wrongThread.load(), 0);
    EXPECT_GT(ticksSeenByEvents, 0);  // some ticks fired between the events
    EXPECT_EQ(ticker.fired.load(), 20);
}

TEST(TimerTaskThread, CallbacksCancelAndRescheduleOnTheThread) {
    CRtThread* thread = NewTimerTaskThread();
    IRtTimerQueue* timers = thread->GetTimerQueue();
    FnTimer victim;
    FnTimer self;
    int token1 = 1;
    int token2 = 2;
    std::vector<int> tokensSeen;
    std::vector<int> results;
    FnTimer chooser([&](void* aArg) {
        int token = *static_cast<int*>(aArg);
        tokensSeen.push_back(token);
        if (token == 1) {
            results.push_back(timers->CancelTimer(&victim));
            // Its one expiry is spent: rescheduling makes a new timer.
            results.push_back(timers->ScheduleTimer(&chooser, &token2, Ms(10), 1));
        }
    });
    // A periodic timer that ends itself on its third expiry.
    FnTimer periodic([&](void*) {
        if (periodic.fired.load() == 3)
            results.push_back(timers->CancelTimer(&periodic));
    });
    RunOn(thread, [&] {
        timers->ScheduleTimer(&victim, nullptr, Ms(40), 1);
        timers->ScheduleTimer(&chooser, &token1, Ms(10), 1);
        timers->ScheduleTimer(&periodic, nullptr, Ms(5), 0);
    });
    ASSERT_TRUE(WaitUntil([&] { return chooser.fired.load() == 2 && periodic.fired.load() >= 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the victim's time passes
    RunOn(thread, [&] {
        EXPECT_EQ(timers->CancelTimer(&victim), RT_ERROR_NOT_FOUND);
        EXPECT_EQ(timers->CancelTimer(&chooser), RT_ERROR_NOT_FOUND);
        EXPECT_EQ(timers->CancelTimer(&periodic), RT_ERROR_NOT_FOUND);
    });
    StopJoinDestroy(thread);
    EXPECT_EQ(victim.fired.load(), 0);
    EXPECT_EQ(chooser.fired.load(), 2);
    EXPECT_EQ(periodic.fired.load(), 3);
    EXPECT_EQ(tokensSeen, std::vector<int>({1, 2}));
    EXPECT_EQ(results, std::vector<int>({RT_OK, RT_OK, RT_OK}));
}

// The loop ends with timers still scheduled: none fires, the queue and its
// nodes go with the object, and pending events are released unrun.
TEST(TimerTaskThread, StoppingWithPendingTimersReleasesEverything) {
    TraceCapture trace;
    CRtThread* thread = NewTimerTaskThread();
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
