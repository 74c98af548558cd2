// Timer queue: its scheduling rules on a clock the test moves, and its order
// checked against a plain sorted list under random use.
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

long CountOf(const std::vector<Fired>& aLog, int aId) {
    return std::count_if(aLog.begin(), aLog.end(), [&](const Fired& f) { return f.id == aId; });
}

void* Token(intptr_t aValue) {
    return reinterpret_cast<void*>(aValue);
}

void Tick(ManualClockQueue& aQueue, int aSeconds) {
    for (int i = 0; i < aSeconds; ++i) {
        aQueue.Advance(CRtTimeValue(1L, 0L));
        aQueue.CheckExpire();
    }
}

const CRtTimeValue kSec1(1L, 0L);
const CRtTimeValue kSec2(2L, 0L);
const CRtTimeValue kSec3(3L, 0L);

}  // namespace

TEST(TimerQueue, CountsEndlessTimersAndMissedPeriods) {
    std::vector<Fired> log;
    RecordingHandler counted(1, &log), endless(2, &log);
    ManualClockQueue q;
    q.ScheduleTimer(&counted, nullptr, kSec1, 3);
    q.ScheduleTimer(&endless, nullptr, kSec1, 0);
    for (int i = 0; i < 10; ++i) {
        q.Advance(kSec1);
        EXPECT_EQ(q.CheckExpire(), i < 3 ? 2 : 1);
    }
    EXPECT_EQ(CountOf(log, 1), 3);
    EXPECT_EQ(CountOf(log, 2), 10);
    EXPECT_EQ(q.CancelTimer(&counted), RT_ERROR_NOT_FOUND);

    // A loop blocked for 3.5 periods gets one callback, not a burst.
    q.Advance(CRtTimeValue(3L, 500000L));
    CRtTimeValue remain;
    EXPECT_EQ(q.CheckExpire(&remain), 1);
    EXPECT_TRUE(log.back().cur == q.Now());  // the pass's start, not the due time
    EXPECT_TRUE(q.GetEarliestTime() == q.Now() + CRtTimeValue(0L, 500000L));
    EXPECT_TRUE(remain == CRtTimeValue(0L, 500000L));
    EXPECT_EQ(q.CancelTimer(&endless), RT_OK);

    // A tiny period after an hour's stall: still one callback, due right after.
    q.ScheduleTimer(&endless, nullptr, CRtTimeValue(0L, 1L), 0);
    q.Advance(CRtTimeValue(3600L, 0L));
    EXPECT_EQ(q.CheckExpire(), 1);
    EXPECT_TRUE(q.GetEarliestTime() == q.Now() + CRtTimeValue(0L, 1L));
}

TEST(TimerQueue, ValidatesIntervalsHandlersAndSaturatesHugeOnes) {
    TraceCapture traces;
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    // A non-positive interval is due at once, and only for a one-shot.
    const struct {
        CRtTimeValue interval;
        unsigned long count;
        int result;
    } kCases[] = {
        {CRtTimeValue::s_tvZero, 1, RT_OK},
        {CRtTimeValue(-1L, 0L), 1, RT_OK},
        {CRtTimeValue::s_tvZero, 0, RT_ERROR_INVALID_ARG},
        {CRtTimeValue::s_tvZero, 2, RT_ERROR_INVALID_ARG},
        {CRtTimeValue(-1L, 0L), 0, RT_ERROR_INVALID_ARG},
    };
    for (const auto& c : kCases) {
        log.clear();
        EXPECT_EQ(q.ScheduleTimer(&h, nullptr, c.interval, c.count), c.result);
        EXPECT_EQ(q.CheckExpire(), c.result == RT_OK ? 1 : 0);
        EXPECT_EQ(q.CancelTimer(&h), RT_ERROR_NOT_FOUND);  // fired, or never stored
    }
    EXPECT_EQ(traces.Count("Assert failed: aInterval > CRtTimeValue::s_tvZero || aCount == 1"), 3u);

    EXPECT_EQ(q.ScheduleTimer(nullptr, nullptr, kSec1, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(q.CancelTimer(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(traces.Count("Assert failed: aEh"), 2u);
    CRtTimeValue remain;
    EXPECT_EQ(q.CheckExpire(&remain), 0);
    EXPECT_TRUE(remain == CRtTimeValue::s_tvMax);
    EXPECT_TRUE(q.GetEarliestTime() == CRtTimeValue::s_tvMax);

    // A huge interval means never rather than wrapping into the past.
    EXPECT_EQ(q.ScheduleTimer(&h, nullptr, CRtTimeValue::s_tvMax, 1), RT_OK);
    q.Advance(CRtTimeValue(86400L, 0L));
    EXPECT_EQ(q.CheckExpire(), 0);
    EXPECT_TRUE(q.GetEarliestTime() == CRtTimeValue::s_tvMax);
}

TEST(TimerQueue, ASecondScheduleReplacesTheHandlersTimer) {
    std::vector<Fired> log;
    RecordingHandler h(1, &log);
    ManualClockQueue q;
    EXPECT_EQ(q.ScheduleTimer(&h, Token(1), kSec1, 0), RT_OK);
    EXPECT_EQ(q.ScheduleTimer(&h, Token(2), kSec3, 2), RT_ERROR_FOUND);
    EXPECT_TRUE(q.GetEarliestTime() == kStart + kSec3);
    Tick(q, 10);
    ASSERT_EQ(log.size(), 2u);  // one timer, the second call's interval and count
    EXPECT_EQ(log[0].token, Token(2));
    EXPECT_TRUE(log[0].cur == kStart + kSec3);
    EXPECT_TRUE(log[1].cur == kStart + CRtTimeValue(6L, 0L));
}

// Timers are re-armed before their callback, and callbacks run outside any
// guard: each may cancel or replace its own timer and others, and timers it
// adds that are already due fire in the same pass.
TEST(TimerQueue, CallbacksMayCancelReplaceAndAddTimers) {
    std::vector<Fired> log;
    ManualClockQueue q;
    std::vector<int> results;
    RecordingHandler stopper(1, &log), oneShot(2, &log), replacer(3, &log), restarter(4, &log);
    RecordingHandler victim(5, &log), added(6, &log), later(7, &log);
    stopper.m_Action = [&] { results.push_back(q.CancelTimer(&stopper)); };
    oneShot.m_Action = [&] { results.push_back(q.CancelTimer(&oneShot)); };
    replacer.m_Action = [&] {
        if (CountOf(log, 3) == 1) {
            results.push_back(q.ScheduleTimer(&replacer, Token(7), kSec3, 1));
        }
    };
    restarter.m_Action = [&] {  // fires first: pushed last
        if (CountOf(log, 4) == 1) {
            results.push_back(q.CancelTimer(&victim));
            results.push_back(q.ScheduleTimer(&added, nullptr, CRtTimeValue::s_tvZero, 1));
            results.push_back(q.ScheduleTimer(&later, nullptr, kSec1, 1));
            results.push_back(q.ScheduleTimer(&restarter, nullptr, kSec1, 1));  // it was done
        }
    };
    for (RecordingHandler* h : {&victim, &stopper, &replacer, &oneShot, &restarter}) {
        q.ScheduleTimer(h, nullptr, kSec1, h == &stopper || h == &replacer ? 0 : 1);
    }
    q.Advance(kSec1);
    EXPECT_EQ(q.CheckExpire(), 5);  // not the victim nor the later one
    EXPECT_EQ(Ids(log), (std::vector<int>{4, 6, 2, 3, 1}));
    EXPECT_EQ(results, (std::vector<int>{RT_OK, RT_OK, RT_OK, RT_OK, RT_ERROR_NOT_FOUND,
                                         RT_ERROR_FOUND, RT_OK}));
    Tick(q, 5);
    EXPECT_EQ(Ids(log), (std::vector<int>{4, 6, 2, 3, 1, 4, 7, 3}));
    EXPECT_EQ(log.back().token, Token(7));  // the replacement, 3 s later
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

TEST(TimerQueue, TheObserverHearsWhenTheQueueStopsBeingEmpty) {
    struct Observer : IRtObserver {
        void OnObserve(const char* aTopic, void* aData) override {
            calls.push_back(std::string(aTopic) + (aData ? "+data" : ""));
        }
        std::vector<std::string> calls;
    } observer;
    std::vector<Fired> log;
    RecordingHandler a(1, &log), b(2, &log);
    ManualClockQueue q(&observer);
    q.ScheduleTimer(&a, nullptr, kSec1, 1);
    q.ScheduleTimer(&b, nullptr, kSec1, 1);
    q.ScheduleTimer(&a, nullptr, kSec2, 1);
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"TimerQueue"}));
    q.Advance(kSec3);
    q.CheckExpire();  // empties the queue
    q.ScheduleTimer(&a, nullptr, kSec1, 1);
    EXPECT_EQ(observer.calls.size(), 2u);
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
