// The message pump (rtoswindow.h): window classes and windows, posting across
// threads, the loop, WM_QUIT, WM_DESTROY, window timers, the queue descriptor
// and the release of everything a thread held.
#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <poll.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fd_count.h"
#include "rtos.h"
#include "rtoswindow.h"

namespace {

constexpr const char* kClass = "PumpTestWindow";
constexpr uint32_t kMsgQuitLoop = rtos::kWmUser + 1;
constexpr uint32_t kMsgData = rtos::kWmUser + 2;
constexpr uint32_t kMsgRepost = rtos::kWmUser + 3;  // posts itself again wParam more times

struct Seen {
    rtos::WindowHandle hwnd;
    uint32_t msg;
    uintptr_t wParam;
    intptr_t lParam;
    uint32_t tid;
};

// What a window's procedure saw; the window's slot 0 points at it.
struct Recorder {
    size_t Count(uint32_t aMsg) {
        std::lock_guard<std::mutex> lock(m_lock);
        size_t n = 0;
        for (const Seen& s : m_seen) {
            n += s.msg == aMsg;
        }
        return n;
    }

    std::mutex m_lock;
    std::vector<Seen> m_seen;
};

intptr_t TestProc(rtos::WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam, intptr_t aLParam) {
    if (auto* rec = reinterpret_cast<Recorder*>(rtos::WindowGetLong(aWnd, 0))) {
        std::lock_guard<std::mutex> lock(rec->m_lock);
        rec->m_seen.push_back(Seen{aWnd, aMsg, aWParam, aLParam, rtos::CurrentThreadId()});
    }
    if (aMsg == kMsgQuitLoop) {
        rtos::MessagePostQuit(static_cast<int>(aWParam));
    } else if (aMsg == kMsgRepost && aWParam > 0) {
        rtos::WindowPostMessage(aWnd, kMsgRepost, aWParam - 1, 0);
    }
    return static_cast<intptr_t>(aMsg) * 2;
}

rtos::WindowHandle NewWindow(Recorder* aRec) {
    static const bool s_registered = rtos::WindowClassRegister(kClass, &TestProc, 4);
    EXPECT_TRUE(s_registered);
    rtos::WindowHandle wnd = rtos::WindowCreate(kClass);
    rtos::WindowSetLong(wnd, 0, reinterpret_cast<intptr_t>(aRec));
    return wnd;
}

// errno after a call that failed, 0 after one that succeeded; clears errno so
// that a later call that fails without setting it shows.
int ErrorOf(bool aOk) {
    const int err = aOk ? 0 : errno;
    errno = 0;
    return err;
}

bool Readable(int aFd, int aTimeoutMs) {
    pollfd p{aFd, POLLIN, 0};
    return ::poll(&p, 1, aTimeoutMs) == 1 && (p.revents & POLLIN);
}

// Dispatches what is pending on this thread; returns how many messages.
int DrainPending() {
    int n = 0;
    rtos::Message msg;
    while (rtos::MessagePeek(&msg)) {
        rtos::MessageDispatch(&msg);
        ++n;
    }
    return n;
}

// The eventfd's counter, the writes not yet read; only an eventfd shows one.
long EventFdCount() {
    long count = -1;
    DIR* dir = ::opendir("/proc/self/fdinfo");
    while (dirent* e = ::readdir(dir)) {
        std::ifstream info(std::string("/proc/self/fdinfo/") + e->d_name);
        std::string key;
        while (info >> key) {
            if (key == "eventfd-count:") {
                info >> std::hex >> count;
            }
        }
    }
    ::closedir(dir);
    return count;
}

}  // namespace

TEST(PumpWindows, ClassesWindowsAndSlotsRefuseWhatTheyCannotDoWithTheirErrors) {
    // Four bytes, as a 32-bit pointer asks for, hold a pointer here too.
    ASSERT_TRUE(rtos::WindowClassRegister("PumpTestClass", &rtos::WindowDefProc, 4));
    rtos::WindowHandle wnd = rtos::WindowCreate("PumpTestClass");
    ASSERT_NE(wnd, nullptr);
    int target = 0;
    const intptr_t value = reinterpret_cast<intptr_t>(&target);
    errno = 0;
    EXPECT_EQ(rtos::WindowSetLong(wnd, 0, value), 0);
    EXPECT_EQ(errno, 0) << "success leaves the last error alone";
    EXPECT_EQ(rtos::WindowSetLong(wnd, 0, value + 8), value) << "returns the previous value";
    intptr_t seenElsewhere = 0;
    std::thread([&] { seenElsewhere = rtos::WindowGetLong(wnd, 0); }).join();
    EXPECT_EQ(seenElsewhere, value + 8);

    const struct {
        const char* what;
        int error;
        int want;
    } cases[] = {
        {"slot -8", ErrorOf(rtos::WindowGetLong(wnd, -8)), EINVAL},
        {"unknown class", ErrorOf(rtos::WindowCreate("PumpTestUnknown")), ENOENT},
        {"slot 3", ErrorOf(rtos::WindowGetLong(wnd, 3)), EINVAL},
        {"class in use", ErrorOf(rtos::WindowClassUnregister("PumpTestClass")), EBUSY},
        {"slot past the bytes", ErrorOf(rtos::WindowGetLong(wnd, sizeof(intptr_t))), EINVAL},
        {"taken name", ErrorOf(rtos::WindowClassRegister("PumpTestClass", &TestProc, 0)), EEXIST},
        {"null name", ErrorOf(rtos::WindowClassRegister(nullptr, &TestProc, 0)), EINVAL},
        {"slot of no window", ErrorOf(rtos::WindowSetLong(nullptr, 0, 1)), EBADF},
        {"null procedure", ErrorOf(rtos::WindowClassRegister("PumpTestNoProc", nullptr, 0)),
         EINVAL},
        {"destroy", ErrorOf(rtos::WindowDestroy(wnd)), 0},
        {"slot of a destroyed window", ErrorOf(rtos::WindowGetLong(wnd, 0)), EBADF},
        {"negative bytes", ErrorOf(rtos::WindowClassRegister("PumpTestNeg", &TestProc, -1)),
         EINVAL},
        {"unregister", ErrorOf(rtos::WindowClassUnregister("PumpTestClass")), 0},
        {"unregister again", ErrorOf(rtos::WindowClassUnregister("PumpTestClass")), ENOENT},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error, c.want) << c.what;
    }
}

TEST(PumpMessages, PostsFromManyThreadsRunOnlyOnTheOwnerInEachSendersOrder) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    constexpr int kSenders = 4;
    constexpr int kEach = 5000;
    std::vector<std::thread> senders;
    int err = 0;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            if (s == 0) {  // dispatching another thread's window is refused: it would run here
                rtos::Message foreign{wnd, kMsgData, 0, 0};
                EXPECT_EQ(rtos::MessageDispatch(&foreign), 0);
                err = errno;
            }
            for (int i = 0; i < kEach; ++i) {
                ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, s, i));
            }
        });
    }
    std::thread closer([&] {
        for (auto& t : senders) {
            t.join();
        }
        rtos::WindowPostMessage(wnd, kMsgQuitLoop, 42, 0);  // after all the data
    });
    rtos::Message msg;
    while (rtos::MessageGet(&msg) > 0) {
        rtos::MessageDispatch(&msg);
    }
    closer.join();
    EXPECT_EQ(msg.wParam, 42u) << "the loop ends with the code given to quit";
    EXPECT_EQ(err, EBADF);
    EXPECT_EQ(rtos::MessageDispatch(nullptr), 0);

    std::vector<intptr_t> next(kSenders, 0);
    for (const Seen& s : rec.m_seen) {
        if (s.msg == kMsgData) {
            EXPECT_EQ(s.tid, rtos::CurrentThreadId());
            EXPECT_EQ(s.hwnd, wnd);
            ASSERT_LT(s.wParam, static_cast<uintptr_t>(kSenders));
            ASSERT_EQ(s.lParam, next[s.wParam]) << "sender " << s.wParam << " out of order";
            ++next[s.wParam];
        }
    }
    EXPECT_EQ(next, std::vector<intptr_t>(kSenders, kEach));
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
}

// Timers and destruction are the owner's; what either ends delivers nothing.
TEST(PumpWindows, TimerIdsAreChosenAndKilledAndDestroyDropsWhatWasQueued) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    const uintptr_t first = rtos::WindowSetTimer(wnd, 0, 10);
    const uintptr_t second = rtos::WindowSetTimer(wnd, 0, 10);
    EXPECT_NE(first, 0u);
    EXPECT_NE(second, 0u);
    EXPECT_NE(first, second);
    EXPECT_TRUE(rtos::WindowKillTimer(wnd, first));
    EXPECT_TRUE(rtos::WindowKillTimer(wnd, second));
    EXPECT_EQ(ErrorOf(rtos::WindowKillTimer(wnd, second)), EINVAL);
    rtos::SleepMs(40);
    EXPECT_EQ(DrainPending(), 0) << "killed timers are silent";

    ASSERT_EQ(rtos::WindowSetTimer(wnd, 5, 10), 5u);
    ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 1, 0));
    int setErr = 0, destroyErr = 0;
    std::thread([&] {
        ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 2, 0));
        setErr = ErrorOf(rtos::WindowSetTimer(wnd, 3, 10));
        destroyErr = ErrorOf(rtos::WindowDestroy(wnd));
    }).join();
    EXPECT_EQ(setErr, EPERM);
    EXPECT_EQ(destroyErr, EPERM);
    ASSERT_TRUE(rtos::WindowDestroy(wnd));
    ASSERT_EQ(rec.m_seen.size(), 1u) << "WM_DESTROY at once, and nothing else";
    EXPECT_EQ(rec.m_seen[0].msg, rtos::kWmDestroy);
    EXPECT_FALSE(rtos::WindowDestroy(wnd));
    rtos::SleepMs(40);  // the timer would be due by now
    EXPECT_EQ(DrainPending(), 0) << "queued messages and timers went with the window";
    EXPECT_EQ(ErrorOf(rtos::WindowPostMessage(wnd, kMsgData, 3, 0)), EBADF);
    EXPECT_EQ(rtos::WindowSetTimer(wnd, 1, 10), 0u);
}

TEST(PumpTimers, ADueTimerIsReportedOnceHoweverLongItWaitedAndPostsDoNotStarveIt) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_EQ(rtos::WindowSetTimer(wnd, 9, 50), 9u);
    rtos::SleepMs(400);  // eight intervals, none taken
    rtos::Message msg;
    int timers = 0;
    while (rtos::MessagePeek(&msg)) {
        timers += msg.message == rtos::kWmTimer;
        EXPECT_EQ(msg.wParam, 9u);
        EXPECT_EQ(msg.hwnd, wnd);
    }
    EXPECT_EQ(timers, 1);

    const auto start = std::chrono::steady_clock::now();
    for (timers = 0;
         timers < 5 && std::chrono::steady_clock::now() - start < std::chrono::seconds(20);) {
        ASSERT_EQ(rtos::MessageGet(&msg), 1);
        timers += msg.message == rtos::kWmTimer;
    }
    EXPECT_EQ(timers, 5);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));

    // Each dispatch posts the next message, so the queue is never empty.
    ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgRepost, 1000000000, 0));
    while (rec.Count(rtos::kWmTimer) < 3 &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(40)) {
        ASSERT_EQ(rtos::MessageGet(&msg), 1);
        rtos::MessageDispatch(&msg);
    }
    EXPECT_GE(rec.Count(rtos::kWmTimer), 3u);
    EXPECT_GT(rec.Count(kMsgRepost), 3u);
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_EQ(DrainPending(), 0) << "the reposts went with the window";
}

TEST(PumpQueue, TheFdIsReadableWhileWorkWaitsOneWriteServesManyPostsAndQuitComesLast) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    const int fd = rtos::MessageQueueFd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(rtos::MessageQueueFd(), fd);
    EXPECT_FALSE(Readable(fd, 0));
    ASSERT_EQ(EventFdCount(), 0) << "this test expects the only eventfd of the process";

    std::thread([&] {
        for (int i = 0; i < 10; ++i) {
            rtos::WindowPostMessage(wnd, kMsgData, i, 0);
        }
    }).join();
    EXPECT_TRUE(Readable(fd, 5000));
    EXPECT_EQ(EventFdCount(), 1) << "ten posts, one write";
    EXPECT_EQ(DrainPending(), 10);
    EXPECT_EQ(EventFdCount(), 0);
    EXPECT_FALSE(Readable(fd, 0));

    // Outside a dispatch a thread's post to itself wakes its own queue too.
    ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 2, 0));
    EXPECT_TRUE(Readable(fd, 0));
    EXPECT_EQ(DrainPending(), 1);
    EXPECT_FALSE(Readable(fd, 0));

    // A chain of self-posts made inside dispatches is drained without a write.
    rtos::Message msg{wnd, kMsgRepost, 5, 0};
    rtos::MessageDispatch(&msg);
    EXPECT_EQ(EventFdCount(), 0);
    EXPECT_FALSE(Readable(fd, 0));
    EXPECT_EQ(DrainPending(), 5);

    ASSERT_NE(rtos::WindowSetTimer(wnd, 1, 20), 0u);
    EXPECT_TRUE(Readable(fd, 5000)) << "a due timer makes it readable";
    ASSERT_TRUE(rtos::MessagePeek(&msg));
    EXPECT_EQ(msg.message, rtos::kWmTimer);
    ASSERT_TRUE(rtos::WindowKillTimer(wnd, 1));

    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, i, 0));
    }
    rtos::MessagePostQuit(7);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(rtos::MessageGet(&msg), 1);
        EXPECT_EQ(msg.wParam, static_cast<uintptr_t>(i));
        EXPECT_EQ(rtos::MessageDispatch(&msg), static_cast<intptr_t>(kMsgData) * 2);
    }
    ASSERT_EQ(rtos::MessageGet(&msg), 0);
    EXPECT_EQ(msg.message, rtos::kWmQuit);
    EXPECT_EQ(msg.hwnd, nullptr);
    EXPECT_EQ(msg.wParam, 7u);
    EXPECT_FALSE(rtos::MessagePeek(&msg)) << "quit is given once";
    EXPECT_EQ(rtos::MessageGet(nullptr), -1);
    EXPECT_FALSE(rtos::MessageTranslate(&msg));
    EXPECT_EQ(rtos::MessageDispatch(&msg), 0) << "WM_QUIT has no window";
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_FALSE(Readable(fd, 0));
}

TEST(PumpLifetime, ThreadsReleaseTheirQueuesWindowsAndDescriptors) {
    Recorder rec;
    ASSERT_NE(NewWindow(&rec), nullptr);     // registers the class
    ASSERT_TRUE(rtos::MessageQueueClose());  // start without a queue on this thread
    const int before = OpenFdCount();
    rtos::WindowHandle left = nullptr;
    for (int round = 0; round < 3; ++round) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&rec, &left, t] {
                rtos::WindowHandle a = NewWindow(&rec);
                rtos::WindowHandle b = NewWindow(&rec);
                ASSERT_NE(rtos::WindowSetTimer(a, 1, 10), 0u);
                ASSERT_TRUE(rtos::WindowPostMessage(b, kMsgData, 0, 0));
                EXPECT_GE(rtos::MessageQueueFd(), 0);
                if (t == 0) {
                    left = b;
                }
                // Ends with its windows, timer and queued message still there.
            });
        }
        for (auto& t : threads) {
            t.join();
        }
    }
    EXPECT_EQ(OpenFdCount(), before);
    EXPECT_EQ(ErrorOf(rtos::WindowPostMessage(left, kMsgData, 1, 0)), EBADF);
    EXPECT_EQ(rtos::WindowGetLong(left, 0), 0);
    EXPECT_EQ(rec.Count(kMsgData), 0u) << "the queued messages were dropped, not delivered";

    rtos::WindowHandle mine = rtos::WindowCreate(kClass);
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(OpenFdCount(), before + 3) << "epoll, eventfd and timerfd";
    EXPECT_TRUE(rtos::MessageQueueClose());
    EXPECT_EQ(OpenFdCount(), before);
    EXPECT_FALSE(rtos::WindowPostMessage(mine, kMsgData, 0, 0));
    EXPECT_TRUE(rtos::MessageQueueClose()) << "closing nothing is fine";
}
