#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "rtframework.h"
#include "rtos.h"
#include "trace_capture.h"

namespace {

// ---- A queue on a clock the test moves -----------------------------------------

const CRtTimeValue kStart(1000000L, 0L);

class ManualClockQueue : public CRtTimerQueueOrderedList {
public:
    explicit ManualClockQueue(IRtObserver* aObserver = nullptr)
        : CRtTimerQueueOrderedList(aObserver) {}

    void Advance(const CRtTimeValue& aBy) { m_tvNow += aBy; }
    const CRtTimeValue& Now() const { return m_tvNow; }

protected:
    CRtTimeValue GetTimeOfDay_i() const override { return m_tvNow; }

private:
    CRtTimeValue m_tvNow = kStart;
};

struct Fired {
    int id;
    void* token;
    CRtTimeValue cur;
};

// Records each expiry in a shared log, then runs an optional action.
class RecordingHandler : public IRtTimerHandler {
public:
    RecordingHandler(int aId, std::vector<Fired>* aLog) : m_nId(aId), m_pLog(aLog) {}

    void OnTimeout(const CRtTimeValue& aCurTime, void* aArg) override {
        m_pLog->push_back(Fired{m_nId, aArg, aCurTime});
        if (m_Action) {
            m_Action();
        }
    }

    int m_nId;
    std::vector<Fired>* m_pLog;
    std::function<void()> m_Action;
};

std::vector<int> Ids(const std::vector<Fired>& aLog) {
    std::vector<int> ids;
    for (const Fired& f : aLog) {
        ids.push_back(f.id);
    }
    return ids;
}

void* Token(intptr_t aValue) {
    return reinterpret_cast<void*>(aValue);
}

const CRtTimeValue kSec1(1L, 0L);
const CRtTimeValue kSec2(2L, 0L);
const CRtTimeValue kSec3(3L, 0L);

}  // namespace

// ---- Order ----------------------------------------------------------------------

TEST(TimerQueue, FiresEarlierDueTimesFirstWithTheirTokensAndThePassStart) {
    std::vector<Fired> log;
    RecordingHandler a(1, &log), b(2, &log), c(3, &log);
    ManualClockQueue q;
    EXPECT_EQ(q.ScheduleTimer(&a, Token(10), kSec3, 1), RT_OK);
    EXPECT_EQ(q.ScheduleTimer(&b, Token(20), kSec1, 1), RT_OK);
    EXPECT_EQ(q.ScheduleTimer(&c, Token(30), kSec2, 1), RT_OK);

    q.Advance(CRtTimeValue(5L, 0L));
    EXPECT_EQ(q.CheckExpire(), 3);
    EXPECT_EQ(Ids(log), (std::vector<int>{2, 3, 1}));
    EXPECT_EQ(log[0].token, Token(20));
    EXPECT_EQ(log[2].token, Token(10));
    for (const Fired& f : log) {
        EXPECT_TRUE(f.cur == q.Now());  // the pass's start, not the due time
    }
}

TEST(TimerQueue, AmongEqualDueTimesTheLastPushedFiresFirst) {
    std::vector<Fired> log;
    RecordingHandler a(1, &log), b(2, &log), c(3, &log);
    ManualClockQueue q;
    q.ScheduleTimer(&a, nullptr, kSec1, 1);
    q.ScheduleTimer(&b, nullptr, kSec1, 1);
    q.ScheduleTimer(&c, nullptr, kSec1, 1);
    // Re-scheduling a goes in front of every timer with its due time.
    EXPECT_EQ(q.ScheduleTimer(&a, nullptr, kSec1, 1), RT_ERROR_FOUND);
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 3);
    EXPECT_EQ(Ids(log), (std::vector<int>{1, 3, 2}));
}

TEST(TimerQueue, ARearmedTimerGoesInFrontOfTimersWithItsNewDueTime) {
    std::vector<Fired> log;
    RecordingHandler periodic(1, &log), single(2, &log);
    ManualClockQueue q;
    q.ScheduleTimer(&periodic, nullptr, kSec1, 0);  // due start+1, then start+2
    q.Advance(kSec1);
    q.ScheduleTimer(&single, nullptr, kSec1, 1);  // due start+2, pushed before the re-arm
    EXPECT_EQ(q.CheckExpire(), 1);
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 2);
    EXPECT_EQ(Ids(log), (std::vector<int>{1, 1, 2}));
}

// ---- Repeats, counts and missed periods -------------------------------------------

TEST(TimerQueue, CountedTimersFireThatOftenAndEndlessOnesKeepGoing) {
    std::vector<Fired> log;
    RecordingHandler counted(1, &log), endless(2, &log);
    ManualClockQueue q;
    q.ScheduleTimer(&counted, nullptr, kSec1, 3);
    q.ScheduleTimer(&endless, nullptr, kSec1, 0);
    for (int i = 0; i < 10; ++i) {
        q.Advance(kSec1);
        EXPECT_EQ(q.CheckExpire(), i < 3 ? 2 : 1);
    }
    std::vector<int> ids = Ids(log);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 1), 3);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 2), 10);
    EXPECT_EQ(q.CancelTimer(&counted), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(q.CancelTimer(&endless), RT_OK);
}

TEST(TimerQueue, MissedPeriodsAreSkippedNotDeliveredInABurst) {
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    q.ScheduleTimer(&h, nullptr, kSec1, 0);
    q.Advance(CRtTimeValue(3L, 500000L));  // the loop was blocked for 3.5 periods
    CRtTimeValue remain;
    EXPECT_EQ(q.CheckExpire(&remain), 1);
    EXPECT_TRUE(q.GetEarliestTime() == kStart + CRtTimeValue(4L, 0L));
    EXPECT_TRUE(remain == CRtTimeValue(0L, 500000L));

    // A tiny period after a long stall: still one callback, next due right after.
    RecordingHandler fast(2, &log);
    q.CancelTimer(&h);
    q.ScheduleTimer(&fast, nullptr, CRtTimeValue(0L, 1L), 0);
    CRtTimeValue tvScheduled = q.Now();
    q.Advance(CRtTimeValue(3600L, 0L));
    EXPECT_EQ(q.CheckExpire(), 1);
    EXPECT_TRUE(q.GetEarliestTime() == q.Now() + CRtTimeValue(0L, 1L));
    EXPECT_TRUE(q.GetEarliestTime() > tvScheduled);
}

TEST(TimerQueue, AZeroOrNegativeIntervalIsAcceptedOnlyForOneShots) {
    TraceCapture traces;
    std::vector<Fired> log;
    RecordingHandler zero(1, &log), negative(2, &log);
    ManualClockQueue q;
    EXPECT_EQ(q.ScheduleTimer(&zero, nullptr, CRtTimeValue::s_tvZero, 1), RT_OK);
    EXPECT_EQ(q.ScheduleTimer(&negative, nullptr, CRtTimeValue(-1L, 0L), 1), RT_OK);
    EXPECT_EQ(q.CheckExpire(), 2);  // both due without moving the clock

    RecordingHandler refused(3, &log);
    EXPECT_EQ(q.ScheduleTimer(&refused, nullptr, CRtTimeValue::s_tvZero, 0), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(q.ScheduleTimer(&refused, nullptr, CRtTimeValue::s_tvZero, 2), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(q.ScheduleTimer(&refused, nullptr, CRtTimeValue(-1L, 0L), 0), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(traces.Count("Assert failed: aInterval > CRtTimeValue::s_tvZero || aCount == 1"), 3u);
    EXPECT_EQ(q.CancelTimer(&refused), RT_ERROR_NOT_FOUND);  // nothing was stored
}

TEST(TimerQueue, AHugeIntervalMeansNeverRatherThanWrappingIntoThePast) {
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    EXPECT_EQ(q.ScheduleTimer(&h, nullptr, CRtTimeValue::s_tvMax, 1), RT_OK);
    q.Advance(CRtTimeValue(86400L, 0L));
    EXPECT_EQ(q.CheckExpire(), 0);
    EXPECT_TRUE(q.GetEarliestTime() == CRtTimeValue::s_tvMax);
}

// ---- Replacing and cancelling -------------------------------------------------------

TEST(TimerQueue, ASecondScheduleReplacesTheHandlersTimer) {
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    EXPECT_EQ(q.ScheduleTimer(&h, Token(1), kSec1, 0), RT_OK);
    EXPECT_EQ(q.ScheduleTimer(&h, Token(2), kSec3, 2), RT_ERROR_FOUND);
    EXPECT_TRUE(q.GetEarliestTime() == kStart + kSec3);
    for (int i = 0; i < 10; ++i) {
        q.Advance(kSec1);
        q.CheckExpire();
    }
    ASSERT_EQ(log.size(), 2u);  // one timer, the second call's interval and count
    EXPECT_EQ(log[0].token, Token(2));
    EXPECT_TRUE(log[0].cur == kStart + kSec3);
    EXPECT_TRUE(log[1].cur == kStart + CRtTimeValue(6L, 0L));
}

TEST(TimerQueue, NullHandlersAreRefusedWithATraceAndUnknownOnesAreNotFound) {
    TraceCapture traces;
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    EXPECT_EQ(q.ScheduleTimer(nullptr, nullptr, kSec1, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(q.CancelTimer(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(traces.Count("Assert failed: aEh"), 2u);

    traces.Clear();
    EXPECT_EQ(q.CancelTimer(&h), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(traces.Count("Assert failed"), 0u);
    EXPECT_TRUE(q.GetEarliestTime() == CRtTimeValue::s_tvMax);
}

TEST(TimerQueue, CancelledTimersNeverFireAndTheEarliestTimeFollows) {
    std::vector<Fired> log;
    RecordingHandler a(1, &log), b(2, &log);
    ManualClockQueue q;
    q.ScheduleTimer(&a, nullptr, kSec1, 1);
    q.ScheduleTimer(&b, nullptr, kSec2, 1);
    EXPECT_TRUE(q.GetEarliestTime() == kStart + kSec1);
    EXPECT_EQ(q.CancelTimer(&a), RT_OK);
    EXPECT_EQ(q.CancelTimer(&a), RT_ERROR_NOT_FOUND);
    EXPECT_TRUE(q.GetEarliestTime() == kStart + kSec2);
    q.Advance(kSec3);
    EXPECT_EQ(q.CheckExpire(), 1);
    EXPECT_EQ(Ids(log), (std::vector<int>{2}));
}

// ---- Callbacks that use the queue ----------------------------------------------------

TEST(TimerQueue, ACallbackMayCancelOrReplaceItsOwnTimer) {
    std::vector<Fired> log;
    ManualClockQueue q;

    RecordingHandler stopper(1, &log);  // repeating; cancels its re-armed timer
    int nStopperCancel = -1;
    stopper.m_Action = [&] { nStopperCancel = q.CancelTimer(&stopper); };
    RecordingHandler oneShot(2, &log);  // finished before its callback runs
    int nOneShotCancel = -1;
    oneShot.m_Action = [&] { nOneShotCancel = q.CancelTimer(&oneShot); };
    RecordingHandler replacer(3, &log);  // replaces its re-armed timer once
    int nReplace = -1;
    replacer.m_Action = [&] {
        if (nReplace == -1) {
            nReplace = q.ScheduleTimer(&replacer, Token(7), kSec3, 1);
        }
    };
    RecordingHandler restarter(4, &log);  // a finished one-shot starts a new timer
    int nRestart = -1;
    restarter.m_Action = [&] {
        if (nRestart == -1) {
            nRestart = q.ScheduleTimer(&restarter, nullptr, kSec1, 1);
        }
    };

    q.ScheduleTimer(&stopper, nullptr, kSec1, 0);
    q.ScheduleTimer(&oneShot, nullptr, kSec1, 1);
    q.ScheduleTimer(&replacer, nullptr, kSec1, 0);
    q.ScheduleTimer(&restarter, nullptr, kSec1, 1);
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 4);  // the self-cancelling callback is counted
    EXPECT_EQ(nStopperCancel, RT_OK);
    EXPECT_EQ(nOneShotCancel, RT_ERROR_NOT_FOUND);
    EXPECT_EQ(nReplace, RT_ERROR_FOUND);
    EXPECT_EQ(nRestart, RT_OK);

    for (int i = 0; i < 5; ++i) {
        q.Advance(kSec1);
        q.CheckExpire();
    }
    std::vector<int> ids = Ids(log);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 1), 1);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 2), 1);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 3), 2);  // once, then 3 s later
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 4), 2);
    EXPECT_EQ(log.back().token, Token(7));
}

TEST(TimerQueue, ACallbackMayCancelOthersAndAddTimersThatAreAlreadyDue) {
    std::vector<Fired> log;
    ManualClockQueue q;
    RecordingHandler victim(1, &log), added(2, &log), later(3, &log), killer(4, &log);
    killer.m_Action = [&] {
        EXPECT_EQ(q.CancelTimer(&victim), RT_OK);
        EXPECT_EQ(q.ScheduleTimer(&added, nullptr, CRtTimeValue::s_tvZero, 1), RT_OK);
        EXPECT_EQ(q.ScheduleTimer(&later, nullptr, kSec1, 1), RT_OK);
    };
    q.ScheduleTimer(&victim, nullptr, kSec1, 1);
    q.ScheduleTimer(&killer, nullptr, kSec1, 1);  // fires first: pushed last
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 2);  // killer and the timer it added; not later
    EXPECT_EQ(Ids(log), (std::vector<int>{4, 2}));
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 1);
}

TEST(TimerQueue, AHandlerMayDeleteItselfInItsCallback) {
    struct SelfDeleting : IRtTimerHandler {
        explicit SelfDeleting(int* aFired) : m_pFired(aFired) {}
        void OnTimeout(const CRtTimeValue&, void*) override {
            ++*m_pFired;
            delete this;
        }
        int* m_pFired;
    };
    int nFired = 0;
    ManualClockQueue q;
    for (int i = 0; i < 100; ++i) {
        q.ScheduleTimer(new SelfDeleting(&nFired), nullptr, kSec1, 1);
    }
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 100);
    EXPECT_EQ(nFired, 100);
}

// ---- Observer, remaining time and threads ------------------------------------------

TEST(TimerQueue, TheObserverHearsWhenTheQueueStopsBeingEmpty) {
    struct Observer : IRtObserver {
        void OnObserve(const char* aTopic, void* aData) override {
            topics.emplace_back(aTopic);
            data.push_back(aData);
        }
        std::vector<std::string> topics;
        std::vector<void*> data;
    } observer;
    std::vector<Fired> log;
    RecordingHandler a(1, &log), b(2, &log);
    ManualClockQueue q(&observer);

    q.ScheduleTimer(&a, nullptr, kSec1, 1);
    q.ScheduleTimer(&b, nullptr, kSec1, 1);
    q.ScheduleTimer(&a, nullptr, kSec2, 1);
    EXPECT_EQ(observer.topics, (std::vector<std::string>{"TimerQueue"}));
    EXPECT_EQ(observer.data, (std::vector<void*>{nullptr}));

    q.Advance(kSec3);
    q.CheckExpire();  // empties the queue
    q.ScheduleTimer(&a, nullptr, kSec1, 1);
    EXPECT_EQ(observer.topics.size(), 2u);
}

TEST(TimerQueue, CheckExpireReportsTheTimeUntilTheNextTimer) {
    ManualClockQueue q;
    CRtTimeValue remain;
    EXPECT_EQ(q.CheckExpire(&remain), 0);
    EXPECT_TRUE(remain == CRtTimeValue::s_tvMax);
    EXPECT_TRUE(q.GetEarliestTime() == CRtTimeValue::s_tvMax);

    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    q.ScheduleTimer(&h, nullptr, kSec2, 1);
    EXPECT_EQ(q.CheckExpire(&remain), 0);
    EXPECT_TRUE(remain == kSec2);
    q.Advance(CRtTimeValue(0L, 500000L));
    EXPECT_EQ(q.CheckExpire(), 0);  // a null remaining time is fine
    EXPECT_EQ(q.CheckExpire(&remain), 0);
    EXPECT_TRUE(remain == CRtTimeValue(1L, 500000L));
}

TEST(TimerQueue, ATimerOnTheRealClockFiresNoEarlierThanItsInterval) {
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    CRtTimerQueueOrderedList q(nullptr);
    CRtTimeValue tvBefore = CRtTimeValue::GetTimeOfDay();
    q.ScheduleTimer(&h, nullptr, CRtTimeValue(0L, 50000L), 1);
    CRtTimeValue remain;
    for (int i = 0; i < 1000 && log.empty(); ++i) {
        q.CheckExpire(&remain);
        if (log.empty()) {
            EXPECT_TRUE(remain > CRtTimeValue::s_tvZero);
            // At least 1 ms: on a coarse clock (15.6 ms on Windows) less than
            // a millisecond can remain for a whole tick.
            rtos::SleepMs(static_cast<uint32_t>(
                std::max<int64_t>(1, std::min<int64_t>(remain.GetTotalInMsec(), 10))));
        }
    }
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(log[0].cur - tvBefore >= CRtTimeValue(0L, 45000L));
}

TEST(TimerQueue, CallsFromAnotherThreadAreTracedAndCarriedOut) {
    TraceCapture traces;
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    int nSchedule = -1, nCancel = -1;
    std::thread other([&] {
        nSchedule = q.ScheduleTimer(&h, nullptr, kSec1, 1);
        nCancel = q.CancelTimer(&h);
    });
    other.join();
    EXPECT_EQ(nSchedule, RT_OK);
    EXPECT_EQ(nCancel, RT_OK);
    EXPECT_GE(traces.Count("IsThreadEqual(m_ThreadIdOpen, tidCur)"), 2u);

    traces.Clear();
    q.ScheduleTimer(&h, nullptr, kSec1, 1);
    EXPECT_EQ(traces.Count("IsThreadEqual"), 0u);
}

// ---- Against a sorted list ------------------------------------------------------------

namespace {

// The plain sorted list the heap must be indistinguishable from: a linear walk
// that puts each pushed node in front of every node with the same due time.
class SortedListQueue : public CRtTimerQueueBase {
public:
    SortedListQueue() : CRtTimerQueueBase(nullptr) {}
    void Advance(const CRtTimeValue& aBy) { m_tvNow += aBy; }

protected:
    int PushNode_l(const CNode& aNode) override {
        int nFound = EraseNode_l(aNode.m_pEh) == 0 ? 1 : 0;
        RePushNode_l(aNode);
        return nFound;
    }
    int EraseNode_l(IRtTimerHandler* aEh) override {
        auto it = std::find_if(m_Nodes.begin(), m_Nodes.end(),
                               [&](const CNode& aNode) { return aNode.m_pEh == aEh; });
        if (it == m_Nodes.end()) {
            return 1;
        }
        m_Nodes.erase(it);
        return 0;
    }
    int RePushNode_l(const CNode& aNode) override {
        auto it = std::find_if(m_Nodes.begin(), m_Nodes.end(), [&](const CNode& aOther) {
            return aOther.m_tvExpired >= aNode.m_tvExpired;
        });
        m_Nodes.insert(it, aNode);
        return 0;
    }
    int PopFirstNode_l(CNode& aNode) override {
        if (m_Nodes.empty()) {
            return -1;
        }
        aNode = m_Nodes.front();
        m_Nodes.pop_front();
        return 0;
    }
    int GetEarliestTime_l(CRtTimeValue& aTime) override {
        if (m_Nodes.empty()) {
            return -1;
        }
        aTime = m_Nodes.front().m_tvExpired;
        return 0;
    }
    CRtTimeValue GetTimeOfDay_i() const override { return m_tvNow; }

private:
    std::list<CNode> m_Nodes;
    CRtTimeValue m_tvNow = kStart;
};

// Handlers, a queue and a random script; two worlds with the same seed must
// log the same callbacks and results if their queues order alike. Callbacks
// draw from the same generator, so they too schedule and cancel.
template <class Queue>
class World {
public:
    explicit World(unsigned aSeed) : m_Rng(aSeed) {
        for (int i = 0; i < kHandlers; ++i) {
            m_Handlers.emplace_back(new RecordingHandler(i, &m_Log));
            m_Handlers.back()->m_Action = [this] {
                if (Draw(4) == 0) {
                    Step(false);
                }
            };
        }
    }

    void Run(int aSteps) {
        for (int i = 0; i < aSteps; ++i) {
            Step(true);
        }
    }

    std::vector<Fired> m_Log;
    std::vector<int> m_Results;

private:
    static constexpr int kHandlers = 300;

    int Draw(int aBound) { return static_cast<int>(m_Rng() % static_cast<unsigned>(aBound)); }

    void Step(bool aMayExpire) {
        int nOp = Draw(10);
        IRtTimerHandler* pEh = m_Handlers[Draw(kHandlers)].get();
        if (nOp < 5) {
            // Half-second steps and small counts: plenty of equal due times.
            CRtTimeValue tvInterval(0L, 500000L * Draw(6));
            unsigned long dwCount = tvInterval == CRtTimeValue::s_tvZero ? 1 : Draw(4);
            m_Results.push_back(m_Queue.ScheduleTimer(pEh, Token(Draw(1000)), tvInterval, dwCount));
        } else if (nOp < 7) {
            m_Results.push_back(m_Queue.CancelTimer(pEh));
        } else if (aMayExpire) {
            m_Queue.Advance(CRtTimeValue(0L, 250000L * Draw(8)));
            CRtTimeValue remain;
            m_Results.push_back(m_Queue.CheckExpire(&remain));
            m_Results.push_back(static_cast<int>(remain.GetTotalInMsec()));
        }
    }

    std::mt19937 m_Rng;
    Queue m_Queue;
    std::vector<std::unique_ptr<RecordingHandler>> m_Handlers;
};

// Runs out of push sequence numbers every few hundred pushes.
class RenumberingQueue : public ManualClockQueue {
public:
    RenumberingQueue() { SetSequenceLimit_i(400); }
};

template <class Queue>
void ExpectSameCallbacksAsASortedList() {
    TraceCapture traces;
    for (unsigned seed = 1; seed <= 5; ++seed) {
        World<Queue> heap(seed);
        World<SortedListQueue> list(seed);
        heap.Run(20000);
        list.Run(20000);
        ASSERT_GT(list.m_Log.size(), 1000u);
        ASSERT_EQ(heap.m_Log.size(), list.m_Log.size()) << "seed " << seed;
        for (size_t i = 0; i < list.m_Log.size(); ++i) {
            ASSERT_EQ(heap.m_Log[i].id, list.m_Log[i].id) << "seed " << seed << " at " << i;
            ASSERT_EQ(heap.m_Log[i].token, list.m_Log[i].token);
            ASSERT_TRUE(heap.m_Log[i].cur == list.m_Log[i].cur);
        }
        EXPECT_EQ(heap.m_Results, list.m_Results) << "seed " << seed;
    }
    EXPECT_EQ(traces.Count("Assert failed"), 0u);
}

}  // namespace

TEST(TimerQueue, FiresInExactlyTheOrderOfASortedListUnderRandomUse) {
    ExpectSameCallbacksAsASortedList<ManualClockQueue>();
}

TEST(TimerQueue, KeepsThatOrderWhenItRenumbersItsPushSequence) {
    ExpectSameCallbacksAsASortedList<RenumberingQueue>();
}
