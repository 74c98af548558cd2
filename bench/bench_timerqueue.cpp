// The timer queue against a plain timer set built from standard containers: a
// std::multimap keyed by due time plus a handler -> iterator map. Both read the
// same clock, so the rows compare the storage and the rules around it.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include "rtframework.h"

namespace {

class CountingHandler : public IRtTimerHandler {
public:
    void OnTimeout(const CRtTimeValue&, void*) override { ++m_nFired; }
    int m_nFired = 0;
};

int64_t ToUsec(const CRtTimeValue& aTv) {
    return static_cast<int64_t>(aTv.GetSec()) * 1000000 + aTv.GetUsec();
}

// The baseline: the obvious timer set. Ties fire first-in first-out (the
// multimap's own rule), which is cheaper than the queue's newest-first rule.
class BaselineTimers {
public:
    int Schedule(IRtTimerHandler* aEh, void* aToken, const CRtTimeValue& aInterval,
                 unsigned long aCount) {
        int nRet = 0;
        auto found = m_Index.find(aEh);
        if (found != m_Index.end()) {
            m_Timers.erase(found->second);
            m_Index.erase(found);
            nRet = 1;
        }
        int64_t llDue = ToUsec(CRtTimeValue::GetTimeOfDay()) + ToUsec(aInterval);
        auto it = m_Timers.emplace(llDue, Timer{aEh, aToken, ToUsec(aInterval), aCount});
        m_Index.emplace(aEh, it);
        return nRet;
    }

    int Cancel(IRtTimerHandler* aEh) {
        auto found = m_Index.find(aEh);
        if (found == m_Index.end()) {
            return 1;
        }
        m_Timers.erase(found->second);
        m_Index.erase(found);
        return 0;
    }

    int CheckExpire(int64_t* aRemainUsec) {
        int64_t llCur = ToUsec(CRtTimeValue::GetTimeOfDay());
        int nCount = 0;
        while (!m_Timers.empty()) {
            auto first = m_Timers.begin();
            if (first->first > llCur) {
                *aRemainUsec = first->first - llCur;
                return nCount;
            }
            int64_t llDue = first->first;
            Timer timer = first->second;
            m_Timers.erase(first);
            m_Index.erase(timer.pEh);
            if (timer.dwCount != 1 && timer.llInterval > 0) {
                while (llDue <= llCur) {
                    llDue += timer.llInterval;
                }
                m_Index[timer.pEh] =
                    m_Timers.emplace(llDue, Timer{timer.pEh, timer.pToken, timer.llInterval,
                                                  timer.dwCount ? timer.dwCount - 1 : 0});
            }
            timer.pEh->OnTimeout(CRtTimeValue(), timer.pToken);
            ++nCount;
        }
        *aRemainUsec = INT64_MAX;
        return nCount;
    }

private:
    struct Timer {
        IRtTimerHandler* pEh;
        void* pToken;
        int64_t llInterval;
        unsigned long dwCount;
    };
    std::multimap<int64_t, Timer> m_Timers;
    std::unordered_map<IRtTimerHandler*, std::multimap<int64_t, Timer>::iterator> m_Index;
};

// Intervals spread over 1 to 1000 s, so new timers land all over the order.
std::vector<CRtTimeValue> FutureIntervals(size_t aCount) {
    std::mt19937 rng(42);
    std::vector<CRtTimeValue> intervals;
    for (size_t i = 0; i < aCount; ++i) {
        intervals.push_back(
            CRtTimeValue(static_cast<long>(1 + rng() % 1000), static_cast<long>(rng() % 1000000)));
    }
    return intervals;
}

// Due times spread over the last second: all due, in random order.
std::vector<CRtTimeValue> PastIntervals(size_t aCount) {
    std::mt19937 rng(7);
    std::vector<CRtTimeValue> intervals;
    for (size_t i = 0; i < aCount; ++i) {
        intervals.push_back(CRtTimeValue(0L, -static_cast<long>(rng() % 1000000)));
    }
    return intervals;
}

const size_t kIntervalMask = 1023;

// ---- Schedule then cancel with n timers present ---------------------------------------

void BM_TimerQueue_ScheduleCancel(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    std::vector<CountingHandler> handlers(n + 1);
    std::vector<CRtTimeValue> intervals = FutureIntervals(n + kIntervalMask + 1);
    CRtTimerQueueOrderedList q(nullptr);
    for (size_t i = 0; i < n; ++i) {
        q.ScheduleTimer(&handlers[i], nullptr, intervals[i], 1);
    }
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            q.ScheduleTimer(&handlers[n], nullptr, intervals[n + (i++ & kIntervalMask)], 1));
        benchmark::DoNotOptimize(q.CancelTimer(&handlers[n]));
    }
}
BENCHMARK(BM_TimerQueue_ScheduleCancel)->Arg(10)->Arg(1000)->Arg(100000);

void BM_TimerBaseline_ScheduleCancel(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    std::vector<CountingHandler> handlers(n + 1);
    std::vector<CRtTimeValue> intervals = FutureIntervals(n + kIntervalMask + 1);
    BaselineTimers timers;
    for (size_t i = 0; i < n; ++i) {
        timers.Schedule(&handlers[i], nullptr, intervals[i], 1);
    }
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            timers.Schedule(&handlers[n], nullptr, intervals[n + (i++ & kIntervalMask)], 1));
        benchmark::DoNotOptimize(timers.Cancel(&handlers[n]));
    }
}
BENCHMARK(BM_TimerBaseline_ScheduleCancel)->Arg(10)->Arg(1000)->Arg(100000);

// ---- CheckExpire with 1,000 timers, none due --------------------------------------------

void BM_TimerQueue_CheckExpireNothingDue(benchmark::State& state) {
    const size_t n = 1000;
    std::vector<CountingHandler> handlers(n);
    std::vector<CRtTimeValue> intervals = FutureIntervals(n);
    CRtTimerQueueOrderedList q(nullptr);
    for (size_t i = 0; i < n; ++i) {
        q.ScheduleTimer(&handlers[i], nullptr, intervals[i], 1);
    }
    CRtTimeValue remain;
    for (auto _ : state) {
        benchmark::DoNotOptimize(q.CheckExpire(&remain));
    }
}
BENCHMARK(BM_TimerQueue_CheckExpireNothingDue);

void BM_TimerBaseline_CheckExpireNothingDue(benchmark::State& state) {
    const size_t n = 1000;
    std::vector<CountingHandler> handlers(n);
    std::vector<CRtTimeValue> intervals = FutureIntervals(n);
    BaselineTimers timers;
    for (size_t i = 0; i < n; ++i) {
        timers.Schedule(&handlers[i], nullptr, intervals[i], 1);
    }
    int64_t llRemain = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(timers.CheckExpire(&llRemain));
    }
}
BENCHMARK(BM_TimerBaseline_CheckExpireNothingDue);

// ---- Firing 100,000 one-shot timers ------------------------------------------------------

const size_t kFireCount = 100000;

void BM_TimerQueue_Fire100k(benchmark::State& state) {
    std::vector<CountingHandler> handlers(kFireCount);
    std::vector<CRtTimeValue> intervals = PastIntervals(kFireCount);
    for (auto _ : state) {
        state.PauseTiming();
        auto* q = new CRtTimerQueueOrderedList(nullptr);
        for (size_t i = 0; i < kFireCount; ++i) {
            q->ScheduleTimer(&handlers[i], nullptr, intervals[i], 1);
        }
        state.ResumeTiming();
        benchmark::DoNotOptimize(q->CheckExpire());
        state.PauseTiming();
        delete q;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFireCount));
}
BENCHMARK(BM_TimerQueue_Fire100k)->Unit(benchmark::kMillisecond);

void BM_TimerBaseline_Fire100k(benchmark::State& state) {
    std::vector<CountingHandler> handlers(kFireCount);
    std::vector<CRtTimeValue> intervals = PastIntervals(kFireCount);
    for (auto _ : state) {
        state.PauseTiming();
        auto* timers = new BaselineTimers;
        for (size_t i = 0; i < kFireCount; ++i) {
            timers->Schedule(&handlers[i], nullptr, intervals[i], 1);
        }
        state.ResumeTiming();
        int64_t llRemain = 0;
        benchmark::DoNotOptimize(timers->CheckExpire(&llRemain));
        state.PauseTiming();
        delete timers;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFireCount));
}
BENCHMARK(BM_TimerBaseline_Fire100k)->Unit(benchmark::kMillisecond);

}  // namespace
