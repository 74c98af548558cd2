// The platform layer (rtos.h): identity, clocks, locks, kernel objects, threads
// and the debugger output, with the results the framework relies on.
#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>
#ifndef _WIN32
#include <sys/wait.h>
#endif

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform_errors.h"
#include "rtos.h"
#include "rtosfile.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point aStart) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - aStart).count();
}

}  // namespace

TEST(Platform, IdentitiesOfProcessAndThreads) {
    EXPECT_EQ(rtos::CurrentProcessId(), static_cast<uint32_t>(::getpid()));
    const uint32_t mine = rtos::CurrentThreadId();
    EXPECT_NE(mine, 0u);
    EXPECT_EQ(rtos::CurrentThreadId(), mine);
    uint32_t other = 0;
    std::thread([&] { other = rtos::CurrentThreadId(); }).join();
    EXPECT_NE(other, 0u);
    EXPECT_NE(other, mine);
}

TEST(Platform, AForkedChildSeesItsOwnIds) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: fork";
#else
    const uint32_t parentPid = rtos::CurrentProcessId();
    const uint32_t parentTid = rtos::CurrentThreadId();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool ok = rtos::CurrentProcessId() == static_cast<uint32_t>(::getpid()) &&
                        rtos::CurrentProcessId() != parentPid &&
                        rtos::CurrentThreadId() != parentTid && rtos::CurrentThreadId() != 0;
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
#endif
}

TEST(Platform, TickCountIsMonotonicMilliseconds) {
    uint32_t prev = rtos::TickCount();
    const uint32_t first = prev;
    for (int i = 0; i < 10000; ++i) {
        const uint32_t now = rtos::TickCount();
        ASSERT_LT(static_cast<uint32_t>(now - prev), 10000u) << "went back";
        prev = now;
    }
    rtos::SleepMs(50);
    const uint32_t elapsed = rtos::TickCount() - first;
    EXPECT_GE(elapsed, 45u);
    EXPECT_LT(elapsed, 60000u);
}

TEST(Platform, SystemTimeIsFileTimeSince1601) {
    const uint64_t kTo1970 = 116444736000000000ULL;
    const uint64_t ft = rtos::SystemTimeAsFileTime();
    ASSERT_GT(ft, kTo1970);
    const int64_t seconds = static_cast<int64_t>((ft - kTo1970) / 10000000ULL);
    EXPECT_LT(std::llabs(seconds - static_cast<int64_t>(::time(nullptr))), 2);

    // The coarse read is the same clock, behind by at most a tick or two.
    const int64_t precise = static_cast<int64_t>((rtos::SystemTimeAsFileTime() - kTo1970) / 10);
    const int64_t coarse = rtos::SystemTimeUsecCoarse();
    EXPECT_LE(coarse, precise + 1000);
    EXPECT_GT(coarse, precise - 50000);
}

TEST(Platform, LocalCalendarTime) {
    rtos::SetEnv("TZ", "UTC");
    ::tzset();
    rtos::CalendarTime cal;
    rtos::LocalCalendarTime(0, cal);
    EXPECT_EQ(cal.year, 1970);
    EXPECT_EQ(cal.month, 1);
    EXPECT_EQ(cal.day, 1);
    EXPECT_EQ(cal.hour, 0);
    rtos::LocalCalendarTime(951827696, cal);  // 2000-02-29 12:34:56 UTC
    EXPECT_EQ(cal.year, 2000);
    EXPECT_EQ(cal.month, 2);
    EXPECT_EQ(cal.day, 29);
    EXPECT_EQ(cal.hour, 12);
    EXPECT_EQ(cal.minute, 34);
    EXPECT_EQ(cal.second, 56);
}

TEST(Platform, LastErrorIsTheSystemsOwn) {
    rtos::SetLastError(kErrAddressInUse);
    EXPECT_EQ(rtos::LastError(), kErrAddressInUse);
#ifndef _WIN32
    EXPECT_EQ(errno, EADDRINUSE);
    errno = ENOENT;
    EXPECT_EQ(rtos::LastError(), ENOENT);
#endif
}

TEST(Platform, SleepWaitsAtLeastTheTime) {
    const Clock::time_point start = Clock::now();
    rtos::SleepMs(30);
    EXPECT_GE(MsSince(start), 29);
}

TEST(Platform, LocksAreReentrant) {
    rtos::LockStorage lock;
    rtos::LockInit(lock);
    rtos::LockEnter(lock);
    EXPECT_TRUE(rtos::LockTryEnter(lock));
    bool otherGot = true;
    std::thread([&] { otherGot = rtos::LockTryEnter(lock); }).join();
    EXPECT_FALSE(otherGot);
    rtos::LockLeave(lock);
    rtos::LockLeave(lock);
    std::thread([&] {
        otherGot = rtos::LockTryEnter(lock);
        if (otherGot) {
            rtos::LockLeave(lock);
        }
    }).join();
    EXPECT_TRUE(otherGot);
    rtos::LockDestroy(lock);
}

TEST(Platform, SemaphoreLimitsAndResults) {
    rtos::SetLastError(0);
    EXPECT_EQ(rtos::SemaphoreCreate(0, 0, nullptr), nullptr);
    EXPECT_EQ(rtos::LastError(), kErrBadArgument);
    EXPECT_EQ(rtos::SemaphoreCreate(-1, 5, nullptr), nullptr);
    EXPECT_EQ(rtos::SemaphoreCreate(6, 5, nullptr), nullptr);

    rtos::Handle sem = rtos::SemaphoreCreate(1, 3, nullptr);
    ASSERT_NE(sem, nullptr);
    EXPECT_EQ(rtos::HandleWait(sem, 0), rtos::kWaitSignalled);
    EXPECT_EQ(rtos::HandleWait(sem, 0), rtos::kWaitTimeout);

    rtos::SetLastError(0);
    EXPECT_FALSE(rtos::SemaphoreRelease(sem, 0));
    EXPECT_EQ(rtos::LastError(), kErrBadArgument);
    EXPECT_FALSE(rtos::SemaphoreRelease(sem, -2));
    EXPECT_FALSE(rtos::SemaphoreRelease(sem, 4));
    EXPECT_TRUE(rtos::SemaphoreRelease(sem, 3));
    EXPECT_FALSE(rtos::SemaphoreRelease(sem, 1)) << "past the maximum";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rtos::HandleWait(sem, 0), rtos::kWaitSignalled);
    }

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(rtos::HandleWait(sem, 60), rtos::kWaitTimeout);
    EXPECT_GE(MsSince(start), 55);
    EXPECT_TRUE(rtos::HandleClose(sem));
}

// Releases race with waiters whose time-outs run out: every count reaches
// exactly one wait, and an object may be closed the moment its wait returns.
TEST(Platform, WakeUpsRacingTimeOutsAreNeitherLostNorDoubled) {
    const int kCounts = 3000;
    rtos::Handle sem = rtos::SemaphoreCreate(0, kCounts, nullptr);
    ASSERT_NE(sem, nullptr);
    std::thread releaser([&] {
        for (int i = 0; i < kCounts; ++i) {
            rtos::SemaphoreRelease(sem, 1);
            if (i % 7 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        }
    });
    int taken = 0;
    const Clock::time_point start = Clock::now();
    while (taken < kCounts && MsSince(start) < 60000) {
        taken += rtos::HandleWait(sem, 1) == rtos::kWaitSignalled;
    }
    releaser.join();
    EXPECT_EQ(taken, kCounts);
    EXPECT_EQ(rtos::HandleWait(sem, 0), rtos::kWaitTimeout) << "a count was handed out twice";
    rtos::HandleClose(sem);

    for (int i = 0; i < 200; ++i) {
        rtos::Handle event = rtos::EventCreate(false, false, nullptr);
        std::thread setter([event] { rtos::EventSet(event); });
        EXPECT_EQ(rtos::HandleWait(event, rtos::kInfinite), rtos::kWaitSignalled);
        rtos::HandleClose(event);  // the setter may still be on its way out
        setter.join();
    }
}

TEST(Platform, EventSetResetAndPulse) {
    rtos::Handle manual = rtos::EventCreate(true, true, nullptr);
    ASSERT_NE(manual, nullptr);
    EXPECT_EQ(rtos::HandleWait(manual, 0), rtos::kWaitSignalled);
    EXPECT_EQ(rtos::HandleWait(manual, 0), rtos::kWaitSignalled);
    EXPECT_TRUE(rtos::EventReset(manual));
    EXPECT_EQ(rtos::HandleWait(manual, 0), rtos::kWaitTimeout);
    EXPECT_TRUE(rtos::EventSet(manual));
    EXPECT_TRUE(rtos::EventPulse(manual));
    EXPECT_EQ(rtos::HandleWait(manual, 0), rtos::kWaitTimeout);
    EXPECT_EQ(rtos::EventWaiterCount(manual), 0);

    // A waiter that times out leaves the queue.
    rtos::Handle autoEv = rtos::EventCreate(false, false, nullptr);
    EXPECT_EQ(rtos::HandleWait(autoEv, 20), rtos::kWaitTimeout);
    EXPECT_EQ(rtos::EventWaiterCount(autoEv), 0);
    EXPECT_TRUE(rtos::EventSet(autoEv));
    EXPECT_EQ(rtos::HandleWait(autoEv, 0), rtos::kWaitSignalled);
    EXPECT_EQ(rtos::HandleWait(autoEv, 0), rtos::kWaitTimeout);

    // Waiters are released oldest first; one timing out in the middle of the
    // queue does not disturb the others.
    std::atomic<int> order{0};
    int firstPos = -1, lastPos = -1;
    std::thread first([&] {
        EXPECT_EQ(rtos::HandleWait(autoEv, rtos::kInfinite), rtos::kWaitSignalled);
        firstPos = order++;
    });
    while (rtos::EventWaiterCount(autoEv) != 1) {
        rtos::SleepMs(1);
    }
    std::thread middle([&] { EXPECT_EQ(rtos::HandleWait(autoEv, 30), rtos::kWaitTimeout); });
    while (rtos::EventWaiterCount(autoEv) != 2) {
        rtos::SleepMs(1);
    }
    std::thread last([&] {
        EXPECT_EQ(rtos::HandleWait(autoEv, rtos::kInfinite), rtos::kWaitSignalled);
        lastPos = order++;
    });
    middle.join();
    while (rtos::EventWaiterCount(autoEv) != 2) {
        rtos::SleepMs(1);
    }
    EXPECT_TRUE(rtos::EventPulse(autoEv));
    first.join();
    EXPECT_TRUE(rtos::EventSet(autoEv));
    last.join();
    EXPECT_EQ(firstPos, 0);
    EXPECT_EQ(lastPos, 1);

    EXPECT_TRUE(rtos::HandleClose(manual));
    EXPECT_TRUE(rtos::HandleClose(autoEv));
}

TEST(Platform, WrongOrNullHandlesFailWithoutCrashing) {
    rtos::Handle sem = rtos::SemaphoreCreate(0, 1, nullptr);
    rtos::Handle ev = rtos::EventCreate(false, false, nullptr);
    rtos::SetLastError(0);
    EXPECT_FALSE(rtos::EventSet(sem));
    EXPECT_EQ(rtos::LastError(), kErrBadHandle);
    EXPECT_FALSE(rtos::EventPulse(sem));
    EXPECT_FALSE(rtos::EventReset(nullptr));
    EXPECT_EQ(rtos::EventWaiterCount(sem), -1);
    EXPECT_FALSE(rtos::SemaphoreRelease(ev, 1));
    EXPECT_FALSE(rtos::SemaphoreRelease(nullptr, 1));
    EXPECT_EQ(rtos::HandleWait(nullptr, 0), rtos::kWaitFailed);
    EXPECT_FALSE(rtos::HandleClose(nullptr));
    EXPECT_FALSE(rtos::ThreadAbandon(ev));
    EXPECT_TRUE(rtos::HandleClose(sem));
    EXPECT_TRUE(rtos::HandleClose(ev));
}

namespace {

struct ThreadArgs {
    rtos::Handle release;  // the thread waits on it before ending
    std::atomic<uint32_t> tid{0};
    std::atomic<bool> ended{false};
};

unsigned BlockUntilReleased(void* aArg) {
    ThreadArgs* args = static_cast<ThreadArgs*>(aArg);
    args->tid = rtos::CurrentThreadId();
    rtos::HandleWait(args->release, rtos::kInfinite);
    args->ended = true;
    return 0;
}

}  // namespace

TEST(Platform, ThreadHandleIsSignalledWhenTheThreadEnds) {
    ThreadArgs args;
    args.release = rtos::EventCreate(true, false, nullptr);
    uint32_t tid = 0;
    rtos::Handle thread = rtos::ThreadCreate(&BlockUntilReleased, &args, &tid);
    ASSERT_NE(thread, nullptr);
    EXPECT_NE(tid, 0u);
    EXPECT_NE(tid, rtos::CurrentThreadId());

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(rtos::HandleWait(thread, 50), rtos::kWaitTimeout);
    EXPECT_GE(MsSince(start), 45);
    EXPECT_EQ(args.tid.load(), tid);

    rtos::EventSet(args.release);
    EXPECT_EQ(rtos::HandleWait(thread, 30000), rtos::kWaitSignalled);
    EXPECT_TRUE(args.ended);
    EXPECT_EQ(rtos::HandleWait(thread, 0), rtos::kWaitSignalled) << "stays signalled";
    EXPECT_TRUE(rtos::HandleClose(thread));
    rtos::HandleClose(args.release);
}

TEST(Platform, ClosingARunningThreadLetsItFinish) {
    ThreadArgs args;
    args.release = rtos::EventCreate(true, false, nullptr);
    rtos::Handle thread = rtos::ThreadCreate(&BlockUntilReleased, &args, nullptr);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(rtos::HandleClose(thread));  // still running: detached
    rtos::EventSet(args.release);
    const Clock::time_point start = Clock::now();
    while (!args.ended && MsSince(start) < 20000) {
        rtos::SleepMs(1);
    }
    EXPECT_TRUE(args.ended);
    rtos::HandleClose(args.release);
}

TEST(Platform, AbandonedThreadKeepsRunningAndCanStillBeWaitedFor) {
    ThreadArgs args;
    args.release = rtos::EventCreate(true, false, nullptr);
    rtos::Handle thread = rtos::ThreadCreate(&BlockUntilReleased, &args, nullptr);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(rtos::HandleWait(thread, 20), rtos::kWaitTimeout);
    rtos::SetLastError(0);
    EXPECT_FALSE(rtos::ThreadAbandon(thread)) << "a thread is never terminated";
    EXPECT_EQ(rtos::LastError(), kErrBusy);
    EXPECT_FALSE(args.ended);

    rtos::EventSet(args.release);
    EXPECT_EQ(rtos::HandleWait(thread, 30000), rtos::kWaitSignalled);
    EXPECT_TRUE(args.ended);
    EXPECT_TRUE(rtos::HandleClose(thread));
    rtos::HandleClose(args.release);
}

namespace {

std::vector<std::string> g_sunk;
void Sink(const char* aLine) {
    g_sunk.push_back(aLine);
}

}  // namespace

TEST(Platform, DebugSinkInstallAndRemove) {
    g_sunk.clear();
    rtos::DebugOutput("before\n");
    rtos::SetDebugSink(&Sink);
    rtos::DebugOutput("line one\n");
    rtos::DebugOutput("");
    rtos::DebugOutput(nullptr);
    rtos::SetDebugSink(nullptr);
    rtos::DebugOutput("after\n");
    ASSERT_EQ(g_sunk.size(), 2u);
    EXPECT_EQ(g_sunk[0], "line one\n");
    EXPECT_EQ(g_sunk[1], "");
}
