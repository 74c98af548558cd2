// The DNS manager shut down under a thousand pending lookups: observers
// registered from a task thread hear nothing once the library is gone, and
// the ASan flavour's leak check covers every record, request and observer
// entry left behind. Lookups go through a made-up, slow resolver.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rtdnsmanager.h"
#include "rtosfile.h"
#include "rtosnet.h"
#include "stress/stress_common.h"

namespace {

// Every lookup takes a millisecond; those past the first kFree wait for the
// gate, so that most of the queue is still pending at shutdown. Never
// destroyed: lookup threads may come back after the test.
class SlowResolver {
public:
    static constexpr int kFree = 20;

    static SlowResolver& Get() {
        static SlowResolver* s_resolver = new SlowResolver;
        return *s_resolver;
    }
    static int Lookup(const char* aName, rtos::HostInfo& aOut) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        Get().Wait();
        aOut.name = aName;
        aOut.addrs.push_back(htonl(0x0A000001u));
        return 0;
    }
    void Open() {
        std::lock_guard<std::mutex> lock(m_lock);
        m_open = true;
        m_cond.notify_all();
    }

private:
    void Wait() {
        std::unique_lock<std::mutex> lock(m_lock);
        if (++m_calls > kFree) {
            m_cond.wait(lock, [&] { return m_open; });
        }
    }

    std::mutex m_lock;
    std::condition_variable m_cond;
    int m_calls = 0;
    bool m_open = false;
};

// Counts its calls, and those that came after the library was shut down.
class CountingObserver : public IRtObserver {
public:
    explicit CountingObserver(const std::atomic<bool>* aShutDown) : m_shutDown(aShutDown) {}
    void OnObserve(const char*, void*) override {
        ++calls;
        if (m_shutDown->load()) {
            ++late;
        }
    }
    std::atomic<int> calls{0};
    std::atomic<int> late{0};

private:
    const std::atomic<bool>* m_shutDown;
};

enum class Mode { kWindow, kThread };

class DnsStress : public ::testing::TestWithParam<Mode> {};

}  // namespace

TEST_P(DnsStress, ShutdownWithAThousandLookupsPendingCallsNoObserverAfterwards) {
    const int kLookups = static_cast<int>(StressCount(1000));
    rtos::SetHostLookup(&SlowResolver::Lookup);
    rtos::SetEnv("KVTIX_DNS_THREAD_MODE", GetParam() == Mode::kThread ? "1" : nullptr);
    auto* threads = new CRtThreadManager;
    ASSERT_EQ(threads->InitMainThread(0, nullptr), RT_OK);
    CRtThread* listener = nullptr;
    ASSERT_EQ(threads->CreateUserTaskThread(listener, CRtThreadManager::TF_JOINABLE, 0), RT_OK);
    CRtDnsManager* dns = CRtDnsManager::Instance();
    ASSERT_TRUE(dns);

    std::atomic<bool> shutDown{false};
    std::vector<std::unique_ptr<CountingObserver>> observers;
    for (int i = 0; i < kLookups; ++i) {
        observers.emplace_back(new CountingObserver(&shutDown));
    }
    // Registered on the task thread, which is then where they are called.
    int blocked = 0;
    RunOn(listener, [&] {
        for (int i = 0; i < kLookups; ++i) {
            CRtDnsRecord* record = nullptr;
            int rv =
                dns->AsyncResolve(record, "h" + std::to_string(i) + ".test", observers[i].get());
            EXPECT_EQ(rv, RT_ERROR_WOULD_BLOCK) << "lookup " << i;
            EXPECT_FALSE(record);
            blocked += rv == RT_ERROR_WOULD_BLOCK;
        }
    });
    auto heard = [&] {
        int n = 0;
        for (auto& o : observers) {
            n += o->calls.load();
        }
        return n;
    };
    // Some answers arrive; the rest of the queue waits behind the gate.
    ASSERT_TRUE(WaitUntil([&] { return heard() >= SlowResolver::kFree / 2; }));

    delete threads;  // stops every thread, then the DNS manager
    shutDown = true;
    const int heardBefore = heard();
    SlowResolver::Get().Open();
    // Lookups still under way come back now; give them time to misbehave.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    rtos::SetHostLookup(nullptr);

    int late = 0, twice = 0;
    for (auto& o : observers) {
        late += o->late.load();
        twice += o->calls.load() > 1;
    }
    EXPECT_EQ(late, 0) << "observers called after shutdown";
    EXPECT_EQ(twice, 0) << "observers called more than once";
    EXPECT_EQ(blocked, kLookups);
    EXPECT_LE(heardBefore, SlowResolver::kFree);
    Figure("lookups_pending_at_shutdown", kLookups - heardBefore);
}

INSTANTIATE_TEST_SUITE_P(BothModes, DnsStress, ::testing::Values(Mode::kWindow, Mode::kThread),
                         [](const ::testing::TestParamInfo<Mode>& aInfo) {
                             return aInfo.param == Mode::kWindow ? "Window" : "Thread";
                         });
