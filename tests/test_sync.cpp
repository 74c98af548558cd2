// Locks, semaphores, the condition variable and kernel events, with real threads.
// Lost wake-ups under load are left to stress_events: its queues wait on the
// condition variable and its sends on kernel events.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "rtconditionvariable.h"
#include "rtdebug.h"
#include "rtos.h"
#include "rttimevalue.h"
#include "platform_errors.h"
#include "trace_capture.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point aStart) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - aStart).count();
}

// Runs aFn on a thread of its own and returns its result.
int OnOtherThread(std::function<int()> aFn) {
    return std::async(std::launch::async, aFn).get();
}

void JoinAll(std::vector<std::thread>& aThreads) {
    for (std::thread& th : aThreads) {
        th.join();
    }
}

// Starts aCount threads that wait on aEvent and count their wake-ups, and
// returns once all are queued, so a pulse or a signal reaches them rather than
// racing their arrival. A generous limit turns a lost wake-up into a failure.
std::vector<std::thread> StartWaiters(CRtEventThread& aEvent, int aCount, std::atomic<int>& aWoke) {
    std::vector<std::thread> waiters;
    for (int i = 0; i < aCount; ++i) {
        waiters.emplace_back([&] {
            CRtTimeValue limit(30L, 0L);
            EXPECT_EQ(aEvent.Wait(&limit), RT_OK);
            ++aWoke;
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return rtos::EventWaiterCount(aEvent.GetHandle()) == aCount; }));
    return waiters;
}

}  // namespace

// ---- Locks ------------------------------------------------------------------

template <class Mutex>
class LockTest : public ::testing::Test {};
using LockTypes = ::testing::Types<CRtMutexThread, CRtMutexThreadRecursive>;
TYPED_TEST_SUITE(LockTest, LockTypes);

// Whether another thread can take aMutex now; releases it again if so.
template <class Mutex>
bool OthersCanTake(Mutex& aMutex) {
    return OnOtherThread([&] {
               int rv = aMutex.TryLock();
               if (RT_SUCCEEDED(rv)) {
                   aMutex.UnLock();
               }
               return rv;
           }) == RT_OK;
}

TYPED_TEST(LockTest, TryLockReentersForTheHolderOnlyAndAGuardReleasesOnce) {
    TypeParam mutex;
    ASSERT_EQ(mutex.Lock(), RT_OK);
    EXPECT_EQ(OnOtherThread([&] { return mutex.TryLock(); }), RT_ERROR_FAILURE);
    EXPECT_EQ(mutex.TryLock(), RT_OK);  // re-entry
    EXPECT_EQ(mutex.UnLock(), RT_OK);
    EXPECT_FALSE(OthersCanTake(mutex));  // held as often as taken
    {
        CRtMutexGuardT<TypeParam> guard(mutex);  // inside the outer hold
        EXPECT_EQ(guard.UnLock(), RT_OK);
        EXPECT_EQ(guard.UnLock(), RT_OK);  // no second release
    }
    EXPECT_FALSE(OthersCanTake(mutex));
    EXPECT_EQ(mutex.UnLock(), RT_OK);
    EXPECT_TRUE(OthersCanTake(mutex));
    {
        CRtMutexGuardT<TypeParam> guard(mutex);
        EXPECT_FALSE(OthersCanTake(mutex));
    }
    EXPECT_TRUE(OthersCanTake(mutex));
}

TYPED_TEST(LockTest, GuardsExcludeEachOther) {
    TypeParam mutex;
    long counter = 0;  // deliberately not atomic
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                CRtMutexGuardT<TypeParam> guard(mutex);
                ++counter;
            }
        });
    }
    JoinAll(threads);
    EXPECT_EQ(counter, 80000);
}

// ---- CRtSemaphore -----------------------------------------------------------

TEST(Semaphore, LockWaitsForACountAndUnLockOfNWakesN) {
    CRtSemaphore sem(2, nullptr, 5);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitTimeout);

    std::vector<std::thread> waiters;
    std::atomic<int> woke{0};
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(sem.Lock(), RT_OK);
            ++woke;
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(woke, 0);
    EXPECT_EQ(sem.UnLock(3), RT_OK);
    JoinAll(waiters);
    EXPECT_EQ(woke, 3);
    EXPECT_EQ(sem.UnLock(), RT_OK);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitSignalled);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitTimeout);
}

// Releases past the maximum, or of nothing, fail and add nothing.
TEST(Semaphore, ReleasePastTheMaximumOrOfZeroFails) {
    TraceCapture capture;
    CRtSemaphore sem(0, nullptr, 2);
    EXPECT_EQ(sem.UnLock(3), RT_ERROR_FAILURE);
    EXPECT_EQ(
        1u, TraceCapture::TakeCount("Error:CRtSemaphore::UnLock, ReleaseSemaphore() failed! err=" +
                                    std::to_string(kErrTooManyPosts) + "\n"));
    EXPECT_EQ(sem.UnLock(0), RT_ERROR_FAILURE);
    std::vector<std::string> lines = TraceCapture::Take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("] Error:"), std::string::npos);
    EXPECT_NE(lines[0].find(" Assert failed: aCount >= 1\n"), std::string::npos);
    EXPECT_NE(lines[1].find("Error:CRtSemaphore::UnLock, ReleaseSemaphore() failed! err="),
              std::string::npos);

    EXPECT_EQ(sem.UnLock(2), RT_OK);
    EXPECT_EQ(sem.UnLock(), RT_ERROR_FAILURE);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitTimeout);
}

TEST(Semaphore, FailedCreationIsTracedAndEveryUseFails) {
    TraceCapture capture;
    CRtSemaphore sem(5, nullptr, 2);  // initial count above the maximum
    std::vector<std::string> lines = TraceCapture::Take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("Error:CRtSemaphore::CRtSemaphore, CreateSemaphoreA() failed! err=" +
                            std::to_string(kErrBadArgument) + "\n"),
              std::string::npos);
    EXPECT_NE(lines[1].find(" Assert failed: FALSE\n"), std::string::npos);
    EXPECT_EQ(sem.GetHandle(), nullptr);

    EXPECT_EQ(sem.Lock(), RT_ERROR_FAILURE);
    EXPECT_EQ(1u,
              TraceCapture::TakeCount(
                  "Error:CRtSemaphore::Lock, WaitForSingleObject() failed! dwRet=4294967295 err="));
    EXPECT_EQ(sem.UnLock(), RT_ERROR_FAILURE);
}

// ---- CRtConditionVariableThread ---------------------------------------------

// A signal wakes a waiter only: the condition queue's wait shows that.
TEST(ConditionVariable, SignalIsLostWithoutAWaiterAndBroadcastWakesEveryWaiter) {
    CRtMutexThread mutex;
    CRtConditionVariableThread cond(mutex);
    cond.Signal();
    mutex.Lock();
    CRtTimeValue limit(0L, 50000L);
    EXPECT_EQ(cond.Wait(&limit), RT_ERROR_TIMEOUT);
    mutex.UnLock();

    const int kWaiters = 3;
    int entered = 0;  // guarded by mutex
    std::atomic<int> woke{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&] {
            CRtMutexGuardT<CRtMutexThread> guard(mutex);
            ++entered;
            // A generous limit turns a lost wake-up into a failure, not a hang.
            CRtTimeValue limit(30L, 0L);
            EXPECT_EQ(cond.Wait(&limit), RT_OK);
            ++woke;
        });
    }
    // A waiter counted under the lock is inside Wait once the lock is free.
    ASSERT_TRUE(WaitUntil([&] {
        CRtMutexGuardT<CRtMutexThread> guard(mutex);
        return entered == kWaiters;
    }));

    // The broadcaster may hold the lock: the waiters report before retaking it.
    mutex.Lock();
    EXPECT_EQ(cond.Broadcast(), RT_OK);
    EXPECT_EQ(woke, 0);
    mutex.UnLock();
    JoinAll(waiters);
    EXPECT_EQ(woke, kWaiters);

    // With nobody waiting it returns at once.
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(cond.Broadcast(), RT_OK);
    EXPECT_LT(MsSince(start), 5000);
}

// ---- Timed waits -------------------------------------------------------------

// Zero and negative limits check once; the condition variable's waiter holds
// its lock again after a time-out.
TEST(TimedWait, ZeroNegativeAndShortLimitsTimeOutWithoutATrace) {
    CRtMutexThread mutex;
    CRtConditionVariableThread cond(mutex);
    CRtEventThread event;
    TraceCapture capture;
    const std::function<int(CRtTimeValue*)> kWaits[] = {
        [&](CRtTimeValue* aLimit) { return event.Wait(aLimit); },
        [&](CRtTimeValue* aLimit) { return cond.Wait(aLimit); },
    };
    mutex.Lock();
    for (const auto& wait : kWaits) {
        for (CRtTimeValue limit :
             {CRtTimeValue(), CRtTimeValue(-1L, 0L), CRtTimeValue(0L, -500000L)}) {
            EXPECT_EQ(wait(&limit), RT_ERROR_TIMEOUT);
        }
        CRtTimeValue limit(0L, 100000L);
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(wait(&limit), RT_ERROR_TIMEOUT);
        EXPECT_GE(MsSince(start), 90);
    }
    EXPECT_EQ(OnOtherThread([&] { return mutex.TryLock(); }), RT_ERROR_FAILURE);
    mutex.UnLock();
    EXPECT_TRUE(TraceCapture::Take().empty()) << "a time-out is not a failure";
}

// ---- CRtEventThread ---------------------------------------------------------

// A signal stays set on a manual event only; a pulse never stays set.
TEST(Event, SignalAndPulseWakeOneWaiterOfAnAutoEventAndEveryWaiterOfAManualOne) {
    const struct {
        int manual;
        bool pulse;
        int woken;
        int nextWait;
    } kCases[] = {
        {0, false, 1, RT_ERROR_TIMEOUT},
        {0, true, 1, RT_ERROR_TIMEOUT},
        {1, false, 2, RT_OK},
        {1, true, 2, RT_ERROR_TIMEOUT},
    };
    CRtTimeValue zero;
    for (const auto& c : kCases) {
        SCOPED_TRACE(::testing::Message() << "manual " << c.manual << " pulse " << c.pulse);
        CRtEventThread event(c.manual, 0, nullptr);
        std::atomic<int> woke{0};
        std::vector<std::thread> waiters = StartWaiters(event, 2, woke);
        EXPECT_EQ(c.pulse ? event.Pulse() : event.Signal(), RT_OK);
        ASSERT_TRUE(WaitUntil([&] { return woke == c.woken; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(woke, c.woken);
        EXPECT_EQ(rtos::EventWaiterCount(event.GetHandle()), 2 - c.woken);
        EXPECT_EQ(event.Wait(&zero), c.nextWait);
        EXPECT_EQ(event.Wait(&zero), c.nextWait);
        event.Signal();  // lets a waiter left behind go
        JoinAll(waiters);
    }
}

TEST(Event, AnAutoEventKeepsOneSignalForTheNextWaitAndLosesAPulse) {
    CRtEventThread event;
    CRtTimeValue zero;
    std::atomic<int> woke{0};
    std::vector<std::thread> waiters = StartWaiters(event, 2, woke);
    event.Signal();  // two quick signals release two queued waiters
    event.Signal();
    JoinAll(waiters);

    EXPECT_EQ(event.Signal(), RT_OK);
    EXPECT_EQ(event.Signal(), RT_OK);
    EXPECT_EQ(event.Wait(&zero), RT_OK);
    EXPECT_EQ(event.Wait(&zero), RT_ERROR_TIMEOUT);
    EXPECT_EQ(event.Pulse(), RT_OK);
    EXPECT_EQ(event.Wait(&zero), RT_ERROR_TIMEOUT);

    CRtEventThread initiallySignalled(0, 1, nullptr);
    EXPECT_EQ(initiallySignalled.Wait(&zero), RT_OK);
    EXPECT_EQ(initiallySignalled.Wait(&zero), RT_ERROR_TIMEOUT);
}
