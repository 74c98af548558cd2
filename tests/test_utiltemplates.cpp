// Object helpers: the object key, singletons and the clean-up chain, the
// owner-thread check, the stop flag and the main thread's stop signal.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "trace_capture.h"
#include "rtframework.h"

namespace {

std::vector<std::string> g_destroyedOrder;

class First {
public:
    int m_value = 1;
    ~First() { g_destroyedOrder.push_back("First"); }

private:
    friend class CRtSingletonT<First>;
    First() = default;
};

class Second {
public:
    ~Second() { g_destroyedOrder.push_back("Second"); }
};

}  // namespace

TEST(BaseObj, KeepsKeysShorterThan64CharactersAndCopiesThem) {
    CRtBaseObj obj;
    EXPECT_STREQ(obj.GetObjKey(), "");
    const std::string key63(63, 'k');
    obj.SetObjKey(key63.c_str());
    obj.SetObjKey(std::string(64, 'x').c_str());
    obj.SetObjKey(nullptr);
    EXPECT_EQ(obj.GetObjKey(), key63);
    CRtBaseObj copy(obj);
    EXPECT_EQ(copy.GetObjKey(), key63);
    copy = CRtBaseObj();
    EXPECT_STREQ(copy.GetObjKey(), "");
}

TEST(Singleton, IsCreatedOnceAndCleanedUpNewestFirst) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    First* first = CRtSingletonT<First>::Instance();
    EXPECT_EQ(CRtSingletonT<First>::Instance(), first);

    // Concurrent first uses of another singleton all see one object.
    std::vector<Second*> seen(4);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] { seen[i] = CRtSingletonT<Second>::Instance(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), 4);

    CRtCleanUpBase::CleanupAll();
    EXPECT_EQ(g_destroyedOrder, (std::vector<std::string>{"Second", "First"}));
    CRtCleanUpBase::CleanupAll();  // the chain is empty now
    EXPECT_EQ(g_destroyedOrder.size(), 2u);

    EXPECT_EQ(CRtSingletonT<First>::Instance()->m_value, 1);  // a fresh one
}

TEST(EnsureSingleThread, ReportsUseFromAnotherThreadAndGoesOn) {
    TraceCapture trace;
    CRtEnsureSingleThread guard;
    guard.EnsureSingleThread();
    EXPECT_EQ(trace.Count("Assert failed"), 0u);

    std::thread other([&] { guard.EnsureSingleThread(); });
    other.join();
    EXPECT_EQ(trace.Count("Assert failed: CRtThreadManager::IsThreadEqual(m_ThreadIdOpen, tidCur)"),
              1u);

    std::thread adopt([&] {
        guard.Reset2CurrentThreadId();
        guard.EnsureSingleThread();
    });
    adopt.join();
    guard.EnsureSingleThread();
    EXPECT_EQ(trace.Count("Assert failed"), 2u);
    guard.Reset2ThreadId(CRtThreadManager::GetThreadSelfId());
    guard.EnsureSingleThread();
    EXPECT_EQ(trace.Count("Assert failed"), 2u);
}

TEST(StopFlag, StartsStoppedAndReportsMisuse) {
    TraceCapture trace;
    CRtStopFlag flag;
    EXPECT_TRUE(flag.IsFlagStopped());
    flag.SetStartFlag();
    EXPECT_FALSE(flag.IsFlagStopped());
    flag.SetStartFlag();
    EXPECT_EQ(trace.Count("Assert failed: m_bStoppedFlag"), 1u);
    EXPECT_FALSE(flag.IsFlagStopped());

    int seen = -1;
    std::thread other([&] { seen = flag.IsFlagStopped(); });
    other.join();
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(trace.Count("IsThreadEqual(m_ThreadIdOpen, tidCur)"), 1u);
    flag.SetStopFlag();
    EXPECT_TRUE(flag.IsFlagStopped());
}

TEST(SignalStop, FailsWithoutAMainThread) {
    CRtThreadManager manager;  // the host has not adopted a main thread
    EXPECT_EQ(CRtSignalStop::Instance()->Launch(0), RT_ERROR_FAILURE);
    EXPECT_EQ(CRtSignalStop::Instance()->OnEventFire(), RT_ERROR_NULL_POINTER);
}

TEST(SignalStop, StopsTheMainThreadsLoop) {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    ASSERT_TRUE(manager);
    EXPECT_EQ(CRtSignalStop::Instance()->Launch(15), RT_OK);
    EXPECT_EQ(RtRunMainLoop(), RT_OK);  // returns: the stop came first
    // A stopped main thread takes no more work.
    IRtEventQueue* queue = manager->GetThreadEventQueue(CRtThreadManager::TT_MAIN);
    EXPECT_EQ(queue->PostEvent(CRtSignalStop::Instance()), RT_ERROR_NOT_INITIALIZED);
}
