// The timer wrapper on a timer task thread: counts, restarts, cancels (also from
// inside OnTimer), several wrappers on one sink, and threads without a queue.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "task_thread_helpers.h"
#include "trace_capture.h"
#include "rtframework.h"

namespace {

// Records which wrapper expired and may act on it (on the timer's thread).
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

// Long enough that a timer which should stay quiet would have fired.
void QuietPeriod() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// Wrappers are scheduled, cancelled and destroyed on a timer task thread.
class TimerWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_thread = NewTaskThread(true);
        ASSERT_TRUE(m_thread);
    }
    void TearDown() override { StopJoinDestroy(m_thread); }

    CRtThread* m_thread = nullptr;
};

}  // namespace

TEST_F(TimerWrapperTest, CountedTimersFireTheirCountAndStayScheduledUntilCancelled) {
    RecordingSink sink;
    CRtTimerWrapper once, thrice;
    RunOn(m_thread, [&] {
        EXPECT_EQ(once.Cancel(), RT_OK);  // never scheduled
        EXPECT_EQ(once.Schedule(&sink, Ms(5), 1), RT_OK);
        EXPECT_EQ(thrice.Schedule(&sink, Ms(50), 3), RT_OK);
    });
    EXPECT_TRUE(WaitUntil([&] { return sink.fired == 4; }));
    QuietPeriod();
    EXPECT_EQ(sink.Ids(), (std::vector<CRtTimerWrapper*>{&once, &thrice, &thrice, &thrice}));
    RunOn(m_thread, [&] {
        for (CRtTimerWrapper* timer : {&once, &thrice}) {
            EXPECT_TRUE(timer->IsScheduled());
            EXPECT_EQ(timer->Cancel(), RT_ERROR_NOT_FOUND);  // ran out already
            EXPECT_FALSE(timer->IsScheduled());
        }
    });
}

TEST_F(TimerWrapperTest, RescheduleCancelAndDestructionEndTheEarlierTimer) {
    RecordingSink replaced, replacement, cancelled, destroyed;
    int cancelInside = -1;
    RecordingSink selfCancelling([&](CRtTimerWrapper* aId) { cancelInside = aId->Cancel(); });
    CRtTimerWrapper restarted, stopped, stopsItself;
    CRtTimerWrapper* dropped = new CRtTimerWrapper;
    RunOn(m_thread, [&] {
        EXPECT_EQ(restarted.Schedule(&replaced, Ms(5), 0), RT_OK);
        EXPECT_EQ(restarted.Schedule(&replacement, Ms(5), 2), RT_OK);
        EXPECT_EQ(stopped.Schedule(&cancelled, Ms(5), 0), RT_OK);
        EXPECT_EQ(stopsItself.Schedule(&selfCancelling, Ms(5), 0), RT_OK);
        EXPECT_EQ(dropped->Schedule(&destroyed, Ms(5), 0), RT_OK);
    });
    EXPECT_TRUE(WaitUntil([&] { return replacement.fired == 2 && cancelled.fired >= 2; }));
    int stoppedAt = 0, droppedAt = 0;
    RunOn(m_thread, [&] {
        EXPECT_EQ(stopped.Cancel(), RT_OK);
        delete dropped;  // a timer left behind would call into freed memory
        stoppedAt = cancelled.fired;
        droppedAt = destroyed.fired;
    });
    QuietPeriod();
    EXPECT_EQ(replaced.fired.load(), 0);
    EXPECT_EQ(replacement.fired.load(), 2);
    EXPECT_EQ(cancelled.fired.load(), stoppedAt);
    EXPECT_EQ(destroyed.fired.load(), droppedAt);
    EXPECT_EQ(selfCancelling.fired.load(), 1);
    RunOn(m_thread, [&] {
        EXPECT_EQ(cancelInside, RT_OK);  // the re-armed timer was removed
        EXPECT_FALSE(stopsItself.IsScheduled());
        restarted.Cancel();
    });
}

TEST_F(TimerWrapperTest, BadArgumentsAreTracedAndLeaveTheWrapperScheduled) {
    TraceCapture trace;
    RecordingSink sink;
    CRtTimerWrapper nullSink, badInterval;
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
}

TEST_F(TimerWrapperTest, ThreadsWithoutATimerQueueCannotSchedule) {
    CRtThread* eventsOnly = NewTaskThread();
    RecordingSink sink;
    auto scheduleFails = [&] {
        CRtTimerWrapper timer;
        EXPECT_EQ(timer.Schedule(&sink, Ms(5), 1), RT_ERROR_NULL_POINTER);
        EXPECT_FALSE(timer.IsScheduled());
    };
    TraceCapture trace;
    std::thread(scheduleFails).join();  // unknown to the manager
    RunOn(eventsOnly, scheduleFails);
    EXPECT_EQ(trace.Count("CRtTimerWrapper::Schedule, this thread doesn't suppport TimerQueue!"),
              2u);
    StopJoinDestroy(eventsOnly);
}
