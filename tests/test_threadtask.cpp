// Task threads: their loop, batches, stop, and events sent and posted to them
// from other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <vector>

#include "trace_capture.h"
#include "rtframework.h"

namespace {

std::atomic<int> g_destroyed{0};

class CountedTask : public CRtThreadTaskWithEventQueueOnly {
protected:
    ~CountedTask() override { g_destroyed++; }
};

// Runs a function on the owner thread; counts its release.
class FnEvent : public IRtEvent {
public:
    FnEvent(std::function<int()> aFn, std::atomic<int>* aReleased = nullptr)
        : m_fn(std::move(aFn)), m_released(aReleased) {}
    int OnEventFire() override { return m_fn(); }
    void OnDestorySelf() override {
        if (m_released)
            (*m_released)++;
        delete this;
    }

private:
    std::function<int()> m_fn;
    std::atomic<int>* m_released;
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

void StopJoinDestroy(CRtThread* aThread) {
    aThread->Stop(nullptr);
    EXPECT_EQ(aThread->Join(0xFFFFFFFF), RT_OK);
    aThread->Destory(0);
}

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
