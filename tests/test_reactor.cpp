// The reactor: the dispatch rules of the reactor base
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

#include "fd_count.h"
#include "loopback_helpers.h"
#include "rtframework.h"
#include "task_thread_helpers.h"
#include "trace_capture.h"

namespace {

const IRtEventHandler::MASK kRead = IRtEventHandler::READ_MASK;
const IRtEventHandler::MASK kWrite = IRtEventHandler::WRITE_MASK;

void* Fd(intptr_t aFd) {
    return reinterpret_cast<void*>(aFd);
}
int IntFd(void* aFd) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aFd));
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
        return Record("close", aFd, nullptr);
    }

    std::string Calls() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_calls;
    }

    std::function<int(void*)> onInput, onOutput;
    std::atomic<long> closedMask{-1};
    std::atomic<int> outputs{0}, closes{0};

private:
    int Record(const char* aWhat, void* aFd, const std::function<int(void*)>& aFn) {
        outputs += aWhat[0] == 'o';
        closes += aWhat[0] == 'c';
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
        return ++notifies, RT_OK;
    }
    int RunEventLoop() override { return RT_OK; }
    int StopEventLoop() override { return RT_OK; }
    int Turn() {
        return ProcessHandleEvent(RtInvalidHandle(), IRtEventHandler::EVENTQUEUE_MASK, 0, 1, 0);
    }

    using CRtReactorBase::ProcessHandleEvent;

    int notifies = 0;
    int registered = 0;
    int removed = 0;
    bool refuseRegister = false;

protected:
    int OnHandleRemoved(void*) override { return ++removed, RT_OK; }
    int OnHandleRegister(void*, IRtEventHandler::MASK, IRtEventHandler*) override {
        return refuseRegister ? RT_ERROR_UNEXPECTED : (++registered, RT_OK);
    }
};

class FnTimer : public IRtTimerHandler {
public:
    void OnTimeout(const CRtTimeValue&, void*) override {}
};

}  // namespace

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
    EXPECT_EQ(reactor.RegisterHandler(nullptr, kRead), RT_ERROR_INVALID_ARG);

    EXPECT_EQ(reactor.RegisterHandler(&h, kRead), RT_OK);
    EXPECT_EQ(reactor.RegisterHandler(&h, kRead), RT_OK);
    EXPECT_EQ(reactor.RegisterHandler(&h, kRead | kWrite | IRtEventHandler::SHOULD_CALL),
              RT_ERROR_FOUND);
    EXPECT_EQ(reactor.registered, 1);

    // READ off READ|WRITE keeps the handle; WRITE off WRITE unregisters it
    // without OnClose.
    EXPECT_EQ(reactor.RemoveHandler(&h, kRead), RT_ERROR_FOUND);
    EXPECT_EQ(reactor.removed, 0);
    EXPECT_EQ(reactor.RemoveHandler(&h, kRead), RT_OK);
    EXPECT_EQ(trace.TakeCount("RemoveHandleWithoutFinding_i, mask is equal. aMask=4"), 1u);
    EXPECT_EQ(reactor.RemoveHandler(&h, kWrite), RT_OK);
    EXPECT_EQ(reactor.removed, 1);
    EXPECT_EQ(reactor.RemoveHandler(&h, kWrite), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(h.Calls(), "");
}

TEST_F(ReactorBaseTest, AHandleThatCannotBeWatchedIsNotRegistered) {
    IRtEventHandler invalid;  // the default GetHandle: traced, no handle
    EXPECT_EQ(reactor.RegisterHandler(&invalid, kRead), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(trace.Count("Assert failed: !\"IRtEventHandler::GetHandle()\""), 1u);
    EXPECT_EQ(trace.TakeCount("Assert failed: IsVaildHandle(aFd)"), 2u);  // Find, then Bind

    RecordingHandler refused(Fd(8));
    reactor.refuseRegister = true;
    EXPECT_EQ(reactor.RegisterHandler(&refused, kRead), RT_ERROR_UNEXPECTED);
    reactor.refuseRegister = false;
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(8), kRead, 0, 0, 0), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::ProcessHandleEvent, handle not registed. aFd="), 1u);
}

TEST_F(ReactorBaseTest, DispatchFollowsTheRegisteredMaskAndTheCallbackResults) {
    RecordingHandler h(Fd(9));
    ASSERT_EQ(reactor.RegisterHandler(&h, kRead), RT_OK);

    // Bits that were not registered call nothing.
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(9), kWrite, 0, 0, 0), RT_OK);
    EXPECT_EQ(trace.TakeCount("CRtReactorBase::ProcessHandleEvent, mask not registed."), 1u);
    EXPECT_EQ(h.Calls(), "");

    // Would-block on input still lets output run.
    ASSERT_EQ(reactor.RegisterHandler(&h, kRead | kWrite), RT_ERROR_FOUND);
    h.onInput = h.onOutput = [](void*) { return -2; };
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(9), kRead | kWrite, 0, 0, 0), RT_ERROR_WOULD_BLOCK);
    EXPECT_EQ(h.Calls(), "in out");

    // A failing callback removes the handle and closes it once, with its mask.
    h.onInput = [](void*) { return -1; };
    h.onOutput = nullptr;
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(9), kRead | kWrite, 0, 0, 0), RT_ERROR_FAILURE);
    EXPECT_EQ(h.Calls(), "in out in close");
    EXPECT_EQ(h.closedMask.load(), kRead | kWrite);
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
    ASSERT_EQ(reactor.RegisterHandler(&h, kRead), RT_OK);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(11), IRtEventHandler::CLOSE_MASK,
                                         RT_ERROR_NETWORK_SOCKET_CLOSE, 0, 0),
              RT_ERROR_FAILURE);
    EXPECT_EQ(h.Calls(), "close");
    EXPECT_EQ(h.closedMask.load(), kRead);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(11), IRtEventHandler::CLOSE_MASK, 0, 0, 0),
              RT_ERROR_NOT_FOUND);

    RecordingHandler self(Fd(12));
    ASSERT_EQ(reactor.RegisterHandler(&self, kRead), RT_OK);
    self.onInput = [&](void*) { return reactor.RemoveHandler(&self), -1; };
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(12), kRead, 0, 0, 0), RT_ERROR_FAILURE);
    EXPECT_EQ(self.Calls(), "in");

    // The default bodies fail and trace; the failed input closes through the
    // default too.
    struct Plain : IRtEventHandler {
        void* GetHandle() const override { return Fd(13); }
    } eh;
    EXPECT_EQ(eh.OnOutput(Fd(13)), -1);
    EXPECT_EQ(eh.OnException(Fd(13)), -1);
    ASSERT_EQ(reactor.RegisterHandler(&eh, kRead), RT_OK);
    EXPECT_EQ(reactor.ProcessHandleEvent(Fd(13), kRead, 0, 0, 0), RT_ERROR_FAILURE);
    for (const char* name : {"OnInput", "OnOutput", "OnException", "OnClose"}) {
        EXPECT_EQ(trace.Count(std::string("Assert failed: !\"IRtEventHandler::") + name + "()\""),
                  1u)
            << name;
    }
}

TEST_F(ReactorBaseTest, QueuedEventsRunFiveATurnAfterOneWakeUp) {
    std::vector<int> ran;
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(reactor.PostEvent(new FnEvent([&ran, i] { return ran.push_back(i), RT_OK; })),
                  RT_OK);
    }
    EXPECT_EQ(reactor.notifies, 1);
    const size_t expectRan[] = {5, 10, 12};
    const int expectNotifies[] = {2, 3, 3};
    for (int turn = 0; turn < 3; ++turn) {
        reactor.Turn();
        EXPECT_EQ(ran.size(), expectRan[turn]);
        EXPECT_EQ(reactor.notifies, expectNotifies[turn]);
    }
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(ran[i], i);
    }

    // A turn started from inside a turn is deferred, not lost.
    reactor.PostEvent(new FnEvent([&] { return reactor.Turn(); }));
    reactor.PostEvent(new FnEvent([&] { return ran.push_back(12), RT_OK; }));
    reactor.Turn();
    EXPECT_EQ(trace.Count("should not be overlapped here!"), 1u);
    EXPECT_EQ(ran.size(), 13u);
    EXPECT_EQ(reactor.notifies, 5);  // the first post, then the deferred turn
}

TEST(ReactorBase, TimersNeedAnOpenReactor) {
    TraceCapture trace;
    ManualReactor reactor;
    FnTimer timer;
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

int Socket() {
    return static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}
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
    void Start(IRtReactor* aReactor = CRtThreadManager::CreateNetworkReactor()) {
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
    int Register(RecordingHandler& aH, IRtEventHandler::MASK aMask) {
        return OnReactor([&] { return m_reactor->RegisterHandler(&aH, aMask); });
    }

    CRtThread* m_thread = nullptr;
    IRtReactor* m_reactor = nullptr;
    int m_fds = 0;
};

}  // namespace

TEST_F(ReactorThreadTest, TheMessageReactorRefusesSocketsAndEndsWhenStoppedFromAnotherThread) {
    Start(new CRtReactorWin32Message());
    TraceCapture trace;
    EXPECT_EQ(OnReactor([&] { return m_reactor->Open(); }), RT_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(trace.TakeCount("Assert failed: !m_hwndNotify"), 1u);

    int fd = Socket();
    RecordingHandler h(Fd(fd));
    EXPECT_EQ(Register(h, kRead), RT_ERROR_UNEXPECTED);
    EXPECT_EQ(trace.TakeCount("CRtReactorWin32Message::OnHandleRegister, aFd="), 1u);
    CloseSocket(fd);

    IRtReactor* reactor = m_reactor;
    EXPECT_EQ(m_thread->Stop(), RT_OK);
    EXPECT_EQ(m_thread->Join(60000), RT_OK);
    EXPECT_EQ(reactor->PostEvent(new FnEvent([] { return RT_OK; })), RT_ERROR_NOT_INITIALIZED);
    m_thread->Destory(0);
    m_thread = nullptr;
}

// A peer that sends and closes is read, then closed once; one that resets is
// closed once as well, whatever it sent.
TEST_F(ReactorThreadTest, APeerThatClosesOrResetsIsClosedOnceAfterItsData) {
    Start();
    const IRtEventHandler::MASK mask = IRtEventHandler::CONNECT_MASK | kRead;
    for (bool reset : {false, true}) {
        SCOPED_TRACE(reset ? "reset" : "graceful");
        int listener = Listener();
        int client = Socket();
        RecordingHandler h(Fd(client));
        std::string got;
        h.onInput = [&](void* aFd) {
            char buf[64];
            int n = static_cast<int>(::recv(IntFd(aFd), buf, sizeof(buf), 0));
            got.append(buf, static_cast<size_t>(n > 0 ? n : 0));
            return 0;
        };
        // Registered before the connect, so the completion is seen.
        ASSERT_EQ(Register(h, mask), RT_OK);
        int rc = Connect(client, PortOf(listener));
        ASSERT_TRUE(rc == 0 || SocketErrno() == kErrInProgress);
        int server = static_cast<int>(::accept(listener, nullptr, nullptr));
        ASSERT_GE(server, 0);
        ASSERT_EQ(::send(server, "hello", 5, 0), 5);
        if (reset) {
            ASSERT_TRUE(WaitUntil([&] { return OnReactor([&] { return int(got.size()); }) == 5; }));
            linger hard{1, 0};
            SetSocketOption(server, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        }
        CloseSocket(server);

        ASSERT_TRUE(WaitUntil([&] { return h.closedMask.load() != -1; }));
        EXPECT_EQ(OnReactor([&] { return got == "hello" ? RT_OK : RT_ERROR_FAILURE; }), RT_OK);
        EXPECT_EQ(h.closedMask.load(), mask);
        const std::string calls = h.Calls();
        EXPECT_EQ(calls.substr(0, 4), "out ") << calls;  // the connect
        EXPECT_EQ(h.outputs.load(), 1) << calls;
        EXPECT_EQ(h.closes.load(), 1) << calls;
        EXPECT_EQ(calls.substr(calls.size() - 6), " close") << calls;
        EXPECT_EQ(OnReactor([&] { return m_reactor->RemoveHandler(&h); }), RT_ERROR_NOT_FOUND);
        CloseSocket(client);
        CloseSocket(listener);
    }
}

TEST_F(ReactorThreadTest, AFailedConnectIsAClosedHandleNotOutput) {
    Start();
    // A port that was just free and is not listening.
    int probe = Listener();
    uint16_t port = PortOf(probe);
    CloseSocket(probe);

    int client = Socket();
    RecordingHandler h(Fd(client));
    ASSERT_EQ(Register(h, IRtEventHandler::CONNECT_MASK), RT_OK);
    Connect(client, port);
    ASSERT_TRUE(WaitUntil([&] { return h.closedMask.load() != -1; }));
    EXPECT_EQ(h.Calls(), "close");
    CloseSocket(client);
}

TEST_F(ReactorThreadTest, ListenersAcceptAndHandlersCanBeNotifiedOnTheirThread) {
    Start();
    int listener = Listener();
    RecordingHandler h(Fd(listener));
    std::vector<int> accepted;
    h.onInput = [&](void* aFd) {
        int fd = static_cast<int>(::accept(IntFd(aFd), nullptr, nullptr));
        if (fd >= 0) {
            accepted.push_back(fd);
        }
        return 0;
    };
    ASSERT_EQ(Register(h, IRtEventHandler::ACCEPT_MASK), RT_OK);
    int clients[3];
    for (int& c : clients) {
        c = Socket();
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

// Writability is reported once; a send through the socket wrapper that would
// block must bring the report back when room comes.
TEST_F(ReactorThreadTest, ASendThatWouldBlockBringsOutputBackWhenThereIsRoom) {
    Start();
    int listener = Listener();
    CRtSocketStream client;
    client.SetHandle(Fd(Socket()));
    ASSERT_EQ(Connect(IntFd(client.GetHandle()), PortOf(listener)), 0);
    int server = static_cast<int>(::accept(listener, nullptr, nullptr));
    RecordingHandler h(client.GetHandle());
    ASSERT_EQ(Register(h, kWrite), RT_OK);
    ASSERT_TRUE(WaitUntil([&] { return h.outputs.load() == 1; }));

    ASSERT_EQ(client.Enable(RT_IPC_SAP::NON_BLOCK), 0);
    const std::string chunk(65536, 'z');
    long total = 0;
    int sent;
    while ((sent = client.Send(chunk.data(), chunk.size(), 0)) > 0) {
        total += sent;
    }
    EXPECT_TRUE(sent == -1 && IsWouldBlock(SocketErrno()));
    EXPECT_EQ(h.outputs.load(), 1);
    char buf[65536];
    for (int n = 0; total > 0 && (n = ::recv(server, buf, sizeof(buf), 0)) > 0; total -= n) {
    }
    EXPECT_TRUE(WaitUntil([&] { return h.outputs.load() == 2; })) << h.Calls();
    EXPECT_EQ(OnReactor([&] { return m_reactor->RemoveHandler(&h); }), RT_OK);
    CloseSocket(server);
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
