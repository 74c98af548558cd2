// The network thread's reactor: events posted from another thread, the wake-up
// of an idle reactor, TCP echo and streaming over loopback, and the CPU an idle
// reactor thread burns. Each beside the same workload on a loop written
// directly on epoll + eventfd (EpollLoop below).
//
// The idle measurement lasts 1 s per loop in a full run and 10 s when the
// filter names it (--benchmark_filter=IdleCpu).
#include <benchmark/benchmark.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rtframework.h"
#include "rtoswindow.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

class FnEvent : public IRtEvent {
public:
    explicit FnEvent(std::function<int()> aFn) : m_fn(std::move(aFn)) {}
    int OnEventFire() override { return m_fn(); }

private:
    std::function<int()> m_fn;
};

// Posted again and again: no allocation per post on either side.
class CountEvent : public IRtEvent {
public:
    int OnEventFire() override {
        m_ran.fetch_add(1, std::memory_order_release);
        return RT_OK;
    }
    void OnDestorySelf() override {}

    std::atomic<int64_t> m_ran{0};
};

// One in flight at a time: carries the time of its post.
class LatencyEvent : public IRtEvent {
public:
    int OnEventFire() override {
        m_latencyNs.store(NowNs() - m_postedNs, std::memory_order_release);
        return RT_OK;
    }
    void OnDestorySelf() override {}

    int64_t m_postedNs = 0;
    std::atomic<int64_t> m_latencyNs{-1};
};

// The loop thread's CPU clock and kernel id, read on that thread.
struct ThreadIds {
    clockid_t cpuClock = 0;
    pid_t tid = 0;

    int ReadOnCurrentThread() {
        tid = static_cast<pid_t>(::syscall(SYS_gettid));
        return pthread_getcpuclockid(pthread_self(), &cpuClock) == 0 ? RT_OK : RT_ERROR_FAILURE;
    }
};

// ---- The server side of a loopback connection --------------------------------

// Echoes what arrives (or only counts it), keeping what the peer cannot take
// yet. Loop thread only, apart from the received count.
class EchoServer {
public:
    EchoServer(int aFd, bool aEcho) : m_fd(aFd), m_echo(aEcho), m_buf(64 * 1024) {}

    // Told when a send would block (true) and when the backlog is gone (false).
    std::function<void(bool)> m_onWantWrite;
    std::atomic<int64_t> m_received{0};
    int Fd() const { return m_fd; }

    // False when the connection ended or failed.
    bool OnReadable() {
        ssize_t n = ::recv(m_fd, m_buf.data(), m_buf.size(), 0);
        if (n == 0) {
            return false;
        }
        if (n < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        m_received.fetch_add(n, std::memory_order_release);
        if (!m_echo) {
            return true;
        }
        m_pending.append(m_buf.data(), static_cast<size_t>(n));
        // With a backlog, the next writability report flushes it in order.
        return m_blocked || Flush();
    }

    bool OnWritable() { return Flush(); }

private:
    bool Flush() {
        const bool hadBacklog = m_blocked;
        while (m_sent < m_pending.size()) {
            ssize_t n =
                ::send(m_fd, m_pending.data() + m_sent, m_pending.size() - m_sent, MSG_NOSIGNAL);
            if (n > 0) {
                m_sent += static_cast<size_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && errno == EAGAIN) {
                m_blocked = true;
                m_onWantWrite(true);
                return true;
            } else {
                return false;
            }
        }
        m_pending.clear();
        m_sent = 0;
        m_blocked = false;
        if (hadBacklog) {
            m_onWantWrite(false);
        }
        return true;
    }

    int m_fd;
    bool m_echo;
    std::vector<char> m_buf;
    std::string m_pending;
    size_t m_sent = 0;
    bool m_blocked = false;
};

// ---- The library's side: the thread manager's network reactor -----------------

class ReactorLoop {
public:
    ReactorLoop()
        : m_reactor(CRtThreadManager::Instance()->GetThreadReactor(CRtThreadManager::TT_NETWORK)) {}

    void Post(IRtEvent* aEvent) { m_reactor->PostEvent(aEvent); }
    int Run(std::function<int()> aFn) { return m_reactor->SendEvent(new FnEvent(std::move(aFn))); }

    int Watch(EchoServer* aServer) {
        m_handler.reset(new Handler(aServer));
        // The pump reports writability once more after a send would block.
        const int fd = aServer->Fd();
        aServer->m_onWantWrite = [fd](bool aWant) {
            if (aWant) {
                rtos::SocketSendWouldBlock(fd);
            }
        };
        return Run([this] {
            return m_reactor->RegisterHandler(
                m_handler.get(), IRtEventHandler::READ_MASK | IRtEventHandler::WRITE_MASK);
        });
    }
    void Unwatch() {
        Run([this] { return m_reactor->RemoveHandler(m_handler.get()); });
        m_handler.reset();
    }

private:
    class Handler : public IRtEventHandler {
    public:
        explicit Handler(EchoServer* aServer) : m_server(aServer) {}
        void* GetHandle() const override {
            return reinterpret_cast<void*>(static_cast<intptr_t>(m_server->Fd()));
        }
        int OnInput(void*) override { return m_server->OnReadable() ? 0 : -1; }
        int OnOutput(void*) override { return m_server->OnWritable() ? 0 : -1; }
        int OnClose(void*, MASK) override { return 0; }

    private:
        EchoServer* m_server;
    };

    IRtReactor* m_reactor;
    std::unique_ptr<Handler> m_handler;
};

// ---- The baseline: a loop written directly on epoll + eventfd -----------------

// A mutex-guarded queue with one eventfd write per empty-to-busy transition, a
// thread in epoll_wait that drains the whole queue per wake-up, level-triggered
// sockets with EPOLLOUT armed only while a backlog waits, and an optional
// periodic timerfd tick.
class EpollLoop {
public:
    explicit EpollLoop(int aTickMs = 0) {
        m_epfd = ::epoll_create1(EPOLL_CLOEXEC);
        m_efd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        Add(m_efd, EPOLLIN, &m_efd);
        if (aTickMs > 0) {
            m_tfd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
            itimerspec every{};
            every.it_interval.tv_nsec = aTickMs * 1000000L;
            every.it_value = every.it_interval;
            ::timerfd_settime(m_tfd, 0, &every, nullptr);
            Add(m_tfd, EPOLLIN, &m_tfd);
        }
        m_thread = std::thread([this] { Loop(); });
    }
    ~EpollLoop() {
        Post(new FnEvent([this] { return m_stop = true, RT_OK; }));
        m_thread.join();
        for (int fd : {m_tfd, m_efd, m_epfd}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    void Post(IRtEvent* aEvent) {
        bool wake;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_queue.push_back(aEvent);
            wake = !m_wakePending;
            m_wakePending = true;
        }
        if (wake) {
            const uint64_t one = 1;
            ssize_t n = ::write(m_efd, &one, sizeof(one));
            static_cast<void>(n);
        }
    }
    int Run(std::function<int()> aFn) {
        std::promise<int> result;
        Post(new FnEvent([&] { return result.set_value(aFn()), RT_OK; }));
        return result.get_future().get();
    }

    int Watch(EchoServer* aServer) {
        m_server = aServer;
        const int fd = aServer->Fd();
        aServer->m_onWantWrite = [this, fd](bool aWant) {
            epoll_event ev{};
            ev.events = EPOLLIN | (aWant ? EPOLLOUT : 0u);
            ev.data.ptr = m_server;
            ::epoll_ctl(m_epfd, EPOLL_CTL_MOD, fd, &ev);
        };
        return Run([this, fd] { return Add(fd, EPOLLIN, m_server) ? RT_OK : RT_ERROR_FAILURE; });
    }
    void Unwatch() {
        Run([this] { return ::epoll_ctl(m_epfd, EPOLL_CTL_DEL, m_server->Fd(), nullptr); });
        m_server = nullptr;
    }

private:
    bool Add(int aFd, uint32_t aEvents, void* aTag) {
        epoll_event ev{};
        ev.events = aEvents;
        ev.data.ptr = aTag;
        return ::epoll_ctl(m_epfd, EPOLL_CTL_ADD, aFd, &ev) == 0;
    }

    void Loop() {
        std::vector<IRtEvent*> batch;
        epoll_event events[64];
        while (!m_stop) {
            const int n = ::epoll_wait(m_epfd, events, 64, -1);
            for (int i = 0; i < n; ++i) {
                void* tag = events[i].data.ptr;
                uint64_t count;
                if (tag == &m_tfd) {
                    ssize_t r = ::read(m_tfd, &count, sizeof(count));
                    static_cast<void>(r);
                } else if (tag == &m_efd) {
                    ssize_t r = ::read(m_efd, &count, sizeof(count));
                    static_cast<void>(r);
                    {
                        std::lock_guard<std::mutex> lock(m_lock);
                        m_wakePending = false;
                        batch.swap(m_queue);
                    }
                    for (IRtEvent* event : batch) {
                        event->OnEventFire();
                        event->OnDestorySelf();
                    }
                    batch.clear();
                } else if (tag == m_server) {
                    OnSocket(events[i].events);
                }
            }
        }
    }

    void OnSocket(uint32_t aEvents) {
        bool ok = true;
        if (aEvents & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
            ok = m_server->OnReadable();
        }
        if (ok && (aEvents & EPOLLOUT)) {
            ok = m_server->OnWritable();
        }
        if (!ok) {
            ::epoll_ctl(m_epfd, EPOLL_CTL_DEL, m_server->Fd(), nullptr);
        }
    }

    int m_epfd = -1;
    int m_efd = -1;
    int m_tfd = -1;
    std::mutex m_lock;
    std::vector<IRtEvent*> m_queue;
    bool m_wakePending = false;
    bool m_stop = false;             // loop thread only
    EchoServer* m_server = nullptr;  // the watched connection, if any
    std::thread m_thread;
};

// ---- Loopback connections -----------------------------------------------------

sockaddr_in Loopback(uint16_t aPort) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(aPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A blocking client on the benchmark thread, connected to an EchoServer that
// the loop watches; both ends closed with the object.
template <class Loop>
class Connection {
public:
    Connection(Loop& aLoop, bool aEcho) : m_loop(aLoop) {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = Loopback(0);
        socklen_t len = sizeof(a);
        const int one = 1;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
            ::listen(listener, 1) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
            m_client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (::connect(m_client, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
                m_serverFd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            }
        }
        ::close(listener);
        if (m_serverFd < 0) {
            return;
        }
        ::setsockopt(m_client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        ::setsockopt(m_serverFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        m_server.reset(new EchoServer(m_serverFd, aEcho));
        m_watched = m_loop.Watch(m_server.get()) == RT_OK;
    }
    ~Connection() {
        if (m_watched) {
            m_loop.Unwatch();
        }
        for (int fd : {m_client, m_serverFd}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    bool Ok() const { return m_watched; }
    int64_t Received() const { return m_server->m_received.load(std::memory_order_acquire); }

    bool SendAll(const char* aData, size_t aLen) {
        while (aLen > 0) {
            ssize_t n = ::send(m_client, aData, aLen, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            aData += n;
            aLen -= static_cast<size_t>(n);
        }
        return true;
    }
    bool ReceiveAll(char* aData, size_t aLen) {
        while (aLen > 0) {
            ssize_t n = ::recv(m_client, aData, aLen, 0);
            if (n <= 0) {
                return false;
            }
            aData += n;
            aLen -= static_cast<size_t>(n);
        }
        return true;
    }

private:
    Loop& m_loop;
    int m_client = -1;
    int m_serverFd = -1;
    std::unique_ptr<EchoServer> m_server;
    bool m_watched = false;
};

// ---- Benchmarks ---------------------------------------------------------------

// Bursts of 1,000 posts from this thread; each iteration waits until the loop
// has run them all, so the time covers the whole trip.
template <class Loop>
void PostThroughput(benchmark::State& aState, Loop& aLoop) {
    constexpr int64_t kBurst = 1000;
    CountEvent event;
    int64_t posted = 0;
    for (auto _ : aState) {
        for (int64_t i = 0; i < kBurst; ++i) {
            aLoop.Post(&event);
        }
        posted += kBurst;
        while (event.m_ran.load(std::memory_order_acquire) < posted) {
            std::this_thread::yield();
        }
    }
    aState.SetItemsProcessed(posted);
}

// Post to an idle loop (left alone for 200 us) until the event runs there. The
// time is the mean; p50 and p90 are counters.
template <class Loop>
void IdleWakeLatency(benchmark::State& aState, Loop& aLoop) {
    LatencyEvent event;
    std::vector<double> samplesUs;
    for (auto _ : aState) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        event.m_latencyNs.store(-1, std::memory_order_relaxed);
        event.m_postedNs = NowNs();
        aLoop.Post(&event);
        int64_t ns;
        while ((ns = event.m_latencyNs.load(std::memory_order_acquire)) < 0) {
            std::this_thread::yield();
        }
        aState.SetIterationTime(static_cast<double>(ns) * 1e-9);
        samplesUs.push_back(static_cast<double>(ns) * 1e-3);
    }
    std::sort(samplesUs.begin(), samplesUs.end());
    if (!samplesUs.empty()) {
        aState.counters["p50_us"] = samplesUs[samplesUs.size() / 2];
        aState.counters["p90_us"] = samplesUs[samplesUs.size() * 9 / 10];
    }
}

// One 64-byte message to the echo server and back per iteration.
template <class Loop>
void EchoRoundTrip(benchmark::State& aState, Loop& aLoop) {
    Connection<Loop> conn(aLoop, true);
    if (!conn.Ok()) {
        aState.SkipWithError("no loopback connection");
        return;
    }
    char out[64] = {'p'}, in[64];
    for (auto _ : aState) {
        if (!conn.SendAll(out, sizeof(out)) || !conn.ReceiveAll(in, sizeof(in))) {
            aState.SkipWithError("the echo connection broke");
            break;
        }
    }
    aState.SetItemsProcessed(aState.iterations());
}

// 16 KiB blocking writes per iteration to a server that reads and discards;
// the time includes the wait for the last byte to be read.
template <class Loop>
void Stream(benchmark::State& aState, Loop& aLoop) {
    Connection<Loop> conn(aLoop, false);
    if (!conn.Ok()) {
        aState.SkipWithError("no loopback connection");
        return;
    }
    std::vector<char> chunk(16 * 1024, 's');
    int64_t sent = 0;
    for (auto _ : aState) {
        if (!conn.SendAll(chunk.data(), chunk.size())) {
            aState.SkipWithError("the stream connection broke");
            return;
        }
        sent += static_cast<int64_t>(chunk.size());
    }
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(60);
    while (conn.Received() < sent && Clock::now() < limit) {
        std::this_thread::yield();
    }
    if (conn.Received() < sent) {
        aState.SkipWithError("the server did not read everything");
    }
    aState.SetBytesProcessed(sent);
}

// A thread's voluntary context switches so far: how often it went to sleep.
long SleepsOf(pid_t aTid) {
    std::ifstream status("/proc/self/task/" + std::to_string(aTid) + "/status");
    const std::string key = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::stol(line.substr(key.size()));
        }
    }
    return 0;
}

double CpuSeconds(clockid_t aClock) {
    timespec ts{};
    ::clock_gettime(aClock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The loop thread's CPU time while nothing happens (the reported time), and how
// often it woke.
template <class Loop>
void IdleCpu(benchmark::State& aState, Loop& aLoop) {
    const bool asked = benchmark::GetBenchmarkFilter().find("IdleCpu") != std::string::npos;
    const int seconds = asked ? 10 : 1;
    ThreadIds ids;
    if (aLoop.Run([&ids] { return ids.ReadOnCurrentThread(); }) != RT_OK) {
        aState.SkipWithError("no CPU clock for the loop thread");
        return;
    }
    for (auto _ : aState) {
        const double cpu0 = CpuSeconds(ids.cpuClock);
        const long sleeps0 = SleepsOf(ids.tid);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const double cpu = CpuSeconds(ids.cpuClock) - cpu0;
        aState.SetIterationTime(cpu);
        aState.counters["idle_s"] = seconds;
        aState.counters["cpu_us_per_s"] = cpu * 1e6 / seconds;
        aState.counters["wakeups_per_s"] =
            static_cast<double>(SleepsOf(ids.tid) - sleeps0) / seconds;
    }
}

void BM_Reactor_PostThroughput(benchmark::State& aState) {
    ReactorLoop loop;
    PostThroughput(aState, loop);
}
void BM_ReactorBaseline_PostThroughput(benchmark::State& aState) {
    EpollLoop loop;
    PostThroughput(aState, loop);
}
void BM_Reactor_IdleWakeLatency(benchmark::State& aState) {
    ReactorLoop loop;
    IdleWakeLatency(aState, loop);
}
void BM_ReactorBaseline_IdleWakeLatency(benchmark::State& aState) {
    EpollLoop loop;
    IdleWakeLatency(aState, loop);
}
void BM_Reactor_EchoRoundTrip64(benchmark::State& aState) {
    ReactorLoop loop;
    EchoRoundTrip(aState, loop);
}
void BM_ReactorBaseline_EchoRoundTrip64(benchmark::State& aState) {
    EpollLoop loop;
    EchoRoundTrip(aState, loop);
}
void BM_Reactor_Stream16K(benchmark::State& aState) {
    ReactorLoop loop;
    Stream(aState, loop);
}
void BM_ReactorBaseline_Stream16K(benchmark::State& aState) {
    EpollLoop loop;
    Stream(aState, loop);
}
void BM_Reactor_IdleCpu(benchmark::State& aState) {
    ReactorLoop loop;
    IdleCpu(aState, loop);
}
// Arg: the loop's tick in ms (0: none, 30: the reactor's own).
void BM_ReactorBaseline_IdleCpu(benchmark::State& aState) {
    EpollLoop loop(static_cast<int>(aState.range(0)));
    IdleCpu(aState, loop);
}

}  // namespace

BENCHMARK(BM_Reactor_PostThroughput)->UseRealTime();
BENCHMARK(BM_ReactorBaseline_PostThroughput)->UseRealTime();
BENCHMARK(BM_Reactor_IdleWakeLatency)
    ->UseManualTime()
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReactorBaseline_IdleWakeLatency)
    ->UseManualTime()
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Reactor_EchoRoundTrip64)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReactorBaseline_EchoRoundTrip64)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Reactor_Stream16K)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReactorBaseline_Stream16K)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Reactor_IdleCpu)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReactorBaseline_IdleCpu)
    ->ArgName("tick_ms")
    ->Arg(0)
    ->Arg(30)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
