// Handing work to another thread: posts to a task thread and cross-thread
// sends, each beside a plain baseline (a std::mutex + std::condition_variable
// queue of std::function run by one consumer thread), and timers fired on a
// timer task thread.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "rtframework.h"

namespace {

// ---- The library's side -----------------------------------------------------

// One task thread for the whole run; the manager ends it at exit.
IRtEventQueue* TaskQueue() {
    static IRtEventQueue* s_queue = [] {
        CRtThreadManager::Instance();
        CRtThread* thread = nullptr;
        CRtThreadManager::Instance()->CreateUserTaskThread(thread, CRtThreadManager::TF_JOINABLE,
                                                           0);
        return thread->GetEventQueue();
    }();
    return s_queue;
}

// A heap event per post, as hosts write them.
class CountEvent : public IRtEvent {
public:
    explicit CountEvent(std::atomic<int64_t>& aRan) : m_ran(aRan) {}
    int OnEventFire() override {
        m_ran.fetch_add(1, std::memory_order_relaxed);
        return RT_OK;
    }

private:
    std::atomic<int64_t>& m_ran;
};

// One event posted again and again: the queue's own cost, with no allocation
// per post (the baseline's std::function of a small lambda allocates none).
class ReusedEvent : public IRtEvent {
public:
    int OnEventFire() override {
        m_ran.fetch_add(1, std::memory_order_relaxed);
        return RT_OK;
    }
    void OnDestorySelf() override {}

    std::atomic<int64_t> m_ran{0};
};

void WaitFor(const std::atomic<int64_t>& aRan, int64_t aCount) {
    while (aRan.load(std::memory_order_acquire) < aCount) {
        std::this_thread::yield();
    }
}

// ---- Timers on a running timer task thread -----------------------------------

constexpr int kTimersPerRound = 1000;

// The timers of one round: a handler each (a queue holds one timer per
// handler); the last expiry wakes the benchmark thread.
class TimerRound : public IRtEvent {
public:
    explicit TimerRound(IRtTimerQueue* aTimers) : m_pTimers(aTimers), m_Handlers(kTimersPerRound) {
        for (Handler& handler : m_Handlers) {
            handler.m_pRound = this;
        }
    }
    // Runs on the task thread: schedules every timer, due at once.
    int OnEventFire() override {
        m_nFired = 0;
        for (Handler& handler : m_Handlers) {
            m_pTimers->ScheduleTimer(&handler, nullptr, CRtTimeValue::s_tvZero, 1);
        }
        return RT_OK;
    }
    void OnDestorySelf() override {}

    CRtEventThread m_Done;

private:
    struct Handler : IRtTimerHandler {
        void OnTimeout(const CRtTimeValue&, void*) override {
            if (++m_pRound->m_nFired == kTimersPerRound) {
                m_pRound->m_Done.Signal();
            }
        }
        TimerRound* m_pRound = nullptr;
    };

    IRtTimerQueue* m_pTimers;
    std::vector<Handler> m_Handlers;
    int m_nFired = 0;  // task thread only
};

// End to end: a post wakes the thread, which schedules 1,000 timers and fires
// them in its next pass; the last one wakes the benchmark thread.
void BM_FireTimersOnTimerTaskThread(benchmark::State& state) {
    CRtThreadManager::Instance();
    CRtThread* thread = nullptr;
    CRtThreadManager::Instance()->CreateUserTaskThread(thread, CRtThreadManager::TF_JOINABLE, 1);
    {
        TimerRound round(thread->GetTimerQueue());
        for (auto _ : state) {
            thread->GetEventQueue()->PostEvent(&round);
            round.m_Done.Wait();
        }
        thread->Stop();
        thread->Join(0xFFFFFFFF);
    }
    thread->Destory(0);
    state.SetItemsProcessed(state.iterations() * kTimersPerRound);
}
BENCHMARK(BM_FireTimersOnTimerTaskThread)->UseRealTime();

void BM_PostToTaskThread(benchmark::State& state) {
    IRtEventQueue* queue = TaskQueue();
    ReusedEvent event;
    int64_t posted = 0;
    for (auto _ : state) {
        queue->PostEvent(&event);
        ++posted;
    }
    WaitFor(event.m_ran, posted);
    state.SetItemsProcessed(posted);
}
BENCHMARK(BM_PostToTaskThread)->Threads(1)->Threads(2)->UseRealTime();

void BM_PostHeapEventToTaskThread(benchmark::State& state) {
    IRtEventQueue* queue = TaskQueue();
    std::atomic<int64_t> ran{0};
    int64_t posted = 0;
    for (auto _ : state) {
        queue->PostEvent(new CountEvent(ran));
        ++posted;
    }
    WaitFor(ran, posted);
    state.SetItemsProcessed(posted);
}
BENCHMARK(BM_PostHeapEventToTaskThread)->Threads(1)->Threads(2)->UseRealTime();

void BM_SendToTaskThread(benchmark::State& state) {
    IRtEventQueue* queue = TaskQueue();
    std::atomic<int64_t> ran{0};
    for (auto _ : state) {
        queue->SendEvent(new CountEvent(ran));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SendToTaskThread)->UseRealTime();

// ---- The baseline -------------------------------------------------------------

class PlainQueue {
public:
    PlainQueue() : m_thread([this] { Run(); }) {}
    ~PlainQueue() {
        Post(nullptr);
        m_thread.join();
    }

    void Post(std::function<void()> aFn) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_items.push_back(std::move(aFn));
        }
        m_cond.notify_one();
    }

private:
    void Run() {
        for (;;) {
            std::function<void()> fn;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cond.wait(lock, [this] { return !m_items.empty(); });
                fn = std::move(m_items.front());
                m_items.pop_front();
            }
            if (!fn) {
                return;
            }
            fn();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<std::function<void()>> m_items;
    std::thread m_thread;
};

PlainQueue& BaselineQueue() {
    static PlainQueue s_queue;
    return s_queue;
}

void BM_BaselinePost(benchmark::State& state) {
    PlainQueue& queue = BaselineQueue();
    std::atomic<int64_t> ran{0};
    int64_t posted = 0;
    for (auto _ : state) {
        queue.Post([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
        ++posted;
    }
    WaitFor(ran, posted);
    state.SetItemsProcessed(posted);
}
BENCHMARK(BM_BaselinePost)->Threads(1)->Threads(2)->UseRealTime();

void BM_BaselineSend(benchmark::State& state) {
    PlainQueue& queue = BaselineQueue();
    for (auto _ : state) {
        auto result = std::make_shared<std::promise<int>>();
        std::future<int> done = result->get_future();
        queue.Post([result] { result->set_value(RT_OK); });
        benchmark::DoNotOptimize(done.get());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BaselineSend)->UseRealTime();

}  // namespace
