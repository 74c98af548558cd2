// Allocation failures: this program replaces operator new so that the n-th
// allocation a thread makes inside an armed window fails, and sweeps n over
// every allocation of a scenario. Each failure must give the out-of-memory
// result (or a described refusal), release what was handed over, and leave
// nothing behind; the ASan flavour's leak check covers what the plain build
// cannot see.
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "rtdnsmanager.h"
#include "rtosnet.h"
#include "stress/stress_common.h"

namespace {

// Per thread, so that a sweep is deterministic whatever other threads do.
thread_local bool t_armed = false;
thread_local long t_countdown = 0;
std::atomic<long> g_live{0};  // blocks from operator new not yet deleted

void* Allocate(std::size_t aSize) noexcept {
    if (t_armed && t_countdown > 0 && --t_countdown == 0) {
        return nullptr;
    }
    void* p = std::malloc(aSize ? aSize : 1);
    if (p) {
        g_live.fetch_add(1, std::memory_order_relaxed);
    }
    return p;
}

// Out of line, so that the compiler does not pair the free with a new.
[[gnu::noinline]] void Release(void* aPtr) noexcept {
    if (aPtr) {
        g_live.fetch_sub(1, std::memory_order_relaxed);
        std::free(aPtr);
    }
}

}  // namespace

void* operator new(std::size_t aSize) {
    if (void* p = Allocate(aSize)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t aSize) {
    return operator new(aSize);
}
void* operator new(std::size_t aSize, const std::nothrow_t&) noexcept {
    return Allocate(aSize);
}
void* operator new[](std::size_t aSize, const std::nothrow_t&) noexcept {
    return Allocate(aSize);
}
void operator delete(void* aPtr) noexcept {
    Release(aPtr);
}
void operator delete[](void* aPtr) noexcept {
    Release(aPtr);
}
void operator delete(void* aPtr, std::size_t) noexcept {
    Release(aPtr);
}
void operator delete[](void* aPtr, std::size_t) noexcept {
    Release(aPtr);
}
void operator delete(void* aPtr, const std::nothrow_t&) noexcept {
    Release(aPtr);
}
void operator delete[](void* aPtr, const std::nothrow_t&) noexcept {
    Release(aPtr);
}

namespace {

// Fails the n-th allocation this thread makes inside Armed; construct and use
// it on the thread whose allocations are to fail.
class FailNth {
public:
    explicit FailNth(long aN) { t_countdown = aN; }
    ~FailNth() {
        t_armed = false;
        t_countdown = 0;
    }
    template <class F>
    void Armed(F aFn) {
        t_armed = true;
        try {
            aFn();
        } catch (const std::bad_alloc&) {
            ADD_FAILURE() << "an allocation failure escaped from the library as an exception";
        }
        t_armed = false;
    }
    bool Injected() const { return t_countdown == 0; }
};

// Runs aScenario(n) for n = 1, 2, ... until a run no longer reaches its n-th
// allocation; returns how many runs had one fail.
template <class F>
long Sweep(F aScenario) {
    long n = 1;
    while (aScenario(n) && !::testing::Test::HasFailure()) {
        ++n;
    }
    return n - 1;
}

// Counts its run and its release; made before a window is armed.
class ProbeEvent : public IRtEvent {
public:
    ProbeEvent(std::atomic<int>* aFired, std::atomic<int>* aReleased)
        : m_fired(aFired), m_released(aReleased) {}
    int OnEventFire() override { return ++*m_fired, 5; }
    void OnDestorySelf() override {
        ++*m_released;
        delete this;
    }

private:
    std::atomic<int>* m_fired;
    std::atomic<int>* m_released;
};

class CountingTimer : public IRtTimerHandler, public CRtTimerWrapperSink {
public:
    void OnTimeout(const CRtTimeValue&, void*) override { ++fired; }
    void OnTimer(CRtTimerWrapper*) override { ++fired; }
    int fired = 0;
};

class AllocFaults : public ::testing::TestWithParam<Owner> {
protected:
    void SetUp() override { ASSERT_TRUE(CRtThreadManager::Instance()); }
};

std::string OwnerParamName(const ::testing::TestParamInfo<Owner>& aInfo) {
    return OwnerName(aInfo.param);
}

}  // namespace

// Enough posts that the queue needs storage of its own for them.
TEST_P(AllocFaults, PostingRefusesOrDeliversEveryEvent) {
    OwnerThread owner(GetParam());
    ASSERT_TRUE(owner.Get());
    const int kEvents = 200;
    long injected = Sweep([&](long aN) {
        std::vector<std::atomic<int>> fired(kEvents), released(kEvents);
        std::vector<ProbeEvent*> events;
        for (int i = 0; i < kEvents; ++i) {
            events.push_back(new ProbeEvent(&fired[i], &released[i]));
        }
        std::vector<int> rv(kEvents, -1);
        // The owner is held, so that the posts pile up.
        std::atomic<bool> letGo{false};
        owner.Queue()->PostEvent(new FnEvent([&] {
            while (!letGo) {
                std::this_thread::yield();
            }
            return RT_OK;
        }));
        FailNth fail(aN);
        fail.Armed([&] {
            for (int i = 0; i < kEvents; ++i) {
                rv[i] = owner.Queue()->PostEvent(events[i]);
            }
        });
        letGo = true;
        EXPECT_EQ(owner.Queue()->SendEvent(new FnEvent([] { return RT_OK; })), RT_OK);
        for (int i = 0; i < kEvents; ++i) {
            EXPECT_TRUE(rv[i] == RT_OK || rv[i] == RT_ERROR_OUT_OF_MEMORY)
                << "n=" << aN << " event " << i << " rv=" << rv[i];
            EXPECT_EQ(fired[i].load(), rv[i] == RT_OK ? 1 : 0) << "n=" << aN << " event " << i;
            EXPECT_EQ(released[i].load(), 1) << "n=" << aN << " event " << i;
        }
        return fail.Injected();
    });
    Figure("posting_failures_injected", injected);
}

// A send whose wrapper cannot make its kernel event must not run the event.
TEST_P(AllocFaults, PostingAndSendingRefuseOrDeliverEveryEvent) {
    OwnerThread owner(GetParam());
    ASSERT_TRUE(owner.Get());
    const int kEvents = 4;  // three posts, then a send
    long injected = Sweep([&](long aN) {
        std::atomic<int> fired[kEvents], released[kEvents];
        ProbeEvent* events[kEvents];
        for (int i = 0; i < kEvents; ++i) {
            fired[i] = released[i] = 0;
            events[i] = new ProbeEvent(&fired[i], &released[i]);
        }
        int rv[kEvents];
        FailNth fail(aN);
        fail.Armed([&] {
            for (int i = 0; i < kEvents - 1; ++i) {
                rv[i] = owner.Queue()->PostEvent(events[i]);
            }
            rv[kEvents - 1] = owner.Queue()->SendEvent(events[kEvents - 1]);
        });
        // Unarmed: an event behind them all shows that the accepted ones ran.
        std::atomic<int> behind{0};
        EXPECT_EQ(owner.Queue()->PostEvent(new FnEvent([&] { return ++behind, RT_OK; })), RT_OK);
        EXPECT_TRUE(WaitUntil([&] { return behind.load() == 1; }))
            << "an accepted event is stuck, n=" << aN;
        for (int i = 0; i < kEvents; ++i) {
            int ok = i == kEvents - 1 ? 5 : RT_OK;
            EXPECT_TRUE(rv[i] == ok || rv[i] == RT_ERROR_OUT_OF_MEMORY)
                << "n=" << aN << " event " << i << " rv=" << rv[i];
            EXPECT_EQ(fired[i].load(), rv[i] == ok ? 1 : 0) << "n=" << aN << " event " << i;
            EXPECT_EQ(released[i].load(), 1) << "n=" << aN << " event " << i;
        }
        return fail.Injected();
    });
    Figure("posting_failures_injected", injected);
}

TEST_P(AllocFaults, SchedulingATimerFailsCleanlyOrFiresOnce) {
    if (GetParam() == Owner::Task) {
        GTEST_SKIP() << "no timer queue";
    }
    OwnerThread owner(GetParam());
    ASSERT_TRUE(owner.Get());
    long injected = Sweep([&](long aN) {
        CountingTimer plain, wrapped;
        CRtTimerWrapper wrapper;
        int rvPlain = -1, rvWrapped = -1;
        bool hit = false;
        RunOn(owner.Get(), [&] {
            FailNth fail(aN);
            fail.Armed([&] {
                rvPlain = owner.Get()->GetTimerQueue()->ScheduleTimer(&plain, nullptr, Ms(1), 1);
                rvWrapped = wrapper.Schedule(&wrapped, Ms(1), 1);
            });
            hit = fail.Injected();
        });
        EXPECT_TRUE(rvPlain == RT_OK || rvPlain == RT_ERROR_OUT_OF_MEMORY) << "rv=" << rvPlain;
        EXPECT_TRUE(rvWrapped == RT_OK || rvWrapped == RT_ERROR_OUT_OF_MEMORY)
            << "rv=" << rvWrapped;
        int want = (rvPlain == RT_OK) + (rvWrapped == RT_OK);
        EXPECT_TRUE(WaitUntil([&] {
            int got = 0;
            RunOn(owner.Get(), [&] { got = plain.fired + wrapped.fired; });
            return got >= want;
        }));
        // Past the due time by far: nothing more may come.
        CRtThreadManager::SleepMs(5);
        RunOn(owner.Get(), [&] {
            EXPECT_EQ(plain.fired, rvPlain == RT_OK ? 1 : 0) << "n=" << aN;
            EXPECT_EQ(wrapped.fired, rvWrapped == RT_OK ? 1 : 0) << "n=" << aN;
            wrapper.Cancel();
        });
        return hit;
    });
    Figure("timer_failures_injected", injected);
}

// A thread object's members allocate in their constructors too.
TEST_P(AllocFaults, CreatingAThreadFailsCleanlyOrGivesAWorkingThread) {
    long injected = Sweep([&](long aN) {
        CRtThreadManager* mgr = CRtThreadManager::Instance();
        CRtThread* thread = nullptr;
        int rv = RT_ERROR_FAILURE;
        int type = mgr->GetAndIncreamUserType();
        FailNth fail(aN);
        fail.Armed([&] {
            if (GetParam() == Owner::Reactor) {
                IRtReactor* reactor = CRtThreadManager::CreateNetworkReactor();
                rv = reactor ? mgr->CreateReactorThread(type, reactor, thread)
                             : RT_ERROR_OUT_OF_MEMORY;
            } else {
                rv = mgr->CreateUserTaskThread(thread, CRtThreadManager::TF_JOINABLE,
                                               GetParam() == Owner::TimerTask);
            }
        });
        bool hit = fail.Injected();
        if (rv == RT_OK) {
            EXPECT_EQ(thread->GetEventQueue()->SendEvent(new FnEvent([] { return 9; })), 9);
            StopJoinDestroy(thread);
        } else {
            // A start that fails in the system is RT_ERROR_UNEXPECTED.
            EXPECT_TRUE(rv == RT_ERROR_OUT_OF_MEMORY || rv == RT_ERROR_UNEXPECTED)
                << "n=" << aN << " rv=" << rv;
            EXPECT_EQ(thread, nullptr);
        }
        return hit;
    });
    Figure("thread_creation_failures_injected", injected);
}

INSTANTIATE_TEST_SUITE_P(Owners, AllocFaults,
                         ::testing::Values(Owner::Task, Owner::TimerTask, Owner::Reactor),
                         OwnerParamName);

namespace {

std::string Text(CRtMessageBlock* aChain) {
    std::string text(aChain->GetChainedLength(), '\0');
    aChain->Read(&text[0], static_cast<unsigned long>(text.size()), nullptr, FALSE);
    return text;
}

}  // namespace

TEST(AllocFaultsMessageBlock, DuplicatingAndSplittingGiveACopyOrNothingAndLeakNothing) {
    char caller[] = "caller memory";
    long injected = Sweep([&](long aN) {
        // A chain of a data block, caller memory (copied when duplicated) and
        // a second data block.
        auto* head = new CRtMessageBlock(16);
        head->Write("first block ", 12);
        auto* middle = new CRtMessageBlock(sizeof(caller) - 1, caller, 0, sizeof(caller) - 1);
        auto* tail = new CRtMessageBlock(8);
        tail->Write(" tail", 5);
        head->Append(middle);
        middle->Append(tail);
        const std::string whole = "first block caller memory tail";
        long before = g_live.load();

        CRtMessageBlock* dupChain = nullptr;
        CRtMessageBlock* dupTop = nullptr;
        CRtMessageBlock* rest = nullptr;
        FailNth fail(aN);
        fail.Armed([&] {
            dupChain = head->DuplicateChained();
            dupTop = middle->DuplicateTopLevel();
            rest = dupChain ? dupChain->Disjoint(20) : nullptr;  // inside the middle block
        });
        if (dupChain) {
            // A failed split leaves the duplicate whole.
            EXPECT_EQ(Text(dupChain), rest ? whole.substr(0, 20) : whole) << "n=" << aN;
            dupChain->DestroyChained();
        }
        if (rest) {
            EXPECT_EQ(Text(rest), whole.substr(20)) << "n=" << aN;
            rest->DestroyChained();
        }
        if (dupTop) {
            EXPECT_EQ(std::string(dupTop->GetTopLevelReadPtr(), dupTop->GetTopLevelLength()),
                      "caller memory");
            dupTop->DestroyChained();
        }
        EXPECT_EQ(g_live.load(), before) << "a failed duplication left blocks behind, n=" << aN;
        delete head;
        delete middle;
        delete tail;
        return fail.Injected();
    });
    Figure("duplication_failures_injected", injected);
}

namespace {

// Answers every name at once with 10.0.0.1, so the sweep sees the manager's
// own allocations and no network.
int InstantLookup(const char* aName, rtos::HostInfo& aOut) {
    aOut.name = aName;
    aOut.addrs.push_back(htonl(0x0A000001u));
    return 0;
}

class OnceObserver : public IRtObserver {
public:
    void OnObserve(const char*, void* aData) override {
        error = *static_cast<int*>(aData);
        ++calls;
    }
    std::atomic<int> calls{0};
    std::atomic<int> error{-1};
};

}  // namespace

// Window mode, through the process's own thread manager: each run looks a
// fresh name up, so that nothing comes from the cache. The observer listens on
// this (the main) thread, so its answer comes through the main loop. The two
// calls are swept apart: an asynchronous lookup still in flight changes how
// much the next run allocates, and would end a joint sweep early.
TEST(AllocFaultsDns, ResolvingGivesARecordOrOutOfMemoryAndEveryObserverHearsOnce) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    rtos::SetHostLookup(&InstantLookup);
    CRtDnsManager* dns = CRtDnsManager::Instance();
    ASSERT_TRUE(dns);
    long injected = Sweep([&](long aN) {
        const CRtString name = "a" + std::to_string(aN) + ".test";
        OnceObserver observer;
        CRtDnsRecord* record = nullptr;
        int rv = -1;
        FailNth fail(aN);
        fail.Armed([&] { rv = dns->AsyncResolve(record, name, &observer); });
        // A request the platform has no memory to start is a lookup that could
        // not be started: RT_ERROR_FAILURE.
        EXPECT_TRUE(rv == RT_ERROR_WOULD_BLOCK || rv == RT_ERROR_OUT_OF_MEMORY ||
                    rv == RT_ERROR_FAILURE)
            << "n=" << aN << " rv=" << rv;
        EXPECT_FALSE(record);
        if (rv == RT_ERROR_WOULD_BLOCK) {
            EXPECT_TRUE(WaitUntil([&] {
                RtProcessMainLoopPending();
                return observer.calls.load() > 0;
            })) << "n="
                << aN;
        } else {
            EXPECT_EQ(dns->CancelResolve(&observer), RT_ERROR_NOT_FOUND) << "n=" << aN;
        }
        CRtThreadManager::SleepMs(2);  // a second call would come now
        RtProcessMainLoopPending();
        EXPECT_LE(observer.calls.load(), 1) << "n=" << aN;
        return fail.Injected();
    });
    injected += Sweep([&](long aN) {
        const CRtString name = "s" + std::to_string(aN) + ".test";
        CRtDnsRecord* record = nullptr;
        int rv = -1;
        FailNth fail(aN);
        fail.Armed([&] { rv = dns->SyncResolve(record, name); });
        // A lookup that ran out of memory is a failed lookup.
        EXPECT_TRUE(rv == RT_OK || rv == RT_ERROR_OUT_OF_MEMORY ||
                    rv == RT_ERROR_NETWORK_DNS_FAILURE)
            << "n=" << aN << " rv=" << rv;
        if (rv == RT_OK) {
            EXPECT_TRUE(record && *record->begin() == htonl(0x0A000001u)) << "n=" << aN;
            record->ReleaseReference();
        } else {
            EXPECT_FALSE(record);
        }
        return fail.Injected();
    });
    injected += Sweep([&](long aN) {
        const CRtString name = "r" + std::to_string(aN) + ".test";
        int rv = -1;
        FailNth fail(aN);
        fail.Armed([&] { rv = dns->RefreshHost(name); });
        EXPECT_TRUE(rv == RT_ERROR_WOULD_BLOCK || rv == RT_ERROR_OUT_OF_MEMORY ||
                    rv == RT_ERROR_FAILURE)
            << "n=" << aN << " rv=" << rv;
        return fail.Injected();
    });
    rtos::SetHostLookup(nullptr);
    Figure("dns_failures_injected", injected);
}
