// The message pump (rtoswindow.h): window classes and windows, posting across
// threads, the loop, WM_QUIT, WM_DESTROY, window timers, the queue descriptor
// and the release of everything a thread held.
#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rtos.h"
#include "rtoswindow.h"

namespace {

constexpr const char* kClass = "PumpTestWindow";
constexpr uint32_t kMsgQuitLoop = rtos::kWmUser + 1;
constexpr uint32_t kMsgData = rtos::kWmUser + 2;
constexpr uint32_t kMsgRepost = rtos::kWmUser + 3;

struct Seen {
    rtos::WindowHandle hwnd;
    uint32_t msg;
    uintptr_t wParam;
    intptr_t lParam;
    uint32_t tid;
};

// What a window's procedure saw; the window's slot 0 points at it.
class Recorder {
public:
    void Add(const Seen& aSeen) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_seen.push_back(aSeen);
        m_cond.notify_all();
    }
    size_t Count(uint32_t aMsg) {
        std::lock_guard<std::mutex> lock(m_lock);
        size_t n = 0;
        for (const Seen& s : m_seen) {
            n += s.msg == aMsg;
        }
        return n;
    }
    bool WaitCount(uint32_t aMsg, size_t aCount, int aMs = 10000) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_cond.wait_for(lock, std::chrono::milliseconds(aMs), [&] {
            size_t n = 0;
            for (const Seen& s : m_seen) {
                n += s.msg == aMsg;
            }
            return n >= aCount;
        });
    }
    std::vector<Seen> Take() {
        std::lock_guard<std::mutex> lock(m_lock);
        std::vector<Seen> out;
        out.swap(m_seen);
        return out;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_cond;
    std::vector<Seen> m_seen;
};

intptr_t TestProc(rtos::WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam, intptr_t aLParam) {
    Recorder* rec = reinterpret_cast<Recorder*>(rtos::WindowGetLong(aWnd, 0));
    if (rec) {
        rec->Add(Seen{aWnd, aMsg, aWParam, aLParam, rtos::CurrentThreadId()});
    }
    if (aMsg == kMsgQuitLoop) {
        rtos::MessagePostQuit(static_cast<int>(aWParam));
    } else if (aMsg == kMsgRepost && aWParam > 0) {
        rtos::WindowPostMessage(aWnd, kMsgRepost, aWParam - 1, 0);
    }
    return static_cast<intptr_t>(aMsg) * 2;
}

void EnsureClass() {
    static const bool s_registered = rtos::WindowClassRegister(kClass, &TestProc, 4);
    ASSERT_TRUE(s_registered);
}

rtos::WindowHandle NewWindow(Recorder* aRec) {
    EnsureClass();
    rtos::WindowHandle wnd = rtos::WindowCreate(kClass);
    if (wnd) {
        rtos::WindowSetLong(wnd, 0, reinterpret_cast<intptr_t>(aRec));
    }
    return wnd;
}

// A thread that owns one window and runs the loop until WM_QUIT.
class LoopThread {
public:
    explicit LoopThread(Recorder* aRec) {
        std::promise<void> ready;
        m_thread = std::thread([this, aRec, &ready] {
            m_tid = rtos::CurrentThreadId();
            m_wnd = NewWindow(aRec);
            ready.set_value();
            rtos::Message msg;
            while (rtos::MessageGet(&msg) > 0) {
                rtos::MessageDispatch(&msg);
            }
            m_exitCode = static_cast<int>(msg.wParam);
        });
        ready.get_future().wait();
    }
    ~LoopThread() { Stop(); }
    void Stop(int aCode = 0) {
        if (m_thread.joinable()) {
            rtos::WindowPostMessage(m_wnd, kMsgQuitLoop, static_cast<uintptr_t>(aCode), 0);
            m_thread.join();
        }
    }
    rtos::WindowHandle Wnd() const { return m_wnd; }
    uint32_t Tid() const { return m_tid; }
    int ExitCode() const { return m_exitCode; }

private:
    std::thread m_thread;
    rtos::WindowHandle m_wnd = nullptr;
    uint32_t m_tid = 0;
    int m_exitCode = -1;
};

int CountOpenFds() {
    int n = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (dirent* e = ::readdir(dir)) {
        n += e->d_name[0] != '.';
    }
    ::closedir(dir);
    return n - 1;  // the directory's own descriptor
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

}  // namespace

TEST(PumpWindows, ClassesAreRegisteredOnceByNameAndKeptWhileWindowsExist) {
    EXPECT_FALSE(rtos::WindowClassRegister(nullptr, &TestProc, 0));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(rtos::WindowClassRegister("PumpTestNoProc", nullptr, 0));
    EXPECT_FALSE(rtos::WindowClassRegister("PumpTestNegative", &TestProc, -1));

    ASSERT_TRUE(rtos::WindowClassRegister("PumpTestClass", &TestProc, 0));
    EXPECT_FALSE(rtos::WindowClassRegister("PumpTestClass", &TestProc, 0));
    EXPECT_EQ(errno, EEXIST);

    EXPECT_EQ(rtos::WindowCreate("PumpTestUnknown"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    rtos::WindowHandle wnd = rtos::WindowCreate("PumpTestClass");
    ASSERT_NE(wnd, nullptr);
    EXPECT_FALSE(rtos::WindowClassUnregister("PumpTestClass"));
    EXPECT_EQ(errno, EBUSY);
    ASSERT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_TRUE(rtos::WindowClassUnregister("PumpTestClass"));
    EXPECT_FALSE(rtos::WindowClassUnregister("PumpTestClass"));
    EXPECT_EQ(errno, ENOENT);
}

TEST(PumpWindows, TheSlotAtIndexZeroHoldsAPointerForEveryThread) {
    // Four bytes, as a 32-bit pointer asks for, hold a pointer here too.
    static const bool s_registered =
        rtos::WindowClassRegister("PumpTestSlots", &rtos::WindowDefProc, 4);
    ASSERT_TRUE(s_registered);
    rtos::WindowHandle wnd = rtos::WindowCreate("PumpTestSlots");
    ASSERT_NE(wnd, nullptr);
    int target = 0;
    const intptr_t value = reinterpret_cast<intptr_t>(&target);

    errno = 0;
    EXPECT_EQ(rtos::WindowSetLong(wnd, 0, value), 0);
    EXPECT_EQ(errno, 0) << "success leaves the last error alone";
    EXPECT_EQ(rtos::WindowGetLong(wnd, 0), value);
    EXPECT_EQ(rtos::WindowSetLong(wnd, 0, value + 8), value) << "returns the previous value";
    intptr_t seenElsewhere = 0;
    std::thread([&] { seenElsewhere = rtos::WindowGetLong(wnd, 0); }).join();
    EXPECT_EQ(seenElsewhere, value + 8);

    for (int bad : {-8, 3, static_cast<int>(sizeof(intptr_t))}) {
        errno = 0;
        EXPECT_EQ(rtos::WindowGetLong(wnd, bad), 0) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
    }
    ASSERT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_EQ(rtos::WindowGetLong(wnd, 0), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(rtos::WindowSetLong(nullptr, 0, 1), 0);
    EXPECT_EQ(errno, EBADF);
}

TEST(PumpMessages, PostsFromManyThreadsRunOnTheOwnerInEachSendersOrder) {
    Recorder rec;
    LoopThread loop(&rec);
    constexpr int kSenders = 4;
    constexpr int kEach = 5000;
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = 0; i < kEach; ++i) {
                ASSERT_TRUE(rtos::WindowPostMessage(loop.Wnd(), kMsgData, s, i));
            }
        });
    }
    for (auto& t : senders) {
        t.join();
    }
    ASSERT_TRUE(rec.WaitCount(kMsgData, kSenders * kEach));
    loop.Stop();

    std::vector<intptr_t> next(kSenders, 0);
    for (const Seen& s : rec.Take()) {
        if (s.msg != kMsgData) {
            continue;
        }
        EXPECT_EQ(s.tid, loop.Tid());
        EXPECT_EQ(s.hwnd, loop.Wnd());
        ASSERT_LT(s.wParam, static_cast<uintptr_t>(kSenders));
        ASSERT_EQ(s.lParam, next[s.wParam]) << "sender " << s.wParam << " out of order";
        ++next[s.wParam];
    }
}

TEST(PumpMessages, QuitComesAfterTheQueuedMessagesWithItsCode) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, i, 0));
    }
    rtos::MessagePostQuit(7);
    rtos::Message msg;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(rtos::MessageGet(&msg), 1);
        EXPECT_EQ(msg.message, kMsgData);
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
}

TEST(PumpMessages, ALoopEndsWithTheCodeGivenToQuit) {
    Recorder rec;
    LoopThread loop(&rec);
    loop.Stop(42);
    EXPECT_EQ(loop.ExitCode(), 42);
}

TEST(PumpMessages, DestroyDeliversWmDestroyAtOnceAndDropsWhatWasQueued) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
    ASSERT_NE(rtos::WindowSetTimer(wnd, 5, 10), 0u);
    ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 1, 0));
    std::thread([&] { ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 2, 0)); }).join();

    bool destroyedElsewhere = true;
    int err = 0;
    std::thread([&] {
        destroyedElsewhere = rtos::WindowDestroy(wnd);
        err = errno;
    }).join();
    EXPECT_FALSE(destroyedElsewhere) << "only the owner may destroy";
    EXPECT_EQ(err, EPERM);

    ASSERT_TRUE(rtos::WindowDestroy(wnd));
    std::vector<Seen> seen = rec.Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].msg, rtos::kWmDestroy);
    EXPECT_FALSE(rtos::WindowDestroy(wnd));

    rtos::SleepMs(40);  // the timer would be due by now
    EXPECT_EQ(DrainPending(), 0) << "queued messages and timers went with the window";
    EXPECT_FALSE(rtos::WindowPostMessage(wnd, kMsgData, 3, 0));
    EXPECT_EQ(errno, EBADF);
}

TEST(PumpMessages, PostingToAWindowWhoseThreadEndedFailsQuietly) {
    Recorder rec;
    rtos::WindowHandle wnd = nullptr;
    std::thread([&] {
        wnd = NewWindow(&rec);
        ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 0, 0));
    }).join();
    ASSERT_NE(wnd, nullptr);
    EXPECT_FALSE(rtos::WindowPostMessage(wnd, kMsgData, 1, 0));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(rtos::WindowGetLong(wnd, 0), 0);
    EXPECT_EQ(rec.Count(kMsgData), 0u) << "the queued message was dropped, not delivered";
}

TEST(PumpMessages, DispatchRunsOnlyTheCallersOwnWindows) {
    Recorder rec;
    LoopThread loop(&rec);
    rtos::Message foreign{loop.Wnd(), kMsgData, 0, 0};
    EXPECT_EQ(rtos::MessageDispatch(&foreign), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(rtos::MessageDispatch(nullptr), 0);
    loop.Stop();
    EXPECT_EQ(rec.Count(kMsgData), 0u);
}

TEST(PumpTimers, ADueTimerIsReportedOnceHoweverLongItWaited) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
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

    // It keeps ticking, one interval apart.
    const auto start = std::chrono::steady_clock::now();
    timers = 0;
    while (timers < 5 && std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
        ASSERT_EQ(rtos::MessageGet(&msg), 1);
        timers += msg.message == rtos::kWmTimer;
    }
    EXPECT_EQ(timers, 5);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
}

TEST(PumpTimers, IdsAreChosenKilledAndCheckedByTheOwner) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
    const uintptr_t first = rtos::WindowSetTimer(wnd, 0, 10);
    const uintptr_t second = rtos::WindowSetTimer(wnd, 0, 10);
    EXPECT_NE(first, 0u);
    EXPECT_NE(second, 0u);
    EXPECT_NE(first, second);

    uintptr_t elsewhere = 1;
    std::thread([&] { elsewhere = rtos::WindowSetTimer(wnd, 3, 10); }).join();
    EXPECT_EQ(elsewhere, 0u);

    EXPECT_TRUE(rtos::WindowKillTimer(wnd, first));
    EXPECT_TRUE(rtos::WindowKillTimer(wnd, second));
    EXPECT_FALSE(rtos::WindowKillTimer(wnd, second));
    EXPECT_EQ(errno, EINVAL);
    rtos::SleepMs(40);
    EXPECT_EQ(DrainPending(), 0);
    EXPECT_EQ(rec.Count(rtos::kWmTimer), 0u);
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_EQ(rtos::WindowSetTimer(wnd, 1, 10), 0u);
}

TEST(PumpTimers, AStreamOfPostsDoesNotStarveTheTimer) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
    ASSERT_NE(rtos::WindowSetTimer(wnd, 1, 10), 0u);
    // Each dispatch posts the next one, so the queue is never empty.
    ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgRepost, 1000000000, 0));
    rtos::Message msg;
    const auto start = std::chrono::steady_clock::now();
    while (rec.Count(rtos::kWmTimer) < 3 &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
        ASSERT_EQ(rtos::MessageGet(&msg), 1);
        rtos::MessageDispatch(&msg);
    }
    EXPECT_GE(rec.Count(rtos::kWmTimer), 3u);
    EXPECT_GT(rec.Count(kMsgRepost), 3u);
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_EQ(DrainPending(), 0) << "the reposts went with the window";
}

TEST(PumpQueueFd, ReadableWhileWorkFromOutsideWaits) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
    const int fd = rtos::MessageQueueFd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(rtos::MessageQueueFd(), fd);
    EXPECT_FALSE(Readable(fd, 0));

    std::thread([&] { rtos::WindowPostMessage(wnd, kMsgData, 1, 0); }).join();
    EXPECT_TRUE(Readable(fd, 5000));
    EXPECT_EQ(DrainPending(), 1);
    EXPECT_FALSE(Readable(fd, 0));

    // Outside a dispatch a thread's post to itself wakes its own queue too.
    ASSERT_TRUE(rtos::WindowPostMessage(wnd, kMsgData, 2, 0));
    EXPECT_TRUE(Readable(fd, 0));
    EXPECT_EQ(DrainPending(), 1);
    EXPECT_FALSE(Readable(fd, 0));

    ASSERT_NE(rtos::WindowSetTimer(wnd, 1, 20), 0u);
    EXPECT_TRUE(Readable(fd, 5000)) << "a due timer makes it readable";
    rtos::Message msg;
    ASSERT_TRUE(rtos::MessagePeek(&msg));
    EXPECT_EQ(msg.message, rtos::kWmTimer);
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
    EXPECT_EQ(DrainPending(), 0);
    EXPECT_FALSE(Readable(fd, 0));
}

// The eventfd's counter, read from /proc: it counts the writes not yet read.
long EventFdCount() {
    DIR* dir = ::opendir("/proc/self/fd");
    long count = -1;
    while (dirent* e = ::readdir(dir)) {
        char link[256] = {0};
        const std::string path = std::string("/proc/self/fd/") + e->d_name;
        if (::readlink(path.c_str(), link, sizeof(link) - 1) > 0 &&
            std::string(link) == "anon_inode:[eventfd]") {
            std::ifstream info(std::string("/proc/self/fdinfo/") + e->d_name);
            std::string key;
            while (info >> key) {
                if (key == "eventfd-count:") {
                    info >> std::hex >> count;
                }
            }
        }
    }
    ::closedir(dir);
    return count;
}

TEST(PumpQueueFd, OneWakeUpServesManyPostsAndSelfPostsInADispatchWakeNobody) {
    Recorder rec;
    rtos::WindowHandle wnd = NewWindow(&rec);
    ASSERT_NE(wnd, nullptr);
    const int fd = rtos::MessageQueueFd();
    ASSERT_EQ(EventFdCount(), 0) << "this test expects the only eventfd of the process";

    std::thread([&] {
        for (int i = 0; i < 10; ++i) {
            rtos::WindowPostMessage(wnd, kMsgData, i, 0);
        }
    }).join();
    EXPECT_EQ(EventFdCount(), 1) << "ten posts, one write";
    EXPECT_EQ(DrainPending(), 10);
    EXPECT_EQ(EventFdCount(), 0);

    // A chain of self-posts made inside dispatches is drained without a write.
    rtos::Message msg{wnd, kMsgRepost, 5, 0};
    rtos::MessageDispatch(&msg);
    EXPECT_EQ(EventFdCount(), 0);
    EXPECT_FALSE(Readable(fd, 0));
    EXPECT_EQ(DrainPending(), 5);
    EXPECT_TRUE(rtos::WindowDestroy(wnd));
}

TEST(PumpLifetime, ThreadsReleaseTheirQueuesWindowsAndDescriptors) {
    EnsureClass();
    ASSERT_TRUE(rtos::MessageQueueClose());  // start without a queue on this thread
    const int before = CountOpenFds();
    for (int round = 0; round < 3; ++round) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([] {
                rtos::WindowHandle a = rtos::WindowCreate(kClass);
                rtos::WindowHandle b = rtos::WindowCreate(kClass);
                ASSERT_NE(rtos::WindowSetTimer(a, 1, 10), 0u);
                ASSERT_TRUE(rtos::WindowPostMessage(b, kMsgData, 0, 0));
                EXPECT_GE(rtos::MessageQueueFd(), 0);
                // Ends with its windows, timer and queued message still there.
            });
        }
        for (auto& t : threads) {
            t.join();
        }
    }
    EXPECT_EQ(CountOpenFds(), before);

    rtos::WindowHandle mine = rtos::WindowCreate(kClass);
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(CountOpenFds(), before + 3) << "epoll, eventfd and timerfd";
    EXPECT_TRUE(rtos::MessageQueueClose());
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_FALSE(rtos::WindowPostMessage(mine, kMsgData, 0, 0));
    EXPECT_TRUE(rtos::MessageQueueClose()) << "closing nothing is fine";
}
