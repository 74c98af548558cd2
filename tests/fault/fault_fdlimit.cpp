// A low descriptor limit: opening sockets fails with the system's error and
// nothing else, an accept that cannot get a descriptor closes its listener's
// handler once, and the reactor goes on serving the connection it has.
#include <dirent.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "stress/stress_common.h"

namespace {

int CountOpenFds() {
    int n = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir)) {
            ++n;
        }
        ::closedir(dir);
    }
    return n - 3;  // ".", ".." and the directory's own descriptor
}

int FdOf(void* aHandle) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aHandle));
}

// Echoes what it reads; runs on the reactor's thread.
class EchoHandler : public IRtEventHandler {
public:
    explicit EchoHandler(CRtSocketStream* aSocket) : m_socket(aSocket) {}
    void* GetHandle() const override { return m_socket->GetHandle(); }
    int OnInput(void*) override {
        char buf[256];
        int n = m_socket->Recv(buf, sizeof(buf), 0);
        if (n <= 0) {
            return n == -1 && errno == EAGAIN ? 0 : -1;
        }
        return m_socket->Send(buf, static_cast<unsigned long>(n), 0) == n ? 0 : -1;
    }
    int OnClose(void*, MASK) override { return 0; }

private:
    CRtSocketStream* m_socket;
};

// Accepts until the system refuses, then gives up its registration.
class AcceptHandler : public IRtEventHandler {
public:
    explicit AcceptHandler(int aFd) : m_fd(aFd) {}
    void* GetHandle() const override { return reinterpret_cast<void*>(intptr_t(m_fd)); }
    int OnInput(void*) override {
        int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            accepted.push_back(fd);
            return 0;
        }
        lastErrno = errno;
        return -1;
    }
    int OnClose(void*, MASK) override { return ++closes, 0; }

    std::vector<int> accepted;
    std::atomic<int> lastErrno{0};
    std::atomic<int> closes{0};

private:
    int m_fd;
};

}  // namespace

TEST(FdLimit, SocketAndAcceptFailuresAreReportedAndTheReactorKeepsServing) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    OwnerThread owner(Owner::Reactor);
    ASSERT_TRUE(owner.Get());
    IRtReactor* reactor = owner.Get()->GetReactor();
    const int fdsBefore = CountOpenFds();

    // A connection the reactor serves: our end is a raw descriptor.
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    CRtSocketStream served;
    served.SetHandle(reinterpret_cast<void*>(intptr_t(pair[0])));
    EchoHandler echo(&served);
    CRtInetAddr any("127.0.0.1", 0);
    CRtSocketStream listener;
    ASSERT_EQ(listener.Open(1, any), 0);
    int lfd = FdOf(listener.GetHandle());
    ASSERT_EQ(::listen(lfd, 8), 0);
    sockaddr_in addr{};
    socklen_t len = sizeof(addr);
    ::getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &len);
    AcceptHandler acceptor(lfd);
    auto onReactor = [&](std::function<int()> aFn) {
        return reactor->SendEvent(new FnEvent(std::move(aFn)));
    };
    ASSERT_EQ(
        onReactor([&] { return reactor->RegisterHandler(&echo, IRtEventHandler::READ_MASK); }),
        RT_OK);
    ASSERT_EQ(onReactor([&] {
                  return reactor->RegisterHandler(&acceptor, IRtEventHandler::ACCEPT_MASK);
              }),
              RT_OK);

    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = static_cast<rlim_t>(CountOpenFds() + 8);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);

    // Open sockets until the system says no: -1 and EMFILE, nothing half-made.
    std::vector<std::unique_ptr<CRtSocketStream>> opened;
    for (;;) {
        auto s = std::make_unique<CRtSocketStream>();
        errno = 0;
        int rv = s->Open(0);
        if (rv != 0) {
            EXPECT_EQ(rv, -1);
            EXPECT_EQ(errno, EMFILE);
            EXPECT_EQ(s->GetHandle(), RtInvalidHandle());
            break;
        }
        opened.push_back(std::move(s));
        ASSERT_LT(opened.size(), 64u) << "the limit did not hold";
    }
    // One descriptor for a client; the listener's accept then finds none.
    opened.pop_back();
    int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(client, 0);
    ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&addr), len), 0);
    ASSERT_TRUE(WaitUntil([&] { return acceptor.closes.load() == 1; }));
    EXPECT_EQ(acceptor.lastErrno.load(), EMFILE);

    // The connection it had still echoes, and events still run, at the limit.
    for (int i = 0; i < 100; ++i) {
        char out = static_cast<char>('a' + i % 26), in = 0;
        ASSERT_EQ(::send(pair[1], &out, 1, MSG_NOSIGNAL), 1);
        ASSERT_EQ(::recv(pair[1], &in, 1, 0), 1);
        ASSERT_EQ(in, out);
    }
    EXPECT_EQ(onReactor([] { return 3; }), 3);
    EXPECT_EQ(acceptor.closes.load(), 1);

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(onReactor([&] { return reactor->RemoveHandler(&echo); }), RT_OK);
    opened.clear();
    ::close(client);
    for (int fd : acceptor.accepted) {
        ::close(fd);
    }
    served.Close(0);
    listener.Close(0);
    ::close(pair[1]);
    EXPECT_EQ(CountOpenFds(), fdsBefore);
}
