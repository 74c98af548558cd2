// Socket readiness through the message pump (SocketAsyncSelect) with real
// loopback sockets: each reporting rule, cancelling, cross-thread re-arming,
// no busy loop on an idle socket and no descriptor left behind.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "loopback_helpers.h"
#include "rtoswindow.h"

namespace {

constexpr const char* kClass = "PumpSelectTestWindow";
constexpr uint32_t kSockMsg = rtos::kWmUser + 33;
constexpr long kAll =
    rtos::kFdRead | rtos::kFdWrite | rtos::kFdAccept | rtos::kFdConnect | rtos::kFdClose;

struct SockEvent {
    int fd;
    long event;
    int error;
};

// A window on the test's thread that records the socket messages it gets.
class SocketWindow {
public:
    SocketWindow() {
        static const bool s_registered = rtos::WindowClassRegister(kClass, &Proc, 8);
        EXPECT_TRUE(s_registered);
        m_wnd = rtos::WindowCreate(kClass);
        rtos::WindowSetLong(m_wnd, 0, reinterpret_cast<intptr_t>(this));
    }
    ~SocketWindow() { rtos::WindowDestroy(m_wnd); }

    rtos::WindowHandle Wnd() const { return m_wnd; }
    int Select(int aFd, long aEvents = kAll) {
        return rtos::SocketAsyncSelect(aFd, m_wnd, kSockMsg, aEvents);
    }

    // Dispatches this thread's messages until aDone() holds or 10 s pass.
    bool PumpUntil(const std::function<bool()>& aDone, int aMs = 10000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(aMs);
        for (;;) {
            rtos::Message msg;
            while (rtos::MessagePeek(&msg)) {
                rtos::MessageDispatch(&msg);
            }
            if (aDone()) {
                return true;
            }
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            pollfd p{rtos::MessageQueueFd(), POLLIN, 0};
            ::poll(&p, 1, 20);
        }
    }
    // Pumps for a while, to see that nothing more comes.
    void PumpFor(int aMs) {
        PumpUntil([] { return false; }, aMs);
    }

    int Count(long aEvent) const {
        int n = 0;
        for (const SockEvent& e : events) {
            n += e.event == aEvent;
        }
        return n;
    }

    std::vector<SockEvent> events;
    std::function<void(const SockEvent&)> onEvent;

private:
    static intptr_t Proc(rtos::WindowHandle aWnd, uint32_t aMsg, uintptr_t aW, intptr_t aL) {
        auto* self = reinterpret_cast<SocketWindow*>(rtos::WindowGetLong(aWnd, 0));
        if (self && aMsg == kSockMsg) {
            const SockEvent e{static_cast<int>(aW), rtos::SelectEvent(aL), rtos::SelectError(aL)};
            self->events.push_back(e);
            if (self->onEvent) {
                self->onEvent(e);
            }
        }
        return 0;
    }

    rtos::WindowHandle m_wnd = nullptr;
};

int ConnectTo(uint16_t aPort, bool aBlocking = true) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (aBlocking ? 0 : SOCK_NONBLOCK), 0);
    sockaddr_in a = Loopback(aPort);
    int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    EXPECT_TRUE(rc == 0 || errno == EINPROGRESS) << errno;
    return fd;
}

struct Pair {
    int client;
    int server;
};

Pair Connected() {
    int listener = Listener();
    int client = ConnectTo(PortOf(listener));
    int server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    return Pair{client, server};
}

// Sends until the socket's buffers are full; returns the bytes sent.
size_t FillUntilWouldBlock(int aFd) {
    static char chunk[65536];
    size_t total = 0;
    for (;;) {
        ssize_t n = ::send(aFd, chunk, sizeof(chunk), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
            return total;
        }
        total += static_cast<size_t>(n);
    }
}

// Fills the socket, then waits out the acknowledgements still on their way,
// which free room of their own: filled again until a pause frees nothing.
size_t FillAndSettle(int aFd) {
    size_t total = FillUntilWouldBlock(aFd);
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        const size_t more = FillUntilWouldBlock(aFd);
        if (more == 0) {
            return total;
        }
        total += more;
    }
}

void ReadExactly(int aFd, size_t aBytes) {
    static char sink[65536];
    while (aBytes > 0) {
        ssize_t n = ::recv(aFd, sink, std::min(aBytes, sizeof(sink)), 0);
        ASSERT_GT(n, 0);
        aBytes -= static_cast<size_t>(n);
    }
}

// An event handler that consumes what a read reports, as a well-behaved
// handler does: readiness is reported for as long as data waits.
void DrainOnRead(const SockEvent& aEvent) {
    char buf[256];
    if (aEvent.event == rtos::kFdRead) {
        while (::recv(aEvent.fd, buf, sizeof(buf), MSG_DONTWAIT) > 0) {
        }
    }
}

int CountOpenFds() {
    int n = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (dirent* e = ::readdir(dir)) {
        n += e->d_name[0] != '.';
    }
    ::closedir(dir);
    return n - 1;
}

uint16_t ClosedPort() {
    int fd = Listener();
    uint16_t port = PortOf(fd);
    ::close(fd);
    return port;
}

}  // namespace

TEST(PumpSelect, ReadIsReportedWhileDataWaitsOneMessageAtATime) {
    Pair p = Connected();
    SocketWindow w;
    ASSERT_EQ(w.Select(p.client), 0);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdWrite) == 1; }));

    // Three sends arrive while nobody pumps; each message is answered by a
    // one-byte read, so a message beyond "while data waits" would show.
    int bytes = 0;
    w.onEvent = [&](const SockEvent& e) {
        if (e.event == rtos::kFdRead) {
            char c;
            ASSERT_EQ(::recv(p.client, &c, 1, 0), 1);
            ++bytes;
        }
    };
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(::send(p.server, "abc", 3, 0), 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(w.PumpUntil([&] { return bytes == 9; }));
    w.PumpFor(100);
    EXPECT_EQ(w.Count(rtos::kFdRead), 9);
    EXPECT_EQ(bytes, 9);
    EXPECT_EQ(w.events.size(), 10u) << "nothing but the first write and the reads";
    for (const SockEvent& e : w.events) {
        EXPECT_EQ(e.fd, p.client);
        EXPECT_EQ(e.error, 0);
    }
    ::close(p.client);
    ::close(p.server);
}

TEST(PumpSelect, WriteIsReportedFirstAndAgainOnlyAfterAWouldBlock) {
    Pair p = Connected();
    SocketWindow w;
    ASSERT_EQ(w.Select(p.client, rtos::kFdWrite | rtos::kFdClose), 0);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdWrite) == 1; }));
    w.PumpFor(100);
    EXPECT_EQ(w.Count(rtos::kFdWrite), 1) << "an idle writable socket is told once";

    // Room that comes back after an unannounced would-block is not reported.
    size_t filled = FillUntilWouldBlock(p.client);
    ReadExactly(p.server, filled);
    w.PumpFor(150);
    EXPECT_EQ(w.Count(rtos::kFdWrite), 1);

    // Announced (from another thread, as a sender may be): reported once.
    filled = FillAndSettle(p.client);
    std::thread([&] { rtos::SocketSendWouldBlock(p.client); }).join();
    w.PumpFor(50);
    EXPECT_EQ(w.Count(rtos::kFdWrite), 1) << "no room yet";
    std::thread reader([&] { ReadExactly(p.server, filled); });
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdWrite) == 2; }));
    reader.join();
    w.PumpFor(100);
    EXPECT_EQ(w.Count(rtos::kFdWrite), 2);
    EXPECT_EQ(w.events.size(), 2u);
    rtos::SocketSendWouldBlock(-1);  // unknown sockets are ignored
    ::close(p.client);
    ::close(p.server);
}

TEST(PumpSelect, AcceptIsReportedWhileConnectionsWait) {
    int listener = Listener();
    SocketWindow w;
    ASSERT_EQ(w.Select(listener), 0);
    std::vector<int> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(ConnectTo(PortOf(listener)));
    }
    std::vector<int> accepted;
    w.onEvent = [&](const SockEvent& e) {
        if (e.event == rtos::kFdAccept) {
            int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            ASSERT_GE(fd, 0);
            accepted.push_back(fd);
        }
    };
    ASSERT_TRUE(w.PumpUntil([&] { return accepted.size() == 3; }));
    w.PumpFor(100);
    EXPECT_EQ(w.Count(rtos::kFdAccept), 3);
    EXPECT_EQ(w.events.size(), 3u) << "a listener reports nothing but accepts";
    for (int fd : accepted) {
        ::close(fd);
    }
    for (int fd : clients) {
        ::close(fd);
    }
    ::close(listener);
}

TEST(PumpSelect, AListenerSelectedBeforeListenStillReportsAccept) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = Loopback(0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    SocketWindow w;
    ASSERT_EQ(w.Select(fd), 0);
    w.PumpFor(50);
    EXPECT_TRUE(w.events.empty()) << "an unconnected socket has nothing to say";
    ASSERT_EQ(::listen(fd, 4), 0);
    int client = ConnectTo(PortOf(fd));
    int accepted = -1;
    w.onEvent = [&](const SockEvent& e) {
        if (e.event == rtos::kFdAccept) {
            accepted = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        }
    };
    ASSERT_TRUE(w.PumpUntil([&] { return accepted >= 0; }));
    w.PumpFor(50);
    EXPECT_EQ(w.Count(rtos::kFdAccept), 1);
    ::close(accepted);
    ::close(client);
    ::close(fd);
}

TEST(PumpSelect, ConnectIsReportedOnceThenTheFirstWrite) {
    int listener = Listener();
    SocketWindow w;
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(w.Select(fd), 0);
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "selection makes it non-blocking";
    sockaddr_in a = Loopback(PortOf(listener));
    int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    ASSERT_TRUE(rc == 0 || errno == EINPROGRESS);
    ASSERT_TRUE(w.PumpUntil([&] { return w.events.size() >= 2; }));
    w.PumpFor(100);
    ASSERT_EQ(w.events.size(), 2u);
    EXPECT_EQ(w.events[0].event, rtos::kFdConnect);
    EXPECT_EQ(w.events[0].error, 0);
    EXPECT_EQ(w.events[1].event, rtos::kFdWrite);
    ::close(fd);
    ::close(listener);
}

TEST(PumpSelect, AFailedConnectIsReportedOnceWithItsErrorAndNothingElse) {
    // Selected before the connect, and selected after it failed.
    for (bool selectFirst : {true, false}) {
        SCOPED_TRACE(selectFirst ? "selected first" : "selected after");
        SocketWindow w;
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (selectFirst) {
            ASSERT_EQ(w.Select(fd), 0);
        }
        sockaddr_in a = Loopback(ClosedPort());
        int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        ASSERT_EQ(rc, -1);
        if (errno == ECONNREFUSED) {
            ::close(fd);  // refused at once: the caller knows; nothing to report
            continue;
        }
        ASSERT_EQ(errno, EINPROGRESS);
        if (!selectFirst) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            ASSERT_EQ(w.Select(fd), 0);
        }
        ASSERT_TRUE(w.PumpUntil([&] { return !w.events.empty(); }));
        w.PumpFor(100);
        ASSERT_EQ(w.events.size(), 1u) << "no write, no close";
        EXPECT_EQ(w.events[0].event, rtos::kFdConnect);
        EXPECT_EQ(w.events[0].error, ECONNREFUSED);
        ::close(fd);
    }
}

TEST(PumpSelect, APeersCloseComesOnceAfterTheDataThatRemained) {
    Pair p = Connected();
    SocketWindow w;
    ASSERT_EQ(::send(p.server, "hello", 5, 0), 5);
    ::close(p.server);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

    std::string got;
    w.onEvent = [&](const SockEvent& e) {
        if (e.event == rtos::kFdRead) {
            char buf[2];
            ssize_t n = ::recv(p.client, buf, sizeof(buf), 0);  // two bytes a time
            ASSERT_GT(n, 0);
            got.append(buf, static_cast<size_t>(n));
        }
    };
    ASSERT_EQ(w.Select(p.client), 0);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdClose) == 1; }));
    w.PumpFor(100);
    EXPECT_EQ(got, "hello");
    EXPECT_EQ(w.Count(rtos::kFdClose), 1);
    ASSERT_FALSE(w.events.empty());
    EXPECT_EQ(w.events.back().event, rtos::kFdClose) << "nothing after the close";
    EXPECT_EQ(w.events.back().error, 0);
    EXPECT_EQ(w.Count(rtos::kFdRead), 3);
    ::close(p.client);
}

TEST(PumpSelect, AResetIsReportedOnceAsACloseWithItsError) {
    Pair p = Connected();
    SocketWindow w;
    ASSERT_EQ(w.Select(p.client), 0);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdWrite) == 1; }));
    linger hard{1, 0};
    ASSERT_EQ(::setsockopt(p.server, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
    ::close(p.server);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdClose) == 1; }));
    w.PumpFor(100);
    EXPECT_EQ(w.events.size(), 2u);
    EXPECT_EQ(w.events.back().event, rtos::kFdClose);
    EXPECT_EQ(w.events.back().error, ECONNRESET);
    ::close(p.client);
}

TEST(PumpSelect, ZeroEventsCancelsAndDropsQueuedNotifications) {
    Pair a = Connected();
    Pair b = Connected();
    SocketWindow w;
    w.onEvent = &DrainOnRead;
    ASSERT_EQ(w.Select(a.client, rtos::kFdRead), 0);
    ASSERT_EQ(w.Select(b.client, rtos::kFdRead), 0);
    ASSERT_EQ(::send(a.server, "x", 1, 0), 1);
    ASSERT_EQ(::send(b.server, "y", 1, 0), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

    // Both reads are queued by the first take; cancel the one still waiting.
    rtos::Message first;
    ASSERT_TRUE(rtos::MessagePeek(&first));
    const int other = static_cast<int>(first.wParam) == a.client ? b.client : a.client;
    ASSERT_EQ(w.Select(other, 0), 0);
    rtos::MessageDispatch(&first);
    const int otherServer = other == a.client ? a.server : b.server;
    ASSERT_EQ(::send(otherServer, "z", 1, 0), 1);
    w.PumpFor(100);
    for (const SockEvent& e : w.events) {
        EXPECT_NE(e.fd, other) << "nothing after the cancel, queued or new";
    }
    EXPECT_EQ(w.events.size(), 1u);
    for (int fd : {a.client, a.server, b.client, b.server}) {
        ::close(fd);
    }
}

TEST(PumpSelect, DatagramsReportWritableOnceAndReadWhileDataWaits) {
    int rx = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = Loopback(0);
    ASSERT_EQ(::bind(rx, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    SocketWindow w;
    ASSERT_EQ(w.Select(rx), 0);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdWrite) == 1; }));
    int datagrams = 0;
    w.onEvent = [&](const SockEvent& e) {
        char buf[16];
        if (e.event == rtos::kFdRead && ::recv(rx, buf, sizeof(buf), 0) > 0) {
            ++datagrams;
        }
    };
    int tx = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = Loopback(PortOf(rx));
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(::sendto(tx, "d", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 1);
    }
    ASSERT_TRUE(w.PumpUntil([&] { return datagrams == 2; }));
    w.PumpFor(100);
    EXPECT_EQ(w.Count(rtos::kFdWrite), 1);
    EXPECT_EQ(w.Count(rtos::kFdClose), 0);
    ::close(tx);
    ::close(rx);
}

TEST(PumpSelect, BadArgumentsFailWithTheirErrors) {
    SocketWindow w;
    EXPECT_EQ(w.Select(-1), -1);
    EXPECT_EQ(errno, EBADF);
    int pipes[2];
    ASSERT_EQ(::pipe(pipes), 0);
    EXPECT_EQ(w.Select(pipes[0]), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    ::close(pipes[0]);
    ::close(pipes[1]);

    Pair p = Connected();
    EXPECT_EQ(rtos::SocketAsyncSelect(p.client, nullptr, kSockMsg, kAll), -1);
    EXPECT_EQ(errno, EBADF);
    int err = 0;
    std::thread([&] {
        EXPECT_EQ(w.Select(p.client), -1) << "another thread's window";
        err = errno;
    }).join();
    EXPECT_EQ(err, EPERM);

    ASSERT_EQ(w.Select(p.client), 0);
    std::thread([&] {
        SocketWindow mine;
        EXPECT_EQ(mine.Select(p.client), -1) << "selected on another thread";
        err = errno;
    }).join();
    EXPECT_EQ(err, EBUSY);
    EXPECT_EQ(w.Select(p.client, 0), 0);
    ::close(p.client);
    EXPECT_EQ(w.Select(p.client, 0), -1) << "a closed socket that was not selected";
    ::close(p.server);
}

TEST(PumpSelect, AnIdleThreadWithAWritableSocketSleeps) {
    Pair p = Connected();
    double cpuMs = -1;
    int messages = 0;
    std::thread loop([&] {
        SocketWindow w;
        ASSERT_EQ(w.Select(p.client), 0);
        timespec t0, t1;
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
        w.PumpFor(500);
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
        cpuMs = (t1.tv_sec - t0.tv_sec) * 1e3 + (t1.tv_nsec - t0.tv_nsec) / 1e6;
        messages = static_cast<int>(w.events.size());
    });
    loop.join();
    EXPECT_EQ(messages, 1) << "the first writability only";
    EXPECT_GE(cpuMs, 0.0);
    EXPECT_LT(cpuMs, 100.0) << "a busy loop would use most of the 500 ms";
    ::close(p.client);
    ::close(p.server);
}

TEST(PumpSelect, ThreadsThatEndWithSelectedSocketsLeaveNoDescriptors) {
    const int before = CountOpenFds();
    for (int round = 0; round < 3; ++round) {
        Pair p = Connected();
        std::thread([&] {
            SocketWindow w;
            w.onEvent = &DrainOnRead;
            ASSERT_EQ(w.Select(p.client), 0);
            ASSERT_EQ(::send(p.server, "q", 1, 0), 1);
            ASSERT_TRUE(w.PumpUntil([&] { return w.Count(rtos::kFdRead) >= 1; }));
            // The window and the thread end with the selection in place.
        }).join();
        ::close(p.client);
        ::close(p.server);
    }
    EXPECT_EQ(CountOpenFds(), before);
}
