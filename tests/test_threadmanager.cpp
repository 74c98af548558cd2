// The thread registry and the manager's life cycle.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "trace_capture.h"
#include "rtframework.h"
#include "task_thread_helpers.h"

TEST(ThreadManager, InstanceAdoptsTheFirstCallerAsTheMainThreadOnce) {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    ASSERT_TRUE(manager);
    EXPECT_EQ(CRtThreadManager::Instance(), manager);
    CRtThread* main = manager->GetThread(CRtThreadManager::TT_MAIN);
    ASSERT_TRUE(main);
    EXPECT_EQ(main->GetThreadId(), CRtThreadManager::GetThreadSelfId());
    EXPECT_EQ(manager->GetThread(CRtThreadManager::TT_CURRENT), main);
    EXPECT_TRUE(CRtThreadManager::IsEqualCurrentThread(int(CRtThreadManager::TT_MAIN)));
    EXPECT_NE(manager->GetThreadEventQueue(CRtThreadManager::TT_MAIN), nullptr);
    EXPECT_NE(manager->GetThreadReactor(CRtThreadManager::TT_MAIN), nullptr);
    CRtThread* network = manager->GetThread(CRtThreadManager::TT_NETWORK);
    ASSERT_TRUE(network);
    EXPECT_NE(network->GetThreadId(), main->GetThreadId());
    EXPECT_EQ(manager->GetThreadTimerQueue(CRtThreadManager::TT_NETWORK),
              static_cast<IRtTimerQueue*>(network->GetReactor()));

    TraceCapture trace;
    EXPECT_EQ(manager->InitMainThread(0, nullptr), RT_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(trace.Count("Assert failed: m_Threads.empty()"), 1u);
    EXPECT_EQ(trace.Count("You should InitMainThread before creating other thread!"), 1u);

    // The main thread's events run when the host drives its loop.
    IRtEventQueue* queue = manager->GetThreadEventQueue(CRtThreadManager::TT_MAIN);
    EXPECT_EQ(queue->SendEvent(new FnEvent([] { return RT_ERROR_FOUND; })), RT_ERROR_FOUND);
    std::atomic<int> ran{0};
    queue->PostEvent(new FnEvent([&] { return ran++, RT_OK; }));
    EXPECT_EQ(ran.load(), 0);
    EXPECT_TRUE(WaitUntil([&] { return RtProcessMainLoopPending(), ran.load() == 1; }));
}

TEST(ThreadManager, LooksThreadsUpByTypeAndByTheCallingThread) {
    CRtThreadManager manager;
    ASSERT_EQ(manager.InitMainThread(0, nullptr), RT_OK);
    EXPECT_EQ(manager.GetAndIncreamUserType(), 1001);
    EXPECT_EQ(manager.GetAndIncreamUserType(), 1002);

    CRtThread* task = nullptr;
    ASSERT_EQ(manager.CreateUserTaskThread(task, CRtThreadManager::TF_JOINABLE, 0), RT_OK);
    EXPECT_EQ(task->GetThreadType(), 1003);
    EXPECT_EQ(manager.GetThread(1003), task);
    EXPECT_EQ(manager.GetThreadTimerQueue(1003), nullptr);
    EXPECT_EQ(manager.GetThreadTimerQueue(4242), nullptr);
    EXPECT_EQ(manager.GetThreadEventQueue(4242), nullptr);
    EXPECT_EQ(manager.GetThreadReactor(4242), nullptr);
    EXPECT_EQ(manager.GetThread(4242), nullptr);

    CRtThread* seen = nullptr;
    task->GetEventQueue()->SendEvent(new FnEvent([&] {
        seen = CRtThreadManager::Instance()->GetThread(CRtThreadManager::TT_CURRENT);
        return RT_OK;
    }));
    EXPECT_EQ(seen, task);
    std::thread stranger([&] { seen = manager.GetThread(CRtThreadManager::TT_CURRENT); });
    stranger.join();
    EXPECT_EQ(seen, nullptr);
    EXPECT_FALSE(CRtThreadManager::IsEqualCurrentThread(4242));
    // The manager stops, joins and destroys the task thread.
}

TEST(ThreadManager, RefusesBadRegistrations) {
    TraceCapture trace;
    CRtThreadManager manager;
    ASSERT_EQ(manager.InitMainThread(0, nullptr), RT_OK);
    CRtThread* main = manager.GetThread(CRtThreadManager::TT_MAIN);
    EXPECT_EQ(manager.RegisterThread(main), RT_ERROR_FOUND);
    EXPECT_EQ(trace.Count("CRtThreadManager::RegisterThread, have registered. aThread="), 1u);
    EXPECT_EQ(manager.RegisterThread(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.UnregisterThread(nullptr), RT_ERROR_INVALID_ARG);

    CRtThread* task = nullptr;
    ASSERT_EQ(manager.CreateUserTaskThread(task, CRtThreadManager::TF_JOINABLE, 0), RT_OK);
    EXPECT_EQ(manager.UnregisterThread(task), RT_OK);
    EXPECT_EQ(manager.UnregisterThread(task), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(manager.RegisterThread(task), RT_OK);
}

TEST(ThreadManager, OnlyTheMainThreadStopsAndJoinsAll) {
    TraceCapture trace;
    CRtThreadManager manager;
    ASSERT_EQ(manager.InitMainThread(0, nullptr), RT_OK);
    CRtThread* first = nullptr;
    CRtThread* second = nullptr;
    ASSERT_EQ(manager.CreateUserTaskThread(first, CRtThreadManager::TF_JOINABLE, 0), RT_OK);
    ASSERT_EQ(manager.CreateUserTaskThread(second, CRtThreadManager::TF_JOINABLE, 0), RT_OK);

    int stopRv = 0;
    int joinRv = 0;
    first->GetEventQueue()->SendEvent(new FnEvent([&] {
        stopRv = manager.StopAllThreads(nullptr);
        joinRv = manager.JoinAllThreads();
        return RT_OK;
    }));
    EXPECT_EQ(stopRv, RT_ERROR_FAILURE);
    EXPECT_EQ(joinRv, RT_ERROR_FAILURE);
    EXPECT_EQ(trace.Count("Assert failed: IsThreadEqual(pMain->GetThreadId(), GetThreadSelfId())"),
              2u);
    // Nothing was stopped: both still run events.
    EXPECT_EQ(second->GetEventQueue()->SendEvent(new FnEvent([] { return RT_ERROR_FOUND; })),
              RT_ERROR_FOUND);

    std::atomic<int> ran{0};
    for (int i = 0; i < 100; ++i) {
        second->GetEventQueue()->PostEvent(new FnEvent([&] { return ran++, RT_OK; }));
    }
    EXPECT_EQ(manager.StopAllThreads(nullptr), RT_OK);
    EXPECT_EQ(manager.JoinAllThreads(), RT_OK);
    EXPECT_EQ(ran.load(), 100);
    EXPECT_EQ(first->GetEventQueue()->PostEvent(new FnEvent([] { return RT_OK; })),
              RT_ERROR_NOT_INITIALIZED);
}

TEST(ThreadManager, AHostManagerSurvivesTheExitCleanUp) {
    CRtThreadManager manager;
    ASSERT_EQ(manager.InitMainThread(0, nullptr), RT_OK);
    CRtThreadManager::CleanupOnlyOne();
    EXPECT_NE(manager.GetThread(CRtThreadManager::TT_MAIN), nullptr);
    EXPECT_EQ(CRtThreadManager::Instance(), &manager);
    EXPECT_EQ(manager.GetAndIncreamUserType(), 1001);
}
