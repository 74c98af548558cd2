// Events under load: many senders posting to one framework thread, send round
// trips, and owners that stop while senders are blocked on them.
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "stress_common.h"

namespace {

using Clock = std::chrono::steady_clock;

// What one owner thread saw of the tagged events: touched on the owner thread
// only, read by the test after a send has passed behind every post.
struct Arrivals {
    explicit Arrivals(int aSenders) : next(aSenders, 0) {}
    std::vector<long> next;  // the sequence number each sender's next event must carry
    long outOfOrder = 0;
};

// Carries its sender and sequence number; checks both where it runs.
class TaggedEvent : public IRtEvent {
public:
    TaggedEvent(Arrivals* aArrivals, int aSender, long aSeq, std::atomic<long>* aReleased)
        : m_arrivals(aArrivals), m_sender(aSender), m_seq(aSeq), m_released(aReleased) {}
    int OnEventFire() override {
        long& next = m_arrivals->next[m_sender];
        m_arrivals->outOfOrder += m_seq != next;
        next = m_seq + 1;
        return static_cast<int>(m_seq % 1000);
    }
    void OnDestorySelf() override {
        m_released->fetch_add(1, std::memory_order_relaxed);
        delete this;
    }

private:
    Arrivals* m_arrivals;
    int m_sender;
    long m_seq;
    std::atomic<long>* m_released;
};

class EventStress : public ::testing::TestWithParam<Owner> {
protected:
    void SetUp() override { ASSERT_TRUE(CRtThreadManager::Instance()); }
};

std::string OwnerParamName(const ::testing::TestParamInfo<Owner>& aInfo) {
    return OwnerName(aInfo.param);
}

}  // namespace

// Posts and sends from many senders: each event runs once, in its sender's
// order; a send returns its own event's result.
TEST_P(EventStress, EverySendersEventsArriveOnceAndInOrder) {
    OwnerThread owner(GetParam());
    ASSERT_TRUE(owner.Get());
    for (bool send : {false, true}) {
        SCOPED_TRACE(send ? "sends" : "posts");
        const int kSenders = send ? 4 : 8;
        const long kPerSender = StressCount(send ? 10000 : 100000);
        Arrivals arrivals(kSenders);
        std::atomic<long> released{0}, failed{0};
        auto start = Clock::now();
        std::vector<std::thread> senders;
        for (int s = 0; s < kSenders; ++s) {
            senders.emplace_back([&, s] {
                for (long i = 0; i < kPerSender; ++i) {
                    auto* event = new TaggedEvent(&arrivals, s, i, &released);
                    failed += send ? owner.Queue()->SendEvent(event) != static_cast<int>(i % 1000)
                                   : owner.Queue()->PostEvent(event) != RT_OK;
                }
            });
        }
        for (std::thread& t : senders) {
            t.join();
        }
        // A send queues behind every post, so when it returns all of them ran.
        EXPECT_EQ(owner.Queue()->SendEvent(new FnEvent([] { return RT_OK; })), RT_OK);
        if (!send) {
            double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            Figure("events_per_second", kSenders * kPerSender / seconds);
        }
        EXPECT_EQ(failed.load(), 0);
        EXPECT_EQ(arrivals.outOfOrder, 0);
        for (int s = 0; s < kSenders; ++s) {
            EXPECT_EQ(arrivals.next[s], kPerSender) << "sender " << s;
        }
        // The owner releases a sent event after waking its sender, so the last
        // releases may still be on their way.
        EXPECT_TRUE(WaitUntil([&] { return released.load() == kSenders * kPerSender; }))
            << released.load();
    }
}

// Each round: the owner is held in an event while senders block on it and the
// test stops it; then the owner is let go. Every sender must come back with a
// result: its event's, a refusal, or a discard.
TEST_P(EventStress, SendersBlockedOnAStoppingOwnerAllReturn) {
    const int kSenders = 4;
    const long kRounds = StressCount(1000);
    const int kRan = 7;
    long ran = 0, refused = 0, discarded = 0;
    double slowest = 0;

    for (long round = 0; round < kRounds; ++round) {
        OwnerThread owner(GetParam());
        ASSERT_TRUE(owner.Get());
        std::atomic<bool> held{false}, letGo{false};
        owner.Queue()->PostEvent(new FnEvent([&] {
            held = true;
            while (!letGo) {
                std::this_thread::yield();
            }
            return RT_OK;
        }));
        ASSERT_TRUE(WaitUntil([&] { return held.load(); }));

        std::atomic<int> results[kSenders];
        std::atomic<int> released{0};
        std::atomic<int> returned{0};
        Clock::time_point returnedAt[kSenders];
        std::vector<std::thread> senders;
        for (int s = 0; s < kSenders; ++s) {
            results[s] = -1;
            senders.emplace_back([&, s] {
                results[s] = owner.Queue()->SendEvent(new FnEvent([] { return kRan; }, &released));
                returnedAt[s] = Clock::now();
                returned++;
            });
        }
        // Half the rounds stop with every sender queued, half while they come.
        if (round % 2 == 0) {
            ASSERT_TRUE(WaitUntil(
                [&] { return owner.Queue()->GetPendingEventsCount() >= unsigned(kSenders); }));
        }
        owner.Get()->Stop(nullptr);
        auto letGoAt = Clock::now();
        letGo = true;
        ASSERT_TRUE(WaitUntil([&] { return returned.load() == kSenders; }))
            << "a sender is still blocked in round " << round;
        for (std::thread& t : senders) {
            t.join();
        }
        CRtThread* thread = owner.Release();
        EXPECT_EQ(thread->Join(0xFFFFFFFF), RT_OK);
        thread->Destory(0);

        EXPECT_EQ(released.load(), kSenders);
        for (int s = 0; s < kSenders; ++s) {
            slowest =
                std::max(slowest, std::chrono::duration<double>(returnedAt[s] - letGoAt).count());
            int rv = results[s];
            ran += rv == kRan;
            refused += rv == RT_ERROR_NOT_INITIALIZED;
            discarded += rv == RT_ERROR_NOT_AVAILABLE;
            ASSERT_TRUE(rv == kRan || rv == RT_ERROR_NOT_INITIALIZED ||
                        rv == RT_ERROR_NOT_AVAILABLE)
                << "round " << round << " sender " << s << " rv=" << rv;
        }
    }
    Figure("stopping_rounds", kRounds);
    Figure("senders_ran", ran);
    Figure("senders_refused", refused);
    Figure("senders_discarded", discarded);
    Figure("slowest_return_after_stop_s", slowest);
}

INSTANTIATE_TEST_SUITE_P(Owners, EventStress,
                         ::testing::Values(Owner::Task, Owner::TimerTask, Owner::Reactor),
                         OwnerParamName);
