// Socket readiness through the message pump (SocketAsyncSelect) with real
// loopback sockets: each reporting rule, cancelling, cross-thread re-arming,
// no busy loop on an idle socket and no descriptor left behind.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <time.h>

#include <array>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "fd_count.h"
#include "loopback_helpers.h"
#include "rtoswindow.h"

namespace {

constexpr uint32_t kSockMsg = rtos::kWmUser + 33;
constexpr long kAll =
    rtos::kFdRead | rtos::kFdWrite | rtos::kFdAccept | rtos::kFdConnect | rtos::kFdClose;

struct SockEvent {
    int fd;
    long event;
    int error;
};

// How many of each event, by bit: read, write, oob, accept, connect, close.
using Counts = std::array<int, 6>;
enum { kRead, kWrite, kOob, kAccept, kConnect, kClose };

// A window on the calling thread that records the socket messages it gets.
class SocketWindow {
public:
    SocketWindow() {
        static const bool s_registered = rtos::WindowClassRegister("PumpSelectTest", &Proc, 8);
        EXPECT_TRUE(s_registered);
        m_wnd = rtos::WindowCreate("PumpSelectTest");
        rtos::WindowSetLong(m_wnd, 0, reinterpret_cast<intptr_t>(this));
    }
    ~SocketWindow() { rtos::WindowDestroy(m_wnd); }

    int Select(int aFd, long aEvents = kAll) {
        return rtos::SocketAsyncSelect(aFd, m_wnd, kSockMsg, aEvents);
    }
    // Dispatches this thread's messages until aDone() holds or aMs pass.
    bool PumpUntil(const std::function<bool()>& aDone, int aMs = 10000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(aMs);
        rtos::Message msg;
        while (!aDone() && std::chrono::steady_clock::now() < end) {
            if (rtos::MessagePeek(&msg)) {
                rtos::MessageDispatch(&msg);
            } else {
                pollfd p{rtos::MessageQueueFd(), POLLIN, 0};
                ::poll(&p, 1, 20);
            }
        }
        return aDone();
    }
    // Pumps for a while, to see that nothing more comes.
    void PumpFor(int aMs) {
        PumpUntil([] { return false; }, aMs);
    }
    Counts Tally() const {
        Counts n{};
        for (const SockEvent& e : events) {  // an event of no bit throws
            const auto bit = static_cast<unsigned long>(e.event);
            ++n.at(bit ? static_cast<size_t>(__builtin_ctzl(bit)) : n.size());
        }
        return n;
    }

    std::vector<SockEvent> events;
    std::function<void(const SockEvent&)> onEvent;

private:
    static intptr_t Proc(rtos::WindowHandle aWnd, uint32_t aMsg, uintptr_t aW, intptr_t aL) {
        auto* self = reinterpret_cast<SocketWindow*>(rtos::WindowGetLong(aWnd, 0));
        if (self && aMsg == kSockMsg) {
            self->events.push_back(
                {static_cast<int>(aW), rtos::SelectEvent(aL), rtos::SelectError(aL)});
            if (self->onEvent) {
                self->onEvent(self->events.back());
            }
        }
        return 0;
    }

    rtos::WindowHandle m_wnd = nullptr;
};

int NewTcp(int aFlags = 0) {
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | aFlags, 0);
}

// Returns the socket; a non-blocking connect may still be under way.
int ConnectTo(int aFd, uint16_t aPort) {
    sockaddr_in a = Loopback(aPort);
    const int rc = ::connect(aFd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    EXPECT_TRUE(rc == 0 || errno == EINPROGRESS || errno == ECONNREFUSED) << errno;
    return aFd;
}

struct Pair {
    int client;
    int server;
};

Pair Connected() {
    const int listener = Listener();
    const int client = ConnectTo(NewTcp(), PortOf(listener));
    const int server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    return Pair{client, server};
}

// Sends until the socket's buffers are full; returns the bytes sent.
size_t FillUntilWouldBlock(int aFd) {
    static char chunk[65536];
    size_t total = 0;
    ssize_t n;
    while ((n = ::send(aFd, chunk, sizeof(chunk), MSG_DONTWAIT | MSG_NOSIGNAL)) > 0) {
        total += static_cast<size_t>(n);
    }
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
    return total;
}

void ReadExactly(int aFd, size_t aBytes) {
    static char sink[65536];
    while (aBytes > 0) {
        const ssize_t n = ::recv(aFd, sink, std::min(aBytes, sizeof(sink)), 0);
        ASSERT_GT(n, 0);
        aBytes -= static_cast<size_t>(n);
    }
}

// Answers each read with one recv of at most aBytes, as a handler does; a read
// reported with nothing waiting fails rather than blocks.
std::function<void(const SockEvent&)> ReadEach(size_t aBytes) {
    return [aBytes](const SockEvent& aEvent) {
        char buf[256];
        if (aEvent.event == rtos::kFdRead) {
            EXPECT_GT(::recv(aEvent.fd, buf, aBytes, MSG_DONTWAIT), 0);
        }
    };
}

// One loopback scene: a row's start makes the sockets, selects one of them and
// starts the traffic; the window then pumps until it has seen exactly `want`.
struct Scene {
    SocketWindow w;
    int selected = -1;
    Counts want{};
    long errorEvent = 0;  // the one event that carries an error
    int error = 0;
    std::vector<int> fds;  // closed at the end

    int Keep(int aFd) {
        fds.push_back(aFd);
        return aFd;
    }
    int Select(int aFd, long aEvents = kAll) {
        selected = aFd;
        return w.Select(aFd, aEvents);
    }
    Pair KeepPair() {
        Pair p = Connected();
        Keep(p.client);
        Keep(p.server);
        return p;
    }
    void AcceptEach(int aListener) {
        w.onEvent = [this, aListener](const SockEvent& e) {
            if (e.event == rtos::kFdAccept) {
                Keep(::accept4(aListener, nullptr, nullptr, SOCK_CLOEXEC));
            }
        };
    }
};

// A refused connect, selected before or after it failed; on loopback the
// refusal may also come at once, and then there is nothing to report.
void FailConnect(Scene& s, bool aSelectFirst) {
    const int listener = Listener();
    const uint16_t closedPort = PortOf(listener);
    ::close(listener);
    const int fd = s.Keep(NewTcp(SOCK_NONBLOCK));
    if (aSelectFirst) {
        ASSERT_EQ(s.Select(fd), 0);
    }
    ConnectTo(fd, closedPort);
    if (errno == ECONNREFUSED) {
        s.want = Counts{};
    }
    if (!aSelectFirst) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_EQ(s.Select(fd), 0);
    }
    s.errorEvent = rtos::kFdConnect;
    s.error = ECONNREFUSED;
}

}  // namespace

TEST(PumpSelect, EachEventIsReportedByItsRuleAndNothingElse) {
    const struct {
        const char* name;
        Counts want;  // read, write, oob, accept, connect, close
        std::function<void(Scene&)> start;
    } rules[] = {
        {"read while data waits, one message at a time",
         {9, 1, 0, 0, 0, 0},
         [](Scene& s) {
             Pair p = s.KeepPair();
             ASSERT_EQ(s.Select(p.client), 0);
             for (int i = 0; i < 3; ++i) {  // three sends while nobody pumps
                 ASSERT_EQ(::send(p.server, "abc", 3, 0), 3);
                 std::this_thread::sleep_for(std::chrono::milliseconds(10));
             }
             s.w.onEvent = ReadEach(1);
         }},
        {"accept while connections wait, on a socket selected before it listened",
         {0, 0, 0, 3, 0, 0},
         [](Scene& s) {
             const int fd = s.Keep(NewTcp());
             sockaddr_in a = Loopback(0);
             ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
             ASSERT_EQ(s.Select(fd), 0);
             s.w.PumpFor(50);  // an unconnected socket has nothing to say
             ASSERT_EQ(::listen(fd, 4), 0);
             for (int i = 0; i < 3; ++i) {
                 s.Keep(ConnectTo(NewTcp(), PortOf(fd)));
             }
             s.AcceptEach(fd);
         }},
        {"connect once, then the first write",
         {0, 1, 0, 0, 1, 0},
         [](Scene& s) {
             const int listener = s.Keep(Listener());
             const int fd = s.Keep(NewTcp());
             ASSERT_EQ(s.Select(fd), 0);
             EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "selection makes it non-blocking";
             ConnectTo(fd, PortOf(listener));
         }},
        {"a failed connect selected first",
         {0, 0, 0, 0, 1, 0},
         [](Scene& s) { FailConnect(s, true); }},
        {"a failed connect selected after",
         {0, 0, 0, 0, 1, 0},
         [](Scene& s) { FailConnect(s, false); }},
        {"a peer's close once, after the data that remained",
         {3, 0, 0, 0, 0, 1},
         [](Scene& s) {
             Pair p = s.KeepPair();
             ASSERT_EQ(::send(p.server, "hello", 5, 0), 5);
             ::shutdown(p.server, SHUT_WR);
             std::this_thread::sleep_for(std::chrono::milliseconds(20));
             s.w.onEvent = ReadEach(2);
             ASSERT_EQ(s.Select(p.client, rtos::kFdRead | rtos::kFdClose), 0);
         }},
        {"a reset once, as a close with its error",
         {0, 0, 0, 0, 0, 1},
         [](Scene& s) {
             Pair p = Connected();
             ASSERT_EQ(s.Select(s.Keep(p.client), rtos::kFdRead | rtos::kFdClose), 0);
             linger hard{1, 0};
             ASSERT_EQ(::setsockopt(p.server, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
             ::close(p.server);
             s.errorEvent = rtos::kFdClose;
             s.error = ECONNRESET;
         }},
        {"a datagram socket: writable once, read while datagrams wait",
         {2, 1, 0, 0, 0, 0},
         [](Scene& s) {
             const int rx = s.Keep(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
             sockaddr_in a = Loopback(0);
             ASSERT_EQ(::bind(rx, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
             ASSERT_EQ(s.Select(rx), 0);
             const int tx = s.Keep(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
             sockaddr_in to = Loopback(PortOf(rx));
             for (int i = 0; i < 2; ++i) {
                 ASSERT_EQ(::sendto(tx, "d", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)),
                           1);
             }
             s.w.onEvent = ReadEach(16);
         }},
        {"nothing after a cancel, queued or new",
         {1, 0, 0, 0, 0, 0},
         [](Scene& s) {
             Pair a = s.KeepPair();
             Pair b = s.KeepPair();
             s.w.onEvent = ReadEach(1);
             ASSERT_EQ(s.w.Select(a.client, rtos::kFdRead), 0);
             ASSERT_EQ(s.w.Select(b.client, rtos::kFdRead), 0);
             ASSERT_EQ(::send(a.server, "x", 1, 0), 1);
             ASSERT_EQ(::send(b.server, "y", 1, 0), 1);
             std::this_thread::sleep_for(std::chrono::milliseconds(20));
             // Both reads are queued by the first take; cancel the one still waiting.
             rtos::Message first;
             ASSERT_TRUE(rtos::MessagePeek(&first));
             const bool aFirst = static_cast<int>(first.wParam) == a.client;
             s.selected = aFirst ? a.client : b.client;
             ASSERT_EQ(s.w.Select(aFirst ? b.client : a.client, 0), 0);
             rtos::MessageDispatch(&first);
             ASSERT_EQ(::send(aFirst ? b.server : a.server, "z", 1, 0), 1);
         }},
    };
    for (const auto& rule : rules) {
        SCOPED_TRACE(rule.name);
        Scene s;
        s.want = rule.want;
        rule.start(s);
        EXPECT_TRUE(s.w.PumpUntil([&] { return s.w.Tally() == s.want; }));
        s.w.PumpFor(100);
        EXPECT_EQ(s.w.Tally(), s.want);
        for (const SockEvent& e : s.w.events) {
            EXPECT_EQ(e.fd, s.selected);
            EXPECT_EQ(e.error, e.event == s.errorEvent ? s.error : 0) << "event " << e.event;
        }
        if (!s.w.events.empty() && s.want[kConnect]) {
            EXPECT_EQ(s.w.events.front().event, rtos::kFdConnect) << "connect comes first";
        }
        if (!s.w.events.empty() && s.want[kClose]) {
            EXPECT_EQ(s.w.events.back().event, rtos::kFdClose) << "nothing after the close";
        }
        for (int fd : s.fds) {
            ::close(fd);
        }
    }
}

TEST(PumpSelect, WriteIsReportedFirstAndAgainOnlyAfterAWouldBlock) {
    Pair p = Connected();
    SocketWindow w;
    ASSERT_EQ(w.Select(p.client, rtos::kFdWrite | rtos::kFdClose), 0);
    ASSERT_TRUE(w.PumpUntil([&] { return w.Tally()[kWrite] == 1; }));
    w.PumpFor(100);
    EXPECT_EQ(w.Tally()[kWrite], 1) << "an idle writable socket is told once";

    // Room that comes back after an unannounced would-block is not reported.
    size_t filled = FillUntilWouldBlock(p.client);
    ReadExactly(p.server, filled);
    w.PumpFor(150);
    EXPECT_EQ(w.Tally()[kWrite], 1);

    // Announced (from another thread, as a sender may be): reported once. The
    // acknowledgements still on their way free room of their own: fill again
    // until a pause frees nothing.
    filled = FillUntilWouldBlock(p.client);
    for (size_t more = 1; more > 0; filled += more) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        more = FillUntilWouldBlock(p.client);
    }
    std::thread([&] { rtos::SocketSendWouldBlock(p.client); }).join();
    w.PumpFor(50);
    EXPECT_EQ(w.Tally()[kWrite], 1) << "no room yet";
    std::thread reader([&] { ReadExactly(p.server, filled); });
    ASSERT_TRUE(w.PumpUntil([&] { return w.Tally()[kWrite] == 2; }));
    reader.join();
    w.PumpFor(100);
    EXPECT_EQ(w.events.size(), 2u);
    rtos::SocketSendWouldBlock(-1);  // unknown sockets are ignored
    ::close(p.client);
    ::close(p.server);
}

TEST(PumpSelect, BadArgumentsFailWithTheirErrors) {
    SocketWindow w;
    Pair p = Connected();
    int pipes[2];
    ASSERT_EQ(::pipe(pipes), 0);
    // errno after a failed call, 0 after a success; cleared for the next row.
    auto errorOf = [](int aResult) {
        const int err = aResult == 0 ? 0 : errno;
        errno = 0;
        return err;
    };
    int otherWindow = 0, otherThread = 0;
    std::thread([&] { otherWindow = errorOf(w.Select(p.client)); }).join();
    ASSERT_EQ(w.Select(p.client), 0);
    std::thread([&] {
        SocketWindow mine;
        otherThread = errorOf(mine.Select(p.client));
    }).join();
    const struct {
        const char* what;
        int error;
        int want;
    } cases[] = {
        {"another thread's window", otherWindow, EPERM},
        {"selected by another thread", otherThread, EBUSY},
        {"no socket", errorOf(w.Select(-1)), EBADF},
        {"a pipe", errorOf(w.Select(pipes[0])), ENOTSOCK},
        {"no window", errorOf(rtos::SocketAsyncSelect(p.client, nullptr, kSockMsg, kAll)), EBADF},
        {"cancel", errorOf(w.Select(p.client, 0)), 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error, c.want) << c.what;
    }
    ::close(p.client);
    EXPECT_EQ(w.Select(p.client, 0), -1) << "a closed socket that was not selected";
    for (int fd : {pipes[0], pipes[1], p.server}) {
        ::close(fd);
    }
}

TEST(PumpSelect, AnIdleThreadSleepsAndLeavesNoDescriptorsWhenItEnds) {
    const int before = OpenFdCount();
    Pair p = Connected();
    double cpuMs = -1;
    std::thread([&] {
        SocketWindow w;
        w.onEvent = ReadEach(1);
        ASSERT_EQ(w.Select(p.client), 0);
        ASSERT_EQ(::send(p.server, "q", 1, 0), 1);
        ASSERT_TRUE(w.PumpUntil([&] { return w.Tally()[kRead] == 1; }));
        timespec t0, t1;
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
        w.PumpFor(500);
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
        cpuMs = (t1.tv_sec - t0.tv_sec) * 1e3 + (t1.tv_nsec - t0.tv_nsec) / 1e6;
        EXPECT_EQ(w.events.size(), 2u) << "the first writability and the read only";
        // The window and the thread end with the selection in place.
    }).join();
    EXPECT_GE(cpuMs, 0.0);
    EXPECT_LT(cpuMs, 100.0) << "a busy loop would use most of the 500 ms";
    ::close(p.client);
    ::close(p.server);
    EXPECT_EQ(OpenFdCount(), before);
}
