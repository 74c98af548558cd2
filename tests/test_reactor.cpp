// The reactor: the handler repository, the dispatch rules of the reactor base
// (driven by hand through a reactor without a platform side), and the
// window-message reactors on their own threads with real loopback sockets.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <poll.h>
#endif

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config_test_env.h"
#include "loopback_helpers.h"
#include "rtframework.h"
#include "task_thread_helpers.h"
#include "trace_capture.h"

namespace {

void* Fd(intptr_t aFd) {
    return reinterpret_cast<void*>(aFd);
}

// Records its callbacks; each callback's result and side effect can be set.
class RecordingHandler : public IRtEventHandler {
public:
    explicit RecordingHandler(void* aFd) : m_fd(aFd) {}

    void* GetHandle() const override { return m_fd; }
    int OnInput(void* aFd) override { return Record("in", aFd, onInput); }
    int OnOutput(void* aFd) override { return Record("out", aFd, onOutput); }
    int OnClose(void* aFd, MASK aMask) override {
        closedMask = aMask;
        return Record("close", aFd, onClose);
    }

    std::string Calls() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_calls;
    }

    std::function<int(void*)> onInput, onOutput, onClose;
    std::atomic<long> closedMask{-1};

private:
    int Record(const char* aWhat, void* aFd, const std::function<int(void*)>& aFn) {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_calls += m_calls.empty() ? aWhat : std::string(" ") + aWhat;
        }
        return aFn ? aFn(aFd) : 0;
    }

    void* m_fd;
    std::mutex m_lock;
    std::string m_calls;
};

// The reactor base with a platform side that only counts, driven by the test
// on its own thread.
class ManualReactor : public CRtReactorBase {
public:
    ~ManualReactor() override { Close(); }

    int NotifyHandler(IRtEventHandler*, IRtEventHandler::MASK) override {
        ++notifies;
        return RT_OK;
    }
    int RunEventLoop() override { return RT_OK; }
    int StopEventLoop() override { return RT_OK; }

    using CRtReactorBase::ProcessHandleEvent;

    int notifies = 0;
    int registered = 0;
    int removed = 0;
    int refuseRegister = 0;

protected:
    int OnHandleRemoved(void*) override { return ++removed, RT_OK; }
    int OnHandleRegister(void*, IRtEventHandler::MASK, IRtEventHandler*) override {
        return refuseRegister ? RT_ERROR_UNEXPECTED : (++registered, RT_OK);
    }
};

class CountingEvent : public IRtEvent {
public:
    explicit CountingEvent(std::vector<int>* aRan, int aId) : m_ran(aRan), m_id(aId) {}
    int OnEventFire() override { return m_ran->push_back(m_id), RT_OK; }

private:
    std::vector<int>* m_ran;
    int m_id;
};

class FnTimer : public IRtTimerHandler {
public:
    explicit FnTimer(std::function<void()> aFn) : m_fn(std::move(aFn)) {}
    void OnTimeout(const CRtTimeValue&, void*) override { m_fn(); }

private:
    std::function<void()> m_fn;
};

}  // namespace

TEST(HandlerRepository, BindsFindsAndUnbindsOneElementPerHandle) {
    TraceCapture trace;
    CRtEventHandlerRepository repo;
    RecordingHandler a(Fd(5)), b(Fd(5));
    CRtEventHandlerRepository::CElement ele;

    EXPECT_EQ(repo.Find(RtInvalidHandle(), ele), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.TakeCount("Assert failed: IsVaildHandle(aFd)"), 1u);
    EXPECT_EQ(repo.Find(Fd(5), ele), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(repo.Bind(Fd(5), CRtEventHandlerRepository::CElement()), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.TakeCount("Assert failed: !aEle.IsCleared()"), 1u);

    EXPECT_EQ(repo.Bind(Fd(5), {&a, IRtEventHandler::READ_MASK}), RT_OK);
    EXPECT_EQ(repo.Bind(Fd(5), {&b, IRtEventHandler::WRITE_MASK}), RT_ERROR_FOUND);
    ASSERT_EQ(repo.Find(Fd(5), ele), RT_OK);
    EXPECT_EQ(ele.m_pEh, &b);
    EXPECT_EQ(ele.m_Mask, IRtEventHandler::WRITE_MASK);

    EXPECT_EQ(repo.Open(), RT_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(repo.Find(Fd(5), ele), RT_OK);  // kept
    EXPECT_EQ(repo.UnBind(Fd(5)), RT_OK);
    EXPECT_EQ(repo.UnBind(Fd(5)), RT_OK);
    EXPECT_EQ(repo.Open(), RT_OK);
}

TEST(HandlerDefaults, EveryDefaultBodyTracesAndFails) {
    TraceCapture trace;
    IRtEventHandler eh;
    EXPECT_EQ(eh.GetHandle(), RtInvalidHandle());
    EXPECT_EQ(eh.OnInput(Fd(1)), -1);
    EXPECT_EQ(eh.OnOutput(Fd(1)), -1);
    EXPECT_EQ(eh.OnException(Fd(1)), -1);
    EXPECT_EQ(eh.OnClose(Fd(1), 0), -1);
    for (const char* name : {"GetHandle", "OnInput", "OnOutput", "OnException", "OnClose"}) {
        EXPECT_EQ(trace.Count(std::string("Assert failed: !\"IRtEventHandler::") + name + "()\""),
                  1u)
            << name;
    }
}

class ReactorBaseTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(reactor.Open(), RT_OK); }

    ManualReactor reactor;
    TraceCapture trace;
};

TEST_F(ReactorBaseTest, RegistrationKeepsOnlyEventBitsAndReplacesTheMask) {
    RecordingHandler h(Fd(7));
    EXPECT_EQ(reactor.RegisterHandler(&h, IRtEventHandler::CLOSE_MASK), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::RegisterHandler, NULL_MASK. aMask=128"), 1u);
    EXPECT_EQ(reactor.RegisterHandler(nullptr, IRtEventHandler::READ_MASK), RT_ERROR_INVALID_ARG);

    EXPECT_EQ(reactor.RegisterHandler(&h, IRtEventHandler::READ_MASK), RT_OK);
    EXPECT_EQ(reactor.RegisterHandler(&h, IRtEventHandler::READ_MASK), RT_OK);
    EXPECT_EQ(reactor.RegisterHandler(&h, IRtEventHandler::READ_MASK | IRtEventHandler::WRITE_MASK |
                                              IRtEventHandler::SHOULD_CALL),
              RT_ERROR_FOUND);
    EXPECT_EQ(reactor.registered, 1);

    // READ off READ|WRITE keeps the handle; WRITE off WRITE unregisters it
    // without OnClose.
    EXPECT_EQ(reactor.RemoveHandler(&h, IRtEventHandler::READ_MASK), RT_ERROR_FOUND);
    EXPECT_EQ(reactor.removed, 0);
    EXPECT_EQ(reactor.RemoveHandler(&h, IRtEventHandler::READ_MASK), RT_OK);
    EXPECT_EQ(trace.TakeCount("RemoveHandleWithoutFinding_i, mask is equal. aMask=4"), 1u);
    EXPECT_EQ(reactor.RemoveHandler(&h, IRtEventHandler::WRITE_MASK), RT_OK);
    EXPECT_EQ(reactor.removed, 1);
    EXPECT_EQ(reactor.RemoveHandler(&h, IRtEventHandler::WRITE_MASK), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(h.Calls(), "");
}

TEST_F(ReactorBaseTest, AHandleThatCannotBeWatchedIsNotRegistered) {
    RecordingHandler invalid(RtInvalidHandle());
    EXPECT_EQ(reactor.RegisterHandler(&invalid, IRtEventHandler::READ_MASK), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.TakeCount("Assert failed: IsVaildHandle(aFd)"), 2u);  // Find, then Bind

    RecordingHandler refused(Fd(8));
    reactor.refuseRegister = 1;
    EXPECT_EQ(reactor.RegisterHandler(&refused, IRtEventHandler::READ_MASK), RT_ERROR_UNEXPECTED);
    reactor.refuseRegister = 0;
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(8), IRtEventHandler::READ_MASK, 0, 0, 0),
              RT_ERROR_NOT_FOUND);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::ProcessHandleEvent, handle not registed. aFd="), 1u);
}

TEST_F(ReactorBaseTest, DispatchFollowsTheRegisteredMaskAndTheCallbackResults) {
    const IRtEventHandler::MASK rw = IRtEventHandler::READ_MASK | IRtEventHandler::WRITE_MASK;
    RecordingHandler h(Fd(9));
    ASSERT_EQ(reactor.RegisterHandler(&h, IRtEventHandler::READ_MASK), RT_OK);

    // Bits that were not registered call nothing.
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(9), IRtEventHandler::WRITE_MASK, 0, 0, 0), RT_OK);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::ProcessHandleEvent, mask not registed."), 1u);
    EXPECT_EQ(h.Calls(), "");

    // Would-block on input still lets output run.
    ASSERT_EQ(reactor.RegisterHandler(&h, rw), RT_ERROR_FOUND);
    h.onInput = [](void*) { return -2; };
    h.onOutput = [](void*) { return -2; };
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(9), rw, 0, 0, 0), RT_ERROR_WOULD_BLOCK);
    EXPECT_EQ(h.Calls(), "in out");

    // A failing callback removes the handle and closes it once, with its mask.
    h.onInput = [](void*) { return -1; };
    h.onOutput = nullptr;
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(9), rw, 0, 0, 0), RT_ERROR_FAILURE);
    EXPECT_EQ(h.Calls(), "in out in close");
    EXPECT_EQ(h.closedMask.load(), rw);
    EXPECT_EQ(reactor.removed, 1);

    // A connect can be dropped: no callback, the handle is closed.
    RecordingHandler c(Fd(10));
    ASSERT_EQ(reactor.RegisterHandler(&c, IRtEventHandler::CONNECT_MASK), RT_OK);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(10), IRtEventHandler::CONNECT_MASK, 0, 0, 1),
              RT_ERROR_FAILURE);
    EXPECT_EQ(c.Calls(), "close");
}

TEST_F(ReactorBaseTest, CloseRemovesOnceAndSelfRemovalIsNotClosedAgain) {
    RecordingHandler h(Fd(11));
    ASSERT_EQ(reactor.RegisterHandler(&h, IRtEventHandler::READ_MASK), RT_OK);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(11), IRtEventHandler::CLOSE_MASK,
                                         RT_ERROR_NETWORK_SOCKET_CLOSE, 0, 0),
              RT_ERROR_FAILURE);
    EXPECT_EQ(h.Calls(), "close");
    EXPECT_EQ(h.closedMask.load(), IRtEventHandler::READ_MASK);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(11), IRtEventHandler::CLOSE_MASK, 0, 0, 0),
              RT_ERROR_NOT_FOUND);

    RecordingHandler self(Fd(12));
    ASSERT_EQ(reactor.RegisterHandler(&self, IRtEventHandler::READ_MASK), RT_OK);
    self.onInput = [&](void*) { return reactor.RemoveHandler(&self), -1; };
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(12), IRtEventHandler::READ_MASK, 0, 0, 0),
              RT_ERROR_FAILURE);
    EXPECT_EQ(self.Calls(), "in");

    // A default handler fails its input and is closed through the default too.
    struct Plain : IRtEventHandler {
        void* GetHandle() const override { return Fd(13); }
    } eh;
    ASSERT_EQ(reactor.RegisterHandler(&eh, IRtEventHandler::READ_MASK), RT_OK);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(13), IRtEventHandler::READ_MASK, 0, 0, 0),
              RT_ERROR_FAILURE);
    EXPECT_EQ(trace.Count("!\"IRtEventHandler::OnClose()\""), 1u);
}

TEST_F(ReactorBaseTest, QueuedEventsRunFiveATurnAfterOneWakeUp) {
    std::vector<int> ran;
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(reactor.PostEvent(new CountingEvent(&ran, i)), RT_OK);
    }
    EXPECT_EQ(reactor.notifies, 1);
    const size_t expectRan[] = {5, 10, 12};
    const int expectNotifies[] = {2, 3, 3};
    for (int turn = 0; turn < 3; ++turn) {
        reactor.ProcessHandleEvent(RtInvalidHandle(), IRtEventHandler::EVENTQUEUE_MASK, 0, 1, 0);
        EXPECT_EQ(ran.size(), expectRan[turn]);
        EXPECT_EQ(reactor.notifies, expectNotifies[turn]);
    }
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(ran[i], i);
    }
}

TEST_F(ReactorBaseTest, ANestedEventTurnIsDeferredNotLost) {
    std::vector<int> ran;
    reactor.PostEvent(new FnEvent([&] {
        return reactor.ProcessHandleEvent(RtInvalidHandle(), IRtEventHandler::EVENTQUEUE_MASK, 0, 1,
                                          0);
    }));
    reactor.PostEvent(new CountingEvent(&ran, 1));
    reactor.ProcessHandleEvent(RtInvalidHandle(), IRtEventHandler::EVENTQUEUE_MASK, 0, 1, 0);
    EXPECT_EQ(trace.Count("should not be overlapped here!"), 1u);
    EXPECT_EQ(ran.size(), 1u);
    EXPECT_EQ(reactor.notifies, 2);  // the first post, then the deferred turn
}

TEST(ReactorBase, TimersNeedAnOpenReactor) {
    TraceCapture trace;
    ManualReactor reactor;
    FnTimer timer([] {});
    EXPECT_EQ(reactor.ScheduleTimer(&timer, nullptr, CRtTimeValue(1L, 0L), 1),
              RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::ScheduleTimer, m_pTimerQueue not inited or closed."),
              1u);
    ASSERT_EQ(reactor.Open(), RT_OK);
    EXPECT_EQ(reactor.ScheduleTimer(&timer, nullptr, CRtTimeValue(1L, 0L), 1), RT_OK);
    EXPECT_EQ(reactor.Close(), RT_OK);
    EXPECT_EQ(reactor.CancelTimer(&timer), RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::CancelTimer, m_pTimerQueue not inited or closed."),
              1u);
    EXPECT_EQ(reactor.Open(), RT_OK);  // a closed reactor opens again
}

// ---- The window-message reactors on their own threads ------------------------

namespace {

int Connect(int aFd, uint16_t aPort) {
    sockaddr_in a = Loopback(aPort);
    return ::connect(aFd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
}

// A reactor thread of its own, ended and destroyed with the fixture, which
// also checks that no descriptor is left behind.
class ReactorThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(CRtThreadManager::Instance());
        m_fds = OpenFdCount();
    }
    void Start(IRtReactor* aReactor) {
        ASSERT_EQ(CRtThreadManager::Instance()->CreateReactorThread(
                      CRtThreadManager::Instance()->GetAndIncreamUserType(), aReactor, m_thread),
                  RT_OK);
        m_reactor = m_thread->GetReactor();
    }
    void TearDown() override {
        if (m_thread) {
            m_thread->Stop();
            EXPECT_EQ(m_thread->Join(60000), RT_OK);
            m_thread->Destory(0);
        }
        EXPECT_EQ(OpenFdCount(), m_fds);
    }
    // Runs aFn on the reactor's thread and returns its result.
    int OnReactor(std::function<int()> aFn) {
        return m_reactor->SendEvent(new FnEvent(std::move(aFn)));
    }

    CRtThread* m_thread = nullptr;
    IRtReactor* m_reactor = nullptr;
    int m_fds = 0;
};

}  // namespace

TEST_F(ReactorThreadTest, TheMessageReactorRunsEventsAndTimersButRefusesSockets) {
    Start(new CRtReactorWin32Message());
    TraceCapture trace;
    EXPECT_EQ(OnReactor([&] { return m_reactor->Open(); }), RT_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(trace.TakeCount("Assert failed: !m_hwndNotify"), 1u);

    int fd = static_cast<int>(::socket(AF_INET, SOCK_STREAM, 0));
    RecordingHandler h(Fd(fd));
    EXPECT_EQ(OnReactor([&] { return m_reactor->RegisterHandler(&h, IRtEventHandler::READ_MASK); }),
              RT_ERROR_UNEXPECTED);
    EXPECT_EQ(trace.TakeCount("CRtReactorWin32Message::OnHandleRegister, aFd="), 1u);
    CloseSocket(fd);

    std::atomic<int> fired{0};
    FnTimer timer([&] { ++fired; });
    EXPECT_EQ(OnReactor([&] {
                  return m_reactor->ScheduleTimer(&timer, nullptr, CRtTimeValue(0L, 20000L), 3);
              }),
              RT_OK);
    EXPECT_TRUE(WaitUntil([&] { return fired.load() == 3; }));

    // Posts from several threads all run, each sender's in order.
    std::vector<int> ran[4];
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                m_reactor->PostEvent(new CountingEvent(&ran[t], i));
            }
        });
    }
    for (std::thread& p : posters) {
        p.join();
    }
    EXPECT_EQ(OnReactor([] { return RT_OK; }), RT_OK);  // behind every post
    for (int t = 0; t < 4; ++t) {
        ASSERT_EQ(ran[t].size(), 500u);
        for (int i = 0; i < 500; ++i) {
            ASSERT_EQ(ran[t][i], i);
        }
    }
}

TEST_F(ReactorThreadTest, AStoppedLoopEndsWithinATickAndRefusesPosts) {
    Start(new CRtReactorWin32Message());
    IRtReactor* reactor = m_reactor;
    EXPECT_EQ(m_thread->Stop(), RT_OK);
    EXPECT_EQ(m_thread->Join(60000), RT_OK);
    EXPECT_EQ(reactor->PostEvent(new FnEvent([] { return RT_OK; })), RT_ERROR_NOT_INITIALIZED);
    m_thread->Destory(0);
    m_thread = nullptr;
    EXPECT_EQ(OpenFdCount(), m_fds);
}

TEST_F(ReactorThreadTest, APeerThatSendsAndClosesIsReadThenClosedOnce) {
    Start(CRtThreadManager::CreateNetworkReactor());
    int listener = Listener();
    int client = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    RecordingHandler h(Fd(client));
    std::string got;
    h.onInput = [&](void* aFd) {
        char buf[64];
        ssize_t n = ::recv(static_cast<int>(reinterpret_cast<intptr_t>(aFd)), buf, sizeof(buf), 0);
        if (n > 0) {
            got.append(buf, static_cast<size_t>(n));
        }
        return 0;
    };
    const IRtEventHandler::MASK mask = IRtEventHandler::CONNECT_MASK | IRtEventHandler::READ_MASK;
    // Registered before the connect, so the completion is seen.
    ASSERT_EQ(OnReactor([&] { return m_reactor->RegisterHandler(&h, mask); }), RT_OK);
    int rc = Connect(client, PortOf(listener));
    ASSERT_TRUE(rc == 0 || SocketErrno() == kErrInProgress);
    int server = static_cast<int>(::accept(listener, nullptr, nullptr));
    ASSERT_GE(server, 0);
    ASSERT_EQ(::send(server, "hello", 5, 0), 5);
    CloseSocket(server);

    ASSERT_TRUE(WaitUntil([&] { return h.closedMask.load() != -1; }));
    EXPECT_EQ(OnReactor([&] { return got == "hello" ? RT_OK : RT_ERROR_FAILURE; }), RT_OK);
    EXPECT_EQ(h.closedMask.load(), mask);
    std::string calls = h.Calls();
    EXPECT_EQ(calls.substr(0, 4), "out ") << calls;  // the connect
    EXPECT_EQ(calls.substr(calls.size() - 6), " close") << calls;
    EXPECT_EQ(calls.find("close"), calls.size() - 5) << calls;  // closed once
    EXPECT_EQ(OnReactor([&] { return m_reactor->RemoveHandler(&h); }), RT_ERROR_NOT_FOUND);
    CloseSocket(client);
    CloseSocket(listener);
}

TEST_F(ReactorThreadTest, APeerThatResetsIsClosedOnceWithoutInput) {
    Start(CRtThreadManager::CreateNetworkReactor());
    int listener = Listener();
    int client = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(Connect(client, PortOf(listener)), 0);
    int server = static_cast<int>(::accept(listener, nullptr, nullptr));
    RecordingHandler h(Fd(client));
    ASSERT_EQ(OnReactor([&] { return m_reactor->RegisterHandler(&h, IRtEventHandler::READ_MASK); }),
              RT_OK);
    linger hard{1, 0};
    SetSocketOption(server, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    CloseSocket(server);  // a reset, not a graceful close
    ASSERT_TRUE(WaitUntil([&] { return h.closedMask.load() != -1; }));
    EXPECT_EQ(OnReactor([] { return RT_OK; }), RT_OK);
    std::string calls = h.Calls();
    EXPECT_EQ(calls.find("close"), calls.size() - 5) << calls;  // last, and once
    EXPECT_EQ(calls.find("out"), std::string::npos) << calls;
    CloseSocket(client);
    CloseSocket(listener);
}

TEST_F(ReactorThreadTest, AFailedConnectIsAClosedHandleNotOutput) {
    Start(CRtThreadManager::CreateNetworkReactor());
    // A port that was just free and is not listening.
    int probe = Listener();
    uint16_t port = PortOf(probe);
    CloseSocket(probe);

    int client = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    RecordingHandler h(Fd(client));
    ASSERT_EQ(
        OnReactor([&] { return m_reactor->RegisterHandler(&h, IRtEventHandler::CONNECT_MASK); }),
        RT_OK);
    Connect(client, port);
    ASSERT_TRUE(WaitUntil([&] { return h.closedMask.load() != -1; }));
    EXPECT_EQ(h.Calls(), "close");
    CloseSocket(client);
}

TEST_F(ReactorThreadTest, ListenersAcceptAndHandlersCanBeNotifiedOnTheirThread) {
    Start(CRtThreadManager::CreateNetworkReactor());
    int listener = Listener();
    RecordingHandler h(Fd(listener));
    std::vector<int> accepted;
    h.onInput = [&](void* aFd) {
        int fd = static_cast<int>(
            ::accept(static_cast<int>(reinterpret_cast<intptr_t>(aFd)), nullptr, nullptr));
        if (fd >= 0) {
            accepted.push_back(fd);
        }
        return 0;
    };
    ASSERT_EQ(
        OnReactor([&] { return m_reactor->RegisterHandler(&h, IRtEventHandler::ACCEPT_MASK); }),
        RT_OK);
    int clients[3];
    for (int& c : clients) {
        c = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(Connect(c, PortOf(listener)), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return OnReactor([&] { return int(accepted.size()); }) == 3; }));

    // A notification with the handler's own bit reaches it on the reactor's thread.
    EXPECT_EQ(OnReactor([&] { return m_reactor->NotifyHandler(&h, IRtEventHandler::ACCEPT_MASK); }),
              RT_OK);
    ASSERT_TRUE(WaitUntil([&] { return h.Calls() == "in in in in"; })) << h.Calls();

    EXPECT_EQ(OnReactor([&] { return m_reactor->RemoveHandler(&h); }), RT_OK);
    for (int fd : accepted) {
        CloseSocket(fd);
    }
    for (int c : clients) {
        CloseSocket(c);
    }
    CloseSocket(listener);
}

TEST(ThreadReactor, TakesOneReactorOnce) {
    TraceCapture trace;
    auto* thread = new CRtThreadReactor();
    EXPECT_EQ(thread->Init(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(thread->Stop(), RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(trace.TakeCount("Assert failed: m_pReactor"), 1u);
    EXPECT_EQ(thread->Init(new CRtReactorWin32Message()), RT_OK);
    IRtReactor* second = new CRtReactorWin32Message();
    EXPECT_EQ(thread->Init(second), RT_ERROR_ALREADY_INITIALIZED);
    delete second;
    EXPECT_EQ(thread->GetEventQueue(), static_cast<IRtEventQueue*>(thread->GetReactor()));
    thread->Destory(0);  // deletes the reactor it took
}

TEST(MainLoop, AHostWithoutALoopOfItsOwnWaitsOnTheFdAndDispatches) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: a Windows host waits on its queue with its own message loop";
#else
    ASSERT_TRUE(CRtThreadManager::Instance());
    int fd = RtGetMainLoopFd();
    ASSERT_GE(fd, 0);
    std::atomic<int> ran{0};
    std::thread poster([&] {
        CRtThreadManager::Instance()
            ->GetThreadEventQueue(CRtThreadManager::TT_MAIN)
            ->PostEvent(new FnEvent([&] { return ++ran, RT_OK; }));
        EXPECT_EQ(RtGetMainLoopFd(), -1);  // not the main thread
        EXPECT_EQ(RtProcessMainLoopPending(), RT_ERROR_FAILURE);
    });
    poster.join();
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 60000), 1);
    unsigned long dispatched = 0;
    EXPECT_EQ(RtProcessMainLoopPending(&dispatched), RT_OK);
    EXPECT_GE(dispatched, 1u);
    EXPECT_EQ(ran.load(), 1);
#endif
}
