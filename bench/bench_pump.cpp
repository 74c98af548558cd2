// The message pump: cross-thread post-to-dispatch throughput and the wake-up
// latency of an idle pump thread, each beside a baseline written directly on
// eventfd + epoll (a mutex-guarded queue, one eventfd write per empty-to-busy
// transition, a consumer that waits in epoll_wait and drains the queue).
#include <benchmark/benchmark.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

#include "rtoswindow.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kMsgWork = rtos::kWmUser + 1;
constexpr uint32_t kMsgQuit = rtos::kWmUser + 2;

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// What a dispatched message does: count it, or time it when it carries the
// time of its post.
std::atomic<uint64_t> g_dispatched{0};
std::atomic<int64_t> g_latencyNs{-1};

void OnWork(uintptr_t aPostedAtNs) {
    if (aPostedAtNs != 0) {
        g_latencyNs.store(NowNs() - static_cast<int64_t>(aPostedAtNs), std::memory_order_release);
    }
    g_dispatched.fetch_add(1, std::memory_order_release);
}

void WaitDispatched(uint64_t aCount) {
    while (g_dispatched.load(std::memory_order_acquire) < aCount) {
        std::this_thread::yield();
    }
}

int64_t WaitLatency() {
    int64_t ns;
    while ((ns = g_latencyNs.load(std::memory_order_acquire)) < 0) {
        std::this_thread::yield();
    }
    g_latencyNs.store(-1, std::memory_order_relaxed);
    return ns;
}

// ---- The pump -----------------------------------------------------------------

intptr_t BenchProc(rtos::WindowHandle, uint32_t aMsg, uintptr_t aWParam, intptr_t) {
    if (aMsg == kMsgWork) {
        OnWork(aWParam);
    } else if (aMsg == kMsgQuit) {
        rtos::MessagePostQuit(0);
    }
    return 0;
}

class PumpConsumer {
public:
    PumpConsumer() {
        static const bool s_class = rtos::WindowClassRegister("BenchPump", &BenchProc, 0);
        static_cast<void>(s_class);
        std::promise<rtos::WindowHandle> created;
        m_thread = std::thread([&created] {
            created.set_value(rtos::WindowCreate("BenchPump"));
            rtos::Message msg;
            while (rtos::MessageGet(&msg) > 0) {
                rtos::MessageDispatch(&msg);
            }
        });
        m_wnd = created.get_future().get();
    }
    ~PumpConsumer() {
        rtos::WindowPostMessage(m_wnd, kMsgQuit, 0, 0);
        m_thread.join();
    }
    void Post(uintptr_t aWParam) { rtos::WindowPostMessage(m_wnd, kMsgWork, aWParam, 0); }

private:
    std::thread m_thread;
    rtos::WindowHandle m_wnd = nullptr;
};

// ---- The baseline -------------------------------------------------------------

class EpollConsumer {
public:
    EpollConsumer() {
        m_epfd = ::epoll_create1(EPOLL_CLOEXEC);
        m_efd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = m_efd;
        ::epoll_ctl(m_epfd, EPOLL_CTL_ADD, m_efd, &ev);
        m_thread = std::thread([this] { Run(); });
    }
    ~EpollConsumer() {
        Post(UINTPTR_MAX);
        m_thread.join();
        ::close(m_efd);
        ::close(m_epfd);
    }
    void Post(uintptr_t aWParam) {
        bool wake;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_queue.push_back(aWParam);
            wake = !m_wakePending;
            m_wakePending = true;
        }
        if (wake) {
            const uint64_t one = 1;
            ssize_t n = ::write(m_efd, &one, sizeof(one));
            static_cast<void>(n);
        }
    }

private:
    void Run() {
        std::deque<uintptr_t> batch;
        for (;;) {
            epoll_event ev;
            if (::epoll_wait(m_epfd, &ev, 1, -1) != 1) {
                continue;
            }
            uint64_t count;
            ssize_t n = ::read(m_efd, &count, sizeof(count));
            static_cast<void>(n);
            {
                std::lock_guard<std::mutex> lock(m_lock);
                m_wakePending = false;
                batch.swap(m_queue);
            }
            for (uintptr_t w : batch) {
                if (w == UINTPTR_MAX) {
                    return;
                }
                OnWork(w);
            }
            batch.clear();
        }
    }

    int m_epfd = -1;
    int m_efd = -1;
    std::mutex m_lock;
    std::deque<uintptr_t> m_queue;
    bool m_wakePending = false;
    std::thread m_thread;
};

// ---- Benchmarks ---------------------------------------------------------------

// Each iteration posts a burst of messages from this thread and waits until the
// consumer has dispatched them all, so the time covers the whole trip.
template <class Consumer>
void PostThroughput(benchmark::State& aState) {
    constexpr uint64_t kBurst = 1000;
    Consumer consumer;
    g_dispatched.store(0);
    uint64_t posted = 0;
    for (auto _ : aState) {
        for (uint64_t i = 0; i < kBurst; ++i) {
            consumer.Post(0);
        }
        posted += kBurst;
        WaitDispatched(posted);
    }
    aState.SetItemsProcessed(static_cast<int64_t>(posted));
}

template <class Consumer>
void IdleWakeLatency(benchmark::State& aState) {
    Consumer consumer;
    g_latencyNs.store(-1);
    for (auto _ : aState) {
        // Let the consumer settle into its wait before the next post.
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        consumer.Post(static_cast<uintptr_t>(NowNs()));
        aState.SetIterationTime(static_cast<double>(WaitLatency()) * 1e-9);
    }
}

void BM_PumpPostThroughput(benchmark::State& aState) {
    PostThroughput<PumpConsumer>(aState);
}
void BM_BaselinePostThroughput(benchmark::State& aState) {
    PostThroughput<EpollConsumer>(aState);
}
void BM_PumpIdleWakeLatency(benchmark::State& aState) {
    IdleWakeLatency<PumpConsumer>(aState);
}
void BM_BaselineIdleWakeLatency(benchmark::State& aState) {
    IdleWakeLatency<EpollConsumer>(aState);
}

}  // namespace

BENCHMARK(BM_PumpPostThroughput)->UseRealTime();
BENCHMARK(BM_BaselinePostThroughput)->UseRealTime();
BENCHMARK(BM_PumpIdleWakeLatency)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BaselineIdleWakeLatency)->UseManualTime()->Unit(benchmark::kMicrosecond);
