// The thread object: start handshake, registration, join with its time limit,
// and the two ways of destruction.
#include <gtest/gtest.h>

#include <atomic>

#include "trace_capture.h"
#include "rtframework.h"

namespace {

std::atomic<int> g_destroyed{0};

// A thread whose loop waits until released; records where its parts ran.
class GateThread : public CRtThread {
public:
    int Stop(CRtTimeValue*) override {
        m_release.Signal();
        return RT_OK;
    }
    void OnThreadInit() override {
        m_initTid = CRtThreadManager::GetThreadSelfId();
        m_initBeforeCreateReturned = !m_createReturned.load();
        m_foundSelf = CRtThreadManager::Instance()->GetThread(CRtThreadManager::TT_CURRENT);
    }
    void OnThreadRun() override {
        m_joinSelf = Join(0xFFFFFFFF);
        m_release.Wait(nullptr);
        m_runFoundSelf = CRtThreadManager::Instance()->GetThread(CRtThreadManager::TT_CURRENT);
        m_ended = true;
    }

    CRtThreadManager::TFlag Flag() const { return m_Flag; }

    CRtEventThread m_release;
    std::atomic<bool> m_createReturned{false};
    std::atomic<bool> m_ended{false};
    unsigned long m_initTid = 0;
    bool m_initBeforeCreateReturned = false;
    CRtThread* m_foundSelf = nullptr;
    std::atomic<CRtThread*> m_runFoundSelf{nullptr};
    std::atomic<int> m_joinSelf{0};

protected:
    ~GateThread() override { g_destroyed++; }
};

}  // namespace

TEST(Thread, CreateRunsInitOnTheNewThreadBeforeReturningAndRegisters) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    TraceCapture trace;
    auto* thread = new GateThread();
    ASSERT_EQ(thread->Create(1500, CRtThreadManager::TF_NONE), RT_OK);
    thread->m_createReturned = true;

    EXPECT_TRUE(thread->m_initBeforeCreateReturned);
    EXPECT_EQ(thread->m_initTid, thread->GetThreadId());
    EXPECT_EQ(thread->GetThreadType(), 1500);
    EXPECT_EQ(thread->Flag(), CRtThreadManager::TF_JOINABLE);
    EXPECT_EQ(thread->m_foundSelf, nullptr);  // registered only after init
    EXPECT_EQ(CRtThreadManager::Instance()->GetThread(1500), thread);
    EXPECT_EQ(trace.Count("CRtThread::Create, aType=1500 aFlag=0 this="), 1u);

    // Bad second creates leave the running thread alone.
    EXPECT_EQ(thread->Create(1501, CRtThreadManager::TF_JOINABLE), RT_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(trace.Count("Assert failed: m_Type == CRtThreadManager::TT_UNKNOWN"), 1u);

    thread->Stop(nullptr);
    EXPECT_EQ(thread->Join(0xFFFFFFFF), RT_OK);
    EXPECT_TRUE(thread->m_ended);
    EXPECT_EQ(thread->m_runFoundSelf.load(), thread);
    EXPECT_EQ(thread->m_joinSelf.load(), RT_ERROR_FAILURE);
    EXPECT_EQ(thread->Destory(0), RT_OK);
    EXPECT_EQ(g_destroyed.load(), 1);
    EXPECT_EQ(CRtThreadManager::Instance()->GetThread(1500), nullptr);
}

// A base thread has no Stop of its own.
TEST(Thread, CreateRefusesTheUnknownTypeAndATakenType) {
    TraceCapture trace;
    auto* bad = new GateThread();
    EXPECT_EQ(bad->Create(CRtThreadManager::TT_UNKNOWN, CRtThreadManager::TF_JOINABLE),
              RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.Count("Assert failed: aType != CRtThreadManager::TT_UNKNOWN"), 1u);
    EXPECT_EQ(bad->Join(10), RT_ERROR_FAILURE);  // never started
    EXPECT_EQ(bad->CRtThread::Stop(nullptr), RT_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(trace.Count("Assert failed: !\"CRtThread::Stop\""), 1u);
    bad->Destory(RT_ERROR_INVALID_ARG);
    EXPECT_EQ(g_destroyed.load(), 1);

    auto* first = new GateThread();
    ASSERT_EQ(first->Create(1600, CRtThreadManager::TF_JOINABLE), RT_OK);
    auto* second = new GateThread();
    EXPECT_EQ(second->Create(1600, CRtThreadManager::TF_JOINABLE), RT_ERROR_FOUND);
    EXPECT_TRUE(second->m_ended);  // stopped and joined before Create returned
    EXPECT_EQ(trace.Count("CRtThreadManager::RegisterThread, have registered."), 1u);
    second->Destory(RT_ERROR_FOUND);
    EXPECT_EQ(CRtThreadManager::Instance()->GetThread(1600), first);

    first->Stop(nullptr);
    first->Join(0xFFFFFFFF);
    first->Destory(0);
    EXPECT_EQ(g_destroyed.load(), 3);
}

TEST(Thread, MainTypeAdoptsTheCallingThreadWithoutStartingOne) {
    CRtThreadManager manager;  // no main thread yet
    auto* main = new GateThread();
    ASSERT_EQ(main->Create(CRtThreadManager::TT_MAIN, CRtThreadManager::TF_NONE), RT_OK);
    EXPECT_EQ(main->GetThreadId(), CRtThreadManager::GetThreadSelfId());
    EXPECT_EQ(main->Flag(), CRtThreadManager::TF_JOINABLE);
    EXPECT_EQ(main->m_initTid, 0u);  // OnThreadInit is the manager's business here
    EXPECT_EQ(manager.GetThread(CRtThreadManager::TT_CURRENT), main);
    EXPECT_EQ(main->Join(100), RT_ERROR_FAILURE);
    main->Destory(0);
    EXPECT_EQ(manager.GetThread(CRtThreadManager::TT_MAIN), nullptr);
    EXPECT_EQ(g_destroyed.load(), 1);
}

// A thread that does not end within its join is left running: its object
// stays alive until the thread ends, and is then deleted once.
TEST(Thread, AJoinThatTimesOutLeavesTheThreadAndItsObjectAlive) {
    TraceCapture trace;
    auto* thread = new GateThread();
    ASSERT_EQ(thread->Create(1700, CRtThreadManager::TF_JOINABLE), RT_OK);
    EXPECT_EQ(thread->Join(100), RT_ERROR_TIMEOUT);
    EXPECT_EQ(trace.Count("CRtThread::Join, WaitForSingleObject() timeout! tid="), 1u);
    EXPECT_EQ(trace.Count("CRtThread::Join, thread left running. tid="), 1u);

    thread->Destory(RT_ERROR_TIMEOUT);
    EXPECT_EQ(CRtThreadManager::Instance()->GetThread(1700), nullptr);
    EXPECT_EQ(g_destroyed.load(), 0);  // it is still running

    thread->m_release.Signal();  // the thread ends and takes its object with it
    EXPECT_TRUE(WaitUntil([&] { return trace.Count("CRtThread::ThreadProc, quit") == 1; }));
    EXPECT_EQ(g_destroyed.load(), 1);
}

// The thread's last trace line tells the test that its procedure is over.
TEST(Thread, ASelfDeletingThreadIsDeletedOnceWhicheverEndsFirst) {
    TraceCapture trace;
    // The loop ends before Destory: Destory deletes.
    auto* early = new GateThread();
    ASSERT_EQ(early->Create(1800, CRtThreadManager::TF_DETACHED), RT_OK);
    early->Stop(nullptr);
    ASSERT_TRUE(WaitUntil([&] { return trace.Count("CRtThread::ThreadProc, quit") == 1; }));
    EXPECT_EQ(g_destroyed.load(), 0);
    early->Destory(0);
    EXPECT_EQ(g_destroyed.load(), 1);

    // Destory before the loop ends: the thread's end deletes.
    auto* late = new GateThread();
    ASSERT_EQ(late->Create(1801, CRtThreadManager::TF_DETACHED), RT_OK);
    CRtEventThread& release = late->m_release;
    late->Destory(0);
    EXPECT_EQ(CRtThreadManager::Instance()->GetThread(1801), nullptr);
    EXPECT_EQ(g_destroyed.load(), 1);
    release.Signal();
    EXPECT_TRUE(WaitUntil([&] { return trace.Count("CRtThread::ThreadProc, quit") == 2; }));
    EXPECT_EQ(g_destroyed.load(), 2);
}
