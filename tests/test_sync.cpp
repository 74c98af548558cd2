// Locks, semaphores, the condition variable and kernel events, with real threads.
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

TYPED_TEST(LockTest, TryLockFailsAtOnceForOthersAndReentersForTheHolder) {
    TypeParam mutex;
    ASSERT_EQ(mutex.Lock(), RT_OK);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(OnOtherThread([&] { return mutex.TryLock(); }), RT_ERROR_FAILURE);
    EXPECT_LT(MsSince(start), 10000);

    EXPECT_EQ(mutex.TryLock(), RT_OK);  // re-entry
    EXPECT_EQ(mutex.UnLock(), RT_OK);
    // Still held once: the holder must release as often as it took it.
    EXPECT_EQ(OnOtherThread([&] { return mutex.TryLock(); }), RT_ERROR_FAILURE);
    EXPECT_EQ(mutex.UnLock(), RT_OK);

    EXPECT_TRUE(OthersCanTake(mutex));
}

TYPED_TEST(LockTest, GuardReleasesOnceEvenAfterAnExplicitUnLock) {
    TypeParam mutex;
    mutex.Lock();  // an outer hold the guard must not release
    {
        CRtMutexGuardT<TypeParam> guard(mutex);
        EXPECT_FALSE(OthersCanTake(mutex));
        EXPECT_EQ(guard.UnLock(), RT_OK);
        EXPECT_EQ(guard.UnLock(), RT_OK);  // no second release
    }
    EXPECT_FALSE(OthersCanTake(mutex));
    mutex.UnLock();
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

TEST(Semaphore, CountsAreTakenAndReleased) {
    CRtSemaphore sem(2, nullptr, 5);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitTimeout);

    // A third Lock blocks until another thread releases.
    std::atomic<bool> taken{false};
    std::thread waiter([&] {
        EXPECT_EQ(sem.Lock(), RT_OK);
        taken = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(taken);
    EXPECT_EQ(sem.UnLock(), RT_OK);
    waiter.join();
    EXPECT_TRUE(taken);

    // One UnLock(n) wakes n waiters.
    std::vector<std::thread> waiters;
    std::atomic<int> woke{0};
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(sem.Lock(), RT_OK);
            ++woke;
        });
    }
    EXPECT_EQ(sem.UnLock(3), RT_OK);
    JoinAll(waiters);
    EXPECT_EQ(woke, 3);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitTimeout);
}

TEST(Semaphore, ReleasePastTheMaximumFails) {
    TraceCapture capture;
    CRtSemaphore sem(0, nullptr, 2);
    EXPECT_EQ(sem.UnLock(3), RT_ERROR_FAILURE);
    EXPECT_EQ(
        1u, TraceCapture::TakeCount("Error:CRtSemaphore::UnLock, ReleaseSemaphore() failed! err=" +
                                    std::to_string(kErrTooManyPosts) + "\n"));
    EXPECT_EQ(sem.UnLock(2), RT_OK);
    EXPECT_EQ(sem.UnLock(), RT_ERROR_FAILURE);
    // The failed releases added nothing.
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(sem.Lock(), RT_OK);
    EXPECT_EQ(rtos::HandleWait(sem.GetHandle(), 0), rtos::kWaitTimeout);
}

TEST(Semaphore, UnLockOfZeroAssertsThenFails) {
    TraceCapture capture;
    CRtSemaphore sem;
    EXPECT_EQ(sem.UnLock(0), RT_ERROR_FAILURE);
    std::vector<std::string> lines = TraceCapture::Take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("] Error:"), std::string::npos);
    EXPECT_NE(lines[0].find(" Assert failed: aCount >= 1\n"), std::string::npos);
    EXPECT_NE(lines[1].find("Error:CRtSemaphore::UnLock, ReleaseSemaphore() failed! err="),
              std::string::npos);
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

TEST(ConditionVariable, WaitTimesOutWithTheLockHeldAgain) {
    CRtMutexThread mutex;
    CRtConditionVariableThread cond(mutex);
    TraceCapture capture;

    mutex.Lock();
    CRtTimeValue limit(0L, 100000L);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(cond.Wait(&limit), RT_ERROR_TIMEOUT);
    EXPECT_GE(MsSince(start), 90);
    EXPECT_EQ(OnOtherThread([&] { return mutex.TryLock(); }), RT_ERROR_FAILURE);

    // Negative and zero limits check once.
    CRtTimeValue negative(-1L, 0L), zero;
    EXPECT_EQ(cond.Wait(&negative), RT_ERROR_TIMEOUT);
    EXPECT_EQ(cond.Wait(&zero), RT_ERROR_TIMEOUT);
    mutex.UnLock();
    EXPECT_TRUE(TraceCapture::Take().empty()) << "a time-out is not a failure";
}

TEST(ConditionVariable, SignalWakesAWaiterAndIsLostWithoutOne) {
    CRtMutexThread mutex;
    CRtConditionVariableThread cond(mutex);
    cond.Signal();
    mutex.Lock();
    CRtTimeValue limit(0L, 50000L);
    EXPECT_EQ(cond.Wait(&limit), RT_ERROR_TIMEOUT);
    mutex.UnLock();

    bool ready = false;  // guarded by mutex
    bool waiting = false;

    std::thread waiter([&] {
        CRtMutexGuardT<CRtMutexThread> guard(mutex);
        waiting = true;
        while (!ready) {
            EXPECT_EQ(cond.Wait(nullptr), RT_OK);
        }
    });
    ASSERT_TRUE(WaitUntil([&] {
        CRtMutexGuardT<CRtMutexThread> guard(mutex);
        return waiting;
    }));
    {
        CRtMutexGuardT<CRtMutexThread> guard(mutex);
        ready = true;
    }
    cond.Signal();
    waiter.join();
}

TEST(ConditionVariable, BroadcastReturnsOnceEveryWaiterWoke) {
    CRtMutexThread mutex;
    CRtConditionVariableThread cond(mutex);
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

TEST(ConditionVariable, QueueOfProducersAndConsumersLosesNothing) {
    CRtMutexThread mutex;
    CRtConditionVariableThread cond(mutex);
    int items = 0;  // guarded by mutex
    int consumed = 0;
    const int kPerProducer = 2000;

    std::vector<std::thread> threads;
    for (int c = 0; c < 2; ++c) {
        threads.emplace_back([&] {
            CRtMutexGuardT<CRtMutexThread> guard(mutex);
            while (consumed < 2 * kPerProducer) {
                if (items == 0) {
                    CRtTimeValue limit(0L, 20000L);
                    cond.Wait(&limit);
                    continue;
                }
                --items;
                ++consumed;
            }
        });
    }
    for (int p = 0; p < 2; ++p) {
        threads.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i) {
                {
                    CRtMutexGuardT<CRtMutexThread> guard(mutex);
                    ++items;
                }
                cond.Signal();
            }
        });
    }
    JoinAll(threads);
    EXPECT_EQ(consumed, 2 * kPerProducer);
    EXPECT_EQ(items, 0);
}

// ---- CRtEventThread ---------------------------------------------------------

TEST(Event, TimeOutsOfZeroNegativeAndNull) {
    CRtEventThread event;
    TraceCapture capture;
    CRtTimeValue zero, negative(0L, -500000L);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(event.Wait(&zero), RT_ERROR_TIMEOUT);
    EXPECT_EQ(event.Wait(&negative), RT_ERROR_TIMEOUT);
    EXPECT_LT(MsSince(start), 5000);

    CRtTimeValue limit(0L, 100000L);
    start = Clock::now();
    EXPECT_EQ(event.Wait(&limit), RT_ERROR_TIMEOUT);
    EXPECT_GE(MsSince(start), 90);
    EXPECT_TRUE(TraceCapture::Take().empty()) << "a time-out is not a failure";

    // Null waits until signalled.
    std::thread signaller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(event.Signal(), RT_OK);
    });
    start = Clock::now();
    EXPECT_EQ(event.Wait(nullptr), RT_OK);
    EXPECT_GE(MsSince(start), 90);
    signaller.join();
}

TEST(Event, AutoResetReleasesExactlyOneWaiterPerSignalOrPulse) {
    CRtEventThread event;  // auto-reset, not signalled
    CRtTimeValue zero;
    for (bool pulse : {false, true}) {
        std::atomic<int> woke{0};
        std::vector<std::thread> waiters = StartWaiters(event, 2, woke);
        EXPECT_EQ(pulse ? event.Pulse() : event.Signal(), RT_OK);
        ASSERT_TRUE(WaitUntil([&] { return woke == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(woke, 1);
        EXPECT_EQ(rtos::EventWaiterCount(event.GetHandle()), 1);
        EXPECT_EQ(event.Wait(&zero), RT_ERROR_TIMEOUT) << "the wake-up was consumed";
        EXPECT_EQ(event.Signal(), RT_OK);
        JoinAll(waiters);
        EXPECT_EQ(woke, 2);
    }
    // Two quick signals release two queued waiters.
    std::atomic<int> woke{0};
    std::vector<std::thread> waiters = StartWaiters(event, 2, woke);
    event.Signal();
    event.Signal();
    JoinAll(waiters);

    // Signalled with nobody waiting: the next wait takes it, the one after not;
    // a pulse with nobody waiting is lost.
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

TEST(Event, ManualResetReleasesEveryone) {
    CRtTimeValue zero;
    for (bool pulse : {false, true}) {
        CRtEventThread event(1, 0, nullptr);
        std::atomic<int> woke{0};
        std::vector<std::thread> waiters = StartWaiters(event, 3, woke);
        EXPECT_EQ(pulse ? event.Pulse() : event.Signal(), RT_OK);
        JoinAll(waiters);
        EXPECT_EQ(woke, 3);
        // A signal stays set; a pulse leaves the event not signalled.
        EXPECT_EQ(event.Wait(&zero), pulse ? RT_ERROR_TIMEOUT : RT_OK);
        EXPECT_EQ(event.Wait(&zero), pulse ? RT_ERROR_TIMEOUT : RT_OK);
    }
}

TEST(Event, PingPongBetweenTwoThreadsLosesNoWakeUp) {
    CRtEventThread ping, pong;
    const int kRounds = 5000;
    std::thread partner([&] {
        CRtTimeValue limit(30L, 0L);
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(ping.Wait(&limit), RT_OK);
            pong.Signal();
        }
    });
    CRtTimeValue limit(30L, 0L);
    for (int i = 0; i < kRounds; ++i) {
        ping.Signal();
        ASSERT_EQ(pong.Wait(&limit), RT_OK) << "round " << i;
    }
    partner.join();
}
