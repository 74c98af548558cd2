// Timers under churn: a large population of one-shot and repeating timers on
// one framework thread, whose callbacks cancel themselves, cancel others,
// reschedule others and start new ones. Every live timer fires once per due
// time and never early; a cancelled one never fires again.
#include <chrono>
#include <random>
#include <vector>

#include "stress_common.h"

namespace {

class TimerChurn;

// One timer; its state is the churn's and lives on the owner thread.
struct ChurnTimer : IRtTimerHandler {
    void OnTimeout(const CRtTimeValue& aCurTime, void*) override;

    TimerChurn* churn = nullptr;
    bool live = false;
    CRtTimeValue scheduledAt;  // just before ScheduleTimer: a lower bound of the queue's start
    long intervalMs = 0;
    unsigned long count = 0;
    unsigned long fired = 0;  // since the last schedule
};

// Drives the population on the owner thread. Every timer that ends (fires its
// last time or is cancelled) is replaced by a new one until the pool is used,
// so about kLive timers are pending at any time.
class TimerChurn {
public:
    TimerChurn(IRtTimerQueue* aQueue, long aTotal, uint32_t aSeed)
        : m_queue(aQueue), m_pool(static_cast<size_t>(aTotal)), m_rng(aSeed) {
        for (ChurnTimer& t : m_pool) {
            t.churn = this;
        }
    }

    void Start(long aLive) {
        for (long i = 0; i < aLive; ++i) {
            ScheduleNew();
        }
    }
    bool Done() const { return m_used == m_pool.size() && m_live == 0; }

    void Fired(ChurnTimer& aTimer, const CRtTimeValue& aCurTime) {
        ++fires;
        if (!aTimer.live) {
            ++firedWhenDead;
            return;
        }
        ++aTimer.fired;
        CRtTimeValue earliest = aTimer.scheduledAt + Ms(aTimer.intervalMs * long(aTimer.fired));
        if (aCurTime < earliest || CRtTimeValue::GetTimeOfDay() < earliest) {
            ++early;
        }
        if (aTimer.fired == aTimer.count) {
            End(aTimer);
        }
        unsigned action = m_rng() % 8;
        if (action < 2) {
            // Itself (a repeating one stops, a finished one is gone already) or
            // another, live or ended.
            ChurnTimer& target = action == 0 ? aTimer : Pick();
            int rv = m_queue->CancelTimer(&target);
            wrongResults += rv != (target.live ? RT_OK : RT_ERROR_NOT_FOUND);
            if (target.live) {
                ++cancels;
                End(target);
            }
        } else if (action == 2) {  // another, live or ended: it starts over
            ++reschedules;
            Schedule(Pick());
        } else if (action == 3) {
            ScheduleNew();
        }
    }

    long fires = 0, firedWhenDead = 0, early = 0, wrongResults = 0;
    long cancels = 0, reschedules = 0;

private:
    void ScheduleNew() {
        if (m_used < m_pool.size()) {
            Schedule(m_pool[m_used++]);
        }
    }
    // A one-shot within 20 ms, or up to 3 expiries 1 to 20 ms apart.
    void Schedule(ChurnTimer& aTimer) {
        aTimer.count = 1 + m_rng() % 3;
        aTimer.intervalMs = long(m_rng() % 21);
        if (aTimer.count > 1 && aTimer.intervalMs == 0) {
            aTimer.intervalMs = 1;
        }
        aTimer.fired = 0;
        aTimer.scheduledAt = CRtTimeValue::GetTimeOfDay();
        int rv = m_queue->ScheduleTimer(&aTimer, nullptr, Ms(aTimer.intervalMs), aTimer.count);
        wrongResults += rv != (aTimer.live ? RT_ERROR_FOUND : RT_OK);
        if (!aTimer.live) {
            aTimer.live = true;
            ++m_live;
        }
    }
    void End(ChurnTimer& aTimer) {
        aTimer.live = false;
        --m_live;
        ScheduleNew();
    }
    ChurnTimer& Pick() { return m_pool[m_rng() % m_used]; }

    IRtTimerQueue* m_queue;
    std::vector<ChurnTimer> m_pool;
    size_t m_used = 0;
    long m_live = 0;
    std::mt19937 m_rng;
};

void ChurnTimer::OnTimeout(const CRtTimeValue& aCurTime, void*) {
    churn->Fired(*this, aCurTime);
}

class TimerStress : public ::testing::TestWithParam<Owner> {
protected:
    void SetUp() override { ASSERT_TRUE(CRtThreadManager::Instance()); }
};

}  // namespace

TEST_P(TimerStress, ChurningTimersFireOncePerDueTimeAndNeverEarly) {
    const long kTotal = StressCount(100000);
    const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("seed " + std::to_string(seed));
    OwnerThread owner(GetParam());
    ASSERT_TRUE(owner.Get());
    IRtTimerQueue* queue = owner.Get()->GetTimerQueue();
    ASSERT_TRUE(queue);

    TimerChurn churn(queue, kTotal, seed);
    auto start = std::chrono::steady_clock::now();
    RunOn(owner.Get(), [&] { churn.Start(std::min(kTotal, 2000L)); });
    bool done = false;
    ASSERT_TRUE(WaitUntil(
        [&] {
            RunOn(owner.Get(), [&] { done = churn.Done(); });
            return done;
        },
        std::chrono::minutes(5)))
        << "timers still pending: one was lost";
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(churn.firedWhenDead, 0);
    EXPECT_EQ(churn.early, 0);
    EXPECT_EQ(churn.wrongResults, 0);
    Figure("timers", kTotal);
    Figure("timer_fires", churn.fires);
    Figure("timer_cancels", churn.cancels);
    Figure("timer_reschedules", churn.reschedules);
    Figure("seconds", seconds);
}

INSTANTIATE_TEST_SUITE_P(Owners, TimerStress, ::testing::Values(Owner::TimerTask, Owner::Reactor),
                         [](const ::testing::TestParamInfo<Owner>& aInfo) {
                             return std::string(OwnerName(aInfo.param));
                         });
