// The platform layer (rtos.h): identity, clocks, kernel objects and the
// debugger output, with the results the framework relies on. Locks, threads
// and the framework's clocks, semaphores and events are also tested through
// their wrappers in test_sync, test_thread and test_timevalue.
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

// Polls until aDone() holds or 20 s pass.
template <typename Fn>
bool WaitUntil(Fn aDone) {
    const Clock::time_point start = Clock::now();
    while (!aDone() && MsSince(start) < 20000) {
        rtos::SleepMs(1);
    }
    return aDone();
}

}  // namespace

TEST(Platform, ProcessAndThreadIdsAreTheirOwnAlsoInAForkedChild) {
    EXPECT_EQ(rtos::CurrentProcessId(), static_cast<uint32_t>(::getpid()));
    const uint32_t mine = rtos::CurrentThreadId();
    EXPECT_NE(mine, 0u);
    EXPECT_EQ(rtos::CurrentThreadId(), mine);
    uint32_t other = 0;
    std::thread([&] { other = rtos::CurrentThreadId(); }).join();
    EXPECT_NE(other, 0u);
    EXPECT_NE(other, mine);
#ifndef _WIN32  // no fork on Windows
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool ok = rtos::CurrentProcessId() == static_cast<uint32_t>(::getpid()) &&
                        rtos::CurrentThreadId() != mine && rtos::CurrentThreadId() != 0;
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
#endif
}

TEST(Platform, ClocksNeverGoBackAndAgreeWithTheSystem) {
    uint32_t prev = rtos::TickCount();
    for (int i = 0; i < 10000; ++i) {
        const uint32_t now = rtos::TickCount();
        ASSERT_LT(static_cast<uint32_t>(now - prev), 10000u) << "went back";
        prev = now;
    }
    const Clock::time_point start = Clock::now();
    rtos::SleepMs(30);
    EXPECT_GE(MsSince(start), 29) << "sleeps at least the time";

    // File time counts 100 ns units since 1601; the coarse read is the same
    // clock, behind by at most a tick or two.
    const uint64_t kTo1970 = 116444736000000000ULL;
    const uint64_t ft = rtos::SystemTimeAsFileTime();
    ASSERT_GT(ft, kTo1970);
    EXPECT_LT(std::llabs(static_cast<int64_t>((ft - kTo1970) / 10000000ULL) - ::time(nullptr)), 2);
    const int64_t precise = static_cast<int64_t>((rtos::SystemTimeAsFileTime() - kTo1970) / 10);
    const int64_t coarse = rtos::SystemTimeUsecCoarse();
    EXPECT_LE(coarse, precise + 1000);
    EXPECT_GT(coarse, precise - 50000);
}

TEST(Platform, LocalCalendarTimeInUtc) {
    rtos::SetEnv("TZ", "UTC");
    ::tzset();
    const struct {
        int64_t seconds;
        int year, month, day, hour, minute, second;
    } cases[] = {{0, 1970, 1, 1, 0, 0, 0}, {951827696, 2000, 2, 29, 12, 34, 56}};
    for (const auto& c : cases) {
        rtos::CalendarTime cal;
        rtos::LocalCalendarTime(c.seconds, cal);
        EXPECT_EQ(
            std::vector<int>({cal.year, cal.month, cal.day, cal.hour, cal.minute, cal.second}),
            std::vector<int>({c.year, c.month, c.day, c.hour, c.minute, c.second}));
    }
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

TEST(Platform, BadCountsAndWrongOrNullHandlesFailWithTheirErrors) {
    rtos::Handle sem = rtos::SemaphoreCreate(1, 3, nullptr);
    rtos::Handle ev = rtos::EventCreate(false, false, nullptr);
    ASSERT_NE(sem, nullptr);
    ASSERT_NE(ev, nullptr);
    // The error of a failed call, -1 for a success; clears it for the next row.
    auto errorOf = [](bool aOk) {
        const int err = aOk ? -1 : rtos::LastError();
        rtos::SetLastError(0);
        return err;
    };
    rtos::SetLastError(0);
    const struct {
        const char* what;
        int error;
        int want;
    } cases[] = {
        {"no maximum", errorOf(rtos::SemaphoreCreate(0, 0, nullptr)), kErrBadArgument},
        {"negative count", errorOf(rtos::SemaphoreCreate(-1, 5, nullptr)), kErrBadArgument},
        {"release none", errorOf(rtos::SemaphoreRelease(sem, 0)), kErrBadArgument},
        {"release negative", errorOf(rtos::SemaphoreRelease(sem, -2)), kErrBadArgument},
        {"release past the maximum", errorOf(rtos::SemaphoreRelease(sem, 3)), kErrTooManyPosts},
        {"set a semaphore", errorOf(rtos::EventSet(sem)), kErrBadHandle},
        {"pulse a semaphore", errorOf(rtos::EventPulse(sem)), kErrBadHandle},
        {"reset null", errorOf(rtos::EventReset(nullptr)), kErrBadHandle},
        {"release an event", errorOf(rtos::SemaphoreRelease(ev, 1)), kErrBadHandle},
        {"release null", errorOf(rtos::SemaphoreRelease(nullptr, 1)), kErrBadHandle},
        {"abandon an event", errorOf(rtos::ThreadAbandon(ev)), kErrBadHandle},
        {"close null", errorOf(rtos::HandleClose(nullptr)), kErrBadHandle},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error, c.want) << c.what;
    }
    EXPECT_EQ(rtos::EventWaiterCount(sem), -1);
    EXPECT_EQ(rtos::HandleWait(nullptr, 0), rtos::kWaitFailed);
    EXPECT_EQ(rtos::HandleWait(sem, 0), rtos::kWaitSignalled) << "the failures added nothing";
    EXPECT_EQ(rtos::HandleWait(sem, 0), rtos::kWaitTimeout);
    EXPECT_TRUE(rtos::HandleClose(sem));
    EXPECT_TRUE(rtos::HandleClose(ev));
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

TEST(Platform, EventsResetPulseAndReleaseWaitersOldestFirst) {
    rtos::Handle manual = rtos::EventCreate(true, true, nullptr);
    ASSERT_NE(manual, nullptr);
    EXPECT_TRUE(rtos::EventReset(manual));
    EXPECT_EQ(rtos::HandleWait(manual, 0), rtos::kWaitTimeout);
    EXPECT_TRUE(rtos::EventSet(manual));
    EXPECT_TRUE(rtos::EventPulse(manual));
    EXPECT_EQ(rtos::HandleWait(manual, 0), rtos::kWaitTimeout) << "a pulse leaves it reset";

    // A waiter that times out leaves the queue, also from its middle.
    rtos::Handle autoEv = rtos::EventCreate(false, false, nullptr);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(rtos::HandleWait(autoEv, 60), rtos::kWaitTimeout);
    EXPECT_GE(MsSince(start), 55);
    EXPECT_EQ(rtos::EventWaiterCount(autoEv), 0);
    std::atomic<int> order{0};
    int firstPos = -1, lastPos = -1;
    std::thread first([&] {
        EXPECT_EQ(rtos::HandleWait(autoEv, rtos::kInfinite), rtos::kWaitSignalled);
        firstPos = order++;
    });
    ASSERT_TRUE(WaitUntil([&] { return rtos::EventWaiterCount(autoEv) == 1; }));
    std::thread middle([&] { EXPECT_EQ(rtos::HandleWait(autoEv, 30), rtos::kWaitTimeout); });
    ASSERT_TRUE(WaitUntil([&] { return rtos::EventWaiterCount(autoEv) == 2; }));
    std::thread last([&] {
        EXPECT_EQ(rtos::HandleWait(autoEv, rtos::kInfinite), rtos::kWaitSignalled);
        lastPos = order++;
    });
    middle.join();
    ASSERT_TRUE(WaitUntil([&] { return rtos::EventWaiterCount(autoEv) == 2; }));
    EXPECT_TRUE(rtos::EventPulse(autoEv));
    first.join();
    EXPECT_TRUE(rtos::EventSet(autoEv));
    last.join();
    EXPECT_EQ(firstPos, 0);
    EXPECT_EQ(lastPos, 1);
    EXPECT_TRUE(rtos::HandleClose(manual));
    EXPECT_TRUE(rtos::HandleClose(autoEv));
}

namespace {

std::vector<std::string> g_sunk;
void Sink(const char* aLine) {
    g_sunk.push_back(aLine);
}

}  // namespace

// Installing and removing the sink is covered by every trace test.
TEST(Platform, DebugSinkGetsEmptyLinesButNoNulls) {
    rtos::SetDebugSink(&Sink);
    rtos::DebugOutput("");
    rtos::DebugOutput(nullptr);
    rtos::SetDebugSink(nullptr);
    EXPECT_EQ(g_sunk, std::vector<std::string>{""});
}
