// The timer wrapper on a timer task thread: counts, restarts, cancels (also from
// inside OnTimer), several wrappers on one sink, and threads without a queue.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "task_thread_helpers.h"
#include "trace_capture.h"
#include "rtframework.h"

namespace {

// Records which wrapper expired; may act on each expiry (on the timer's thread).
class RecordingSink : public CRtTimerWrapperSink {
public:
    explicit RecordingSink(std::function<void(CRtTimerWrapper*)> aOnTimer = {})
        : m_onTimer(std::move(aOnTimer)) {}

    void OnTimer(CRtTimerWrapper* aId) override {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_ids.push_back(aId);
        }
        fired++;
        if (m_onTimer)
            m_onTimer(aId);
    }
    std::vector<CRtTimerWrapper*> Ids() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_ids;
    }

    std::atomic<int> fired{0};

private:
    std::function<void(CRtTimerWrapper*)> m_onTimer;
    std::mutex m_lock;
    std::vector<CRtTimerWrapper*> m_ids;
};

const char kNoQueue[] = "CRtTimerWrapper::Schedule, this thread doesn't suppport TimerQueue!";

// Long enough that a timer which should stay quiet would have fired by then.
void QuietPeriod() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// A timer task thread; wrappers are made, scheduled and destroyed on it.
class TimerWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(CRtThreadManager::Instance()->CreateUserTaskThread(
                      m_thread, CRtThreadManager::TF_JOINABLE, 1),
                  RT_OK);
    }
    void TearDown() override {
        if (m_thread) {
            StopJoinDestroy(m_thread);
        }
    }

    CRtThread* m_thread = nullptr;
};

}  // namespace

TEST_F(TimerWrapperTest, CountedTimerFiresItsCountAndStaysScheduledUntilCancelled) {
    for (unsigned long count : {1ul, 3ul}) {
        SCOPED_TRACE(count);
        RecordingSink sink;
        std::unique_ptr<CRtTimerWrapper> timer;
        RunOn(m_thread, [&] {
            timer.reset(new CRtTimerWrapper);
            EXPECT_EQ(timer->Cancel(), RT_OK);  // never scheduled
            EXPECT_EQ(timer->Schedule(&sink, Ms(5), count), RT_OK);
        });
        EXPECT_TRUE(WaitUntil([&] { return sink.fired.load() == int(count); }));
        QuietPeriod();
        EXPECT_EQ(sink.fired.load(), int(count));
        EXPECT_EQ(sink.Ids(), std::vector<CRtTimerWrapper*>(count, timer.get()));
        RunOn(m_thread, [&] {
            EXPECT_TRUE(timer->IsScheduled());
            EXPECT_EQ(timer->Cancel(), RT_ERROR_NOT_FOUND);  // ran out already
            EXPECT_FALSE(timer->IsScheduled());
            EXPECT_EQ(timer->Cancel(), RT_OK);
            timer.reset();
        });
    }
}

TEST_F(TimerWrapperTest, ScheduleAgainReplacesTheTimerSinkAndInterval) {
    RecordingSink first, second;
    std::unique_ptr<CRtTimerWrapper> timer;
    RunOn(m_thread, [&] {
        timer.reset(new CRtTimerWrapper);
        EXPECT_EQ(timer->Schedule(&first, Ms(5), 0), RT_OK);
        // The old timer is cancelled first, so the queue sees a new one.
        EXPECT_EQ(timer->Schedule(&second, CRtTimeValue(3600, 0), 1), RT_OK);
        EXPECT_TRUE(timer->IsScheduled());
    });
    QuietPeriod();
    EXPECT_EQ(first.fired.load(), 0);
    EXPECT_EQ(second.fired.load(), 0);

    RunOn(m_thread, [&] { EXPECT_EQ(timer->Schedule(&second, Ms(5), 2), RT_OK); });
    EXPECT_TRUE(WaitUntil([&] { return second.fired.load() == 2; }));
    RunOn(m_thread, [&] { timer.reset(); });
    EXPECT_EQ(first.fired.load(), 0);
}

TEST_F(TimerWrapperTest, CancelAndDestructionStopARepeatingTimer) {
    RecordingSink cancelled, destroyed;
    CRtTimerWrapper* kept = nullptr;
    CRtTimerWrapper* dropped = nullptr;
    RunOn(m_thread, [&] {
        kept = new CRtTimerWrapper;
        dropped = new CRtTimerWrapper;
        EXPECT_EQ(kept->Schedule(&cancelled, Ms(5), 0), RT_OK);
        EXPECT_EQ(dropped->Schedule(&destroyed, Ms(5), 0), RT_OK);
    });
    EXPECT_TRUE(WaitUntil([&] { return cancelled.fired >= 2 && destroyed.fired >= 2; }));
    int keptFired = 0;
    int droppedFired = 0;
    RunOn(m_thread, [&] {
        EXPECT_EQ(kept->Cancel(), RT_OK);
        EXPECT_FALSE(kept->IsScheduled());
        delete dropped;  // a timer left behind would call into freed memory
        keptFired = cancelled.fired;
        droppedFired = destroyed.fired;
    });
    QuietPeriod();
    EXPECT_EQ(cancelled.fired.load(), keptFired);
    EXPECT_EQ(destroyed.fired.load(), droppedFired);
    RunOn(m_thread, [&] { delete kept; });
}

TEST_F(TimerWrapperTest, OnTimerMayCancelOrRescheduleItsOwnWrapper) {
    int cancelResult = -1;
    RecordingSink stopper([&](CRtTimerWrapper* aId) {
        if (aId->IsScheduled() && cancelResult == -1) {
            cancelResult = aId->Cancel();
        }
    });
    int rescheduled = 0;
    RecordingSink restarter;
    RecordingSink slower([&](CRtTimerWrapper* aId) {
        // Restart from the callback: the wrapper moves to the other sink.
        if (rescheduled++ == 0) {
            EXPECT_EQ(aId->Schedule(&restarter, Ms(5), 1), RT_OK);
        }
    });

    CRtTimerWrapper stopped;
    CRtTimerWrapper moved;
    RunOn(m_thread, [&] {
        EXPECT_EQ(stopped.Schedule(&stopper, Ms(5), 0), RT_OK);
        EXPECT_EQ(moved.Schedule(&slower, Ms(5), 0), RT_OK);
    });
    EXPECT_TRUE(WaitUntil([&] { return restarter.fired.load() == 1; }));
    QuietPeriod();
    RunOn(m_thread, [&] {
        EXPECT_EQ(cancelResult, RT_OK);  // the re-armed timer was still there
        EXPECT_FALSE(stopped.IsScheduled());
        EXPECT_TRUE(moved.IsScheduled());
        EXPECT_EQ(moved.Cancel(), RT_ERROR_NOT_FOUND);
    });
    EXPECT_EQ(stopper.fired.load(), 1);
    EXPECT_EQ(slower.fired.load(), 1);
    EXPECT_EQ(restarter.fired.load(), 1);
}

TEST_F(TimerWrapperTest, OneSinkTellsItsWrappersApart) {
    RecordingSink sink;
    CRtTimerWrapper fast;
    CRtTimerWrapper slow;
    RunOn(m_thread, [&] {
        EXPECT_EQ(slow.Schedule(&sink, Ms(150), 1), RT_OK);
        EXPECT_EQ(fast.Schedule(&sink, Ms(5), 1), RT_OK);
    });
    EXPECT_TRUE(WaitUntil([&] { return sink.fired.load() == 2; }));
    EXPECT_EQ(sink.Ids(), (std::vector<CRtTimerWrapper*>{&fast, &slow}));
    RunOn(m_thread, [&] {
        fast.Cancel();
        slow.Cancel();
    });
}

TEST_F(TimerWrapperTest, BadArgumentsAreTracedAndLeaveTheWrapperScheduled) {
    TraceCapture trace;
    CRtTimerWrapper nullSink;
    CRtTimerWrapper badInterval;
    RecordingSink sink;
    RunOn(m_thread, [&] {
        // A null sink is still scheduled; its expiry is traced and skipped.
        EXPECT_EQ(nullSink.Schedule(nullptr, Ms(5), 1), RT_OK);
        EXPECT_EQ(badInterval.Schedule(&sink, CRtTimeValue(0, 0), 2), RT_ERROR_INVALID_ARG);
        EXPECT_TRUE(badInterval.IsScheduled());
        EXPECT_EQ(badInterval.Cancel(), RT_ERROR_NOT_FOUND);
    });
    EXPECT_EQ(trace.Count("Assert failed: aSink"), 1u);
    EXPECT_TRUE(WaitUntil([&] { return trace.Count("Assert failed: pSink") == 1; }));
    RunOn(m_thread, [&] { EXPECT_EQ(nullSink.Cancel(), RT_ERROR_NOT_FOUND); });
    EXPECT_EQ(sink.fired.load(), 0);
}

TEST_F(TimerWrapperTest, ThreadsWithoutATimerQueueCannotSchedule) {
    CRtThread* eventsOnly = nullptr;
    ASSERT_EQ(CRtThreadManager::Instance()->CreateUserTaskThread(eventsOnly,
                                                                 CRtThreadManager::TF_JOINABLE, 0),
              RT_OK);
    const struct {
        const char* name;
        std::function<void(std::function<void()>)> run;
    } kThreads[] = {
        {"unknown to the manager", [](std::function<void()> aFn) { std::thread(aFn).join(); }},
        {"events only", [&](std::function<void()> aFn) { RunOn(eventsOnly, aFn); }},
    };
    RecordingSink sink;
    for (const auto& thread : kThreads) {
        SCOPED_TRACE(thread.name);
        TraceCapture trace;
        thread.run([&] {
            CRtTimerWrapper timer;
            EXPECT_EQ(timer.Schedule(&sink, Ms(5), 1), RT_ERROR_NULL_POINTER);
            EXPECT_FALSE(timer.IsScheduled());
            EXPECT_EQ(timer.Cancel(), RT_OK);
        });
        EXPECT_EQ(trace.Count(kNoQueue), 1u);
    }
    QuietPeriod();
    EXPECT_EQ(sink.fired.load(), 0);
    StopJoinDestroy(eventsOnly);
}
