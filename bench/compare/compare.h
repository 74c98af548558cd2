// The side-by-side workloads shared by every library's program: sizes, clocks,
// loopback connections and the drivers of the loop rows. Each program defines
// a loop type and calls the drivers; scripts/compare.sh runs the programs and
// builds the table from their output.
//
// Output: one line per figure, "library<TAB>row<TAB>value". Rows are named in
// scripts/compare.sh, which also gives their units.
//
// A loop type provides:
//   struct Task;                   // built from std::function<void()>; reused, never freed by the
//   loop void Post(Task*);              // any thread: run the task on the loop thread void
//   Send(Task*);              // another thread: run it there and wait until it ran void Adopt(int
//   fd, bool echo, std::atomic<int64_t>* received);  // any thread, waits void Drop(); // stops
//   watching the adopted socket (any thread, waits)
// Adopt hands over a connected non-blocking socket; the loop echoes what it
// reads (or only counts it) until Drop, and the harness closes the socket.
#ifndef KVT_BENCH_COMPARE_H
#define KVT_BENCH_COMPARE_H

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace cmp {

// ---- Sizes: a full run of all programs, three times, stays within minutes.
constexpr int64_t kPostsPerProducer = 1000000;
constexpr int kSends = 20000;
constexpr int kWakes = 1000;
constexpr int kPingPongs = 20000;
constexpr size_t kStreamChunk = 64 * 1024;
constexpr int64_t kStreamBytes = int64_t{256} << 20;
constexpr int kTimerSizes[] = {1000, 10000, 100000};
constexpr int kBufferRounds = 200000;
constexpr int kTraceRounds = 500000;
constexpr int kLookups = 300;
constexpr int kCachedLookups = 100000;
// The message of the buffer rows: 16 blocks of 2 KiB, split in block 8.
constexpr size_t kBlocks = 16;
constexpr size_t kBlockSize = 2048;
constexpr size_t kSplitAt = 7 * kBlockSize + kBlockSize / 2;

inline int64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

inline int64_t ThreadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

// User + system time of every thread of the process.
inline double ProcessCpuSec() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

inline void Report(const char* aLib, const std::string& aRow, double aValue) {
    std::printf("%s\t%s\t%.6g\n", aLib, aRow.c_str(), aValue);
    std::fflush(stdout);
}

inline double Percentile(std::vector<double> aSamples, double aFraction) {
    if (aSamples.empty()) {
        return 0;
    }
    std::sort(aSamples.begin(), aSamples.end());
    return aSamples[static_cast<size_t>(aFraction * static_cast<double>(aSamples.size() - 1))];
}

// Due times of the timer rows, in microseconds from now: 1 to 50 ms, the same
// sequence for every library.
inline std::vector<int64_t> TimerDelaysUs(int aCount) {
    std::mt19937 rng(12345);
    std::vector<int64_t> delays(static_cast<size_t>(aCount));
    for (int64_t& d : delays) {
        d = 1000 + static_cast<int64_t>(rng() % 49000);
    }
    return delays;
}

// Waits past the last due time, so that the expiry of the rows is one pass
// over timers that are all due (the wait itself costs no CPU time).
inline void SleepPastDeadlines() {
    std::this_thread::sleep_for(std::chrono::milliseconds(51));
}

// A timer row's cost: (schedule n + cancel n/2 + expire n/2) / 2n operations,
// in CPU time of the calling thread (the wait for the due times is not counted).
inline double TimerNsPerOp(int aCount, int64_t aCpuNs) {
    return static_cast<double>(aCpuNs) / (2.0 * aCount);
}

// ---- Loopback TCP ------------------------------------------------------------

// A connected pair: a blocking client for this thread and a non-blocking
// server end for a loop, both with TCP_NODELAY. Both closed with the object.
class LoopbackPair {
public:
    LoopbackPair() {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
            ::listen(listener, 1) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
            m_client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (::connect(m_client, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
                m_server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            }
        }
        ::close(listener);
        const int one = 1;
        ::setsockopt(m_client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        ::setsockopt(m_server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    }
    ~LoopbackPair() {
        for (int fd : {m_client, m_server}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    LoopbackPair(const LoopbackPair&) = delete;
    LoopbackPair& operator=(const LoopbackPair&) = delete;

    bool Ok() const { return m_server >= 0; }
    int Client() const { return m_client; }
    int Server() const { return m_server; }

    bool SendAll(const char* aData, size_t aLen) {
        while (aLen > 0) {
            ssize_t n = ::send(m_client, aData, aLen, MSG_NOSIGNAL);
            if (n <= 0 && errno != EINTR) {
                return false;
            }
            aData += n > 0 ? n : 0;
            aLen -= static_cast<size_t>(n > 0 ? n : 0);
        }
        return true;
    }
    bool ReceiveAll(char* aData, size_t aLen) {
        while (aLen > 0) {
            ssize_t n = ::recv(m_client, aData, aLen, 0);
            if (n <= 0 && errno != EINTR) {
                return false;
            }
            aData += n > 0 ? n : 0;
            aLen -= static_cast<size_t>(n > 0 ? n : 0);
        }
        return true;
    }

private:
    int m_client = -1;
    int m_server = -1;
};

// ---- The loop rows -------------------------------------------------------------

inline void WaitAtLeast(const std::atomic<int64_t>& aCount, int64_t aTarget) {
    while (aCount.load(std::memory_order_acquire) < aTarget) {
        std::this_thread::yield();
    }
}

// Returns once the loop is done with every task posted before: a loop may
// still hold a task it ran when the count it bumped is seen.
template <class Loop>
void Drain(Loop& aLoop) {
    typename Loop::Task nothing([] {});
    aLoop.Send(&nothing);
}

// aProducers threads post kPostsPerProducer tasks each; the time runs until the
// loop has run them all. Rows <prefix>postN.rate (M events/s) and .cpu (s).
template <class Loop>
void PostThroughput(const char* aLib, const std::string& aPrefix, Loop& aLoop, int aProducers) {
    std::atomic<int64_t> ran{0};
    typename Loop::Task task([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
    const double cpu0 = ProcessCpuSec();
    const int64_t t0 = NowNs();
    std::vector<std::thread> producers;
    for (int p = 0; p < aProducers; ++p) {
        producers.emplace_back([&] {
            for (int64_t i = 0; i < kPostsPerProducer; ++i) {
                aLoop.Post(&task);
            }
        });
    }
    for (std::thread& t : producers) {
        t.join();
    }
    WaitAtLeast(ran, kPostsPerProducer * aProducers);
    const double sec = static_cast<double>(NowNs() - t0) * 1e-9;
    Drain(aLoop);
    const std::string row = aPrefix + "post" + std::to_string(aProducers);
    Report(aLib, row + ".rate", static_cast<double>(kPostsPerProducer * aProducers) / sec * 1e-6);
    Report(aLib, row + ".cpu", ProcessCpuSec() - cpu0);
}

// Blocking sends from this thread; p50 and p99 in microseconds.
template <class Loop>
void SendRoundTrip(const char* aLib, const std::string& aPrefix, Loop& aLoop) {
    std::atomic<int64_t> ran{0};
    typename Loop::Task task([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
    std::vector<double> us;
    us.reserve(kSends);
    for (int i = 0; i < kSends; ++i) {
        const int64_t t0 = NowNs();
        aLoop.Send(&task);
        us.push_back(static_cast<double>(NowNs() - t0) * 1e-3);
    }
    Report(aLib, aPrefix + "send.p50", Percentile(us, 0.5));
    Report(aLib, aPrefix + "send.p99", Percentile(us, 0.99));
}

// A post to a loop left idle for 200 us, until the task runs there.
template <class Loop>
void IdleWake(const char* aLib, const std::string& aPrefix, Loop& aLoop) {
    std::atomic<int64_t> latencyNs{-1};
    int64_t postedNs = 0;
    typename Loop::Task task(
        [&] { latencyNs.store(NowNs() - postedNs, std::memory_order_release); });
    std::vector<double> us;
    for (int i = 0; i < kWakes; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        latencyNs.store(-1, std::memory_order_relaxed);
        postedNs = NowNs();
        aLoop.Post(&task);
        int64_t ns;
        while ((ns = latencyNs.load(std::memory_order_acquire)) < 0) {
            std::this_thread::yield();
        }
        us.push_back(static_cast<double>(ns) * 1e-3);
    }
    Drain(aLoop);
    Report(aLib, aPrefix + "wake.p50", Percentile(us, 0.5));
    Report(aLib, aPrefix + "wake.p99", Percentile(us, 0.99));
}

// 64-byte round trips (k/s) and 64 KiB streaming (GB/s) through the loop.
template <class Loop>
void Tcp(const char* aLib, Loop& aLoop) {
    {
        LoopbackPair pair;
        std::atomic<int64_t> received{0};
        if (!pair.Ok()) {
            return;
        }
        aLoop.Adopt(pair.Server(), true, &received);
        char msg[64] = {1};
        const int64_t t0 = NowNs();
        bool ok = true;
        for (int i = 0; i < kPingPongs && ok; ++i) {
            ok = pair.SendAll(msg, sizeof(msg)) && pair.ReceiveAll(msg, sizeof(msg));
        }
        const double sec = static_cast<double>(NowNs() - t0) * 1e-9;
        aLoop.Drop();
        if (ok) {
            Report(aLib, "tcp.rtt", kPingPongs / sec * 1e-3);
        }
    }
    {
        LoopbackPair pair;
        std::atomic<int64_t> received{0};
        if (!pair.Ok()) {
            return;
        }
        aLoop.Adopt(pair.Server(), false, &received);
        std::vector<char> chunk(kStreamChunk, 'x');
        const int64_t t0 = NowNs();
        bool ok = true;
        for (int64_t sent = 0; sent < kStreamBytes && ok; sent += kStreamChunk) {
            ok = pair.SendAll(chunk.data(), chunk.size());
        }
        if (ok) {
            WaitAtLeast(received, kStreamBytes);
            Report(aLib, "tcp.stream",
                   static_cast<double>(kStreamBytes) / (static_cast<double>(NowNs() - t0) * 1e-9) *
                       1e-9);
        }
        aLoop.Drop();
    }
}

// Every loop row with the loop's own rows prefixed by aPrefix.
template <class Loop>
void LoopRows(const char* aLib, const std::string& aPrefix, Loop& aLoop) {
    PostThroughput(aLib, aPrefix, aLoop, 1);
    PostThroughput(aLib, aPrefix, aLoop, 2);
    SendRoundTrip(aLib, aPrefix, aLoop);
    IdleWake(aLib, aPrefix, aLoop);
}

// Times aRounds calls of aFn (ns per call, CPU time of this thread).
template <class Fn>
double NsPerCall(int aRounds, Fn&& aFn) {
    const int64_t t0 = ThreadCpuNs();
    for (int i = 0; i < aRounds; ++i) {
        aFn();
    }
    return static_cast<double>(ThreadCpuNs() - t0) / aRounds;
}

// Keeps the compiler from dropping work whose result is otherwise unused.
template <class T>
inline void Keep(T const& aValue) {
    asm volatile("" : : "r,m"(aValue) : "memory");
}

}  // namespace cmp

#endif  // KVT_BENCH_COMPARE_H
