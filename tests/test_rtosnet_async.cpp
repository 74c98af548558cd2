// Asynchronous lookups answered to a window (rtosnet.h): the answer and its
// buffer, errors, cancellation on either side of the completion, a window that
// goes away first, and a lookup that never ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rtos.h"
#include "rtosnet.h"
#include "rtoswindow.h"

namespace {

constexpr const char* kClass = "AsyncLookupTestWindow";
constexpr uint32_t kMsgDone = rtos::kWmUser + 133;
constexpr uint32_t kMsgRun = rtos::kWmUser + 1;  // lParam: a std::packaged_task<void()>
constexpr size_t kBufLen = 1024;

struct Completion {
    uintptr_t request;
    int error;
    uint32_t tid;
};

// A thread with a message loop and two windows: the one lookups answer to, and
// one that runs the test's calls there and outlives the first.
class WindowThread {
public:
    WindowThread() {
        static const bool s_registered = rtos::WindowClassRegister(kClass, &Proc, 4);
        EXPECT_TRUE(s_registered);
        std::promise<void> ready;
        m_thread = std::thread([this, &ready] {
            m_tid = rtos::CurrentThreadId();
            m_wnd = rtos::WindowCreate(kClass);
            m_control = rtos::WindowCreate(kClass);
            rtos::WindowSetLong(m_wnd, 0, reinterpret_cast<intptr_t>(this));
            ready.set_value();
            rtos::Message msg;
            while (rtos::MessageGet(&msg) > 0) {
                rtos::MessageDispatch(&msg);
            }
        });
        ready.get_future().wait();
    }
    ~WindowThread() {
        Run([] { rtos::MessagePostQuit(0); });
        m_thread.join();
    }

    // Runs aFn on the window thread after everything posted there before.
    void Run(std::function<void()> aFn) {
        std::packaged_task<void()> task(std::move(aFn));
        std::future<void> done = task.get_future();
        ASSERT_TRUE(
            rtos::WindowPostMessage(m_control, kMsgRun, 0, reinterpret_cast<intptr_t>(&task)));
        done.wait();
    }
    bool WaitLookups(size_t aCount) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_cond.wait_for(lock, std::chrono::seconds(20),
                               [&] { return m_lookups.size() >= aCount; });
    }
    std::vector<Completion> Lookups() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_lookups;
    }

    rtos::WindowHandle m_wnd = nullptr;
    uint32_t m_tid = 0;

private:
    static intptr_t Proc(rtos::WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam,
                         intptr_t aLParam) {
        if (aMsg == kMsgRun) {
            (*reinterpret_cast<std::packaged_task<void()>*>(aLParam))();
        } else if (aMsg == kMsgDone) {
            auto* self = reinterpret_cast<WindowThread*>(rtos::WindowGetLong(aWnd, 0));
            std::lock_guard<std::mutex> lock(self->m_lock);
            self->m_lookups.push_back(
                Completion{aWParam, rtos::AsyncLookupError(aLParam), rtos::CurrentThreadId()});
            self->m_cond.notify_all();
        }
        return 0;
    }

    std::thread m_thread;
    rtos::WindowHandle m_control = nullptr;
    std::mutex m_lock;
    std::condition_variable m_cond;
    std::vector<Completion> m_lookups;
};

// Made-up names: "gate.test" waits until the gate opens, "hang.test" never ends.
struct Gate {
    std::mutex lock;
    std::condition_variable cond;
    bool open = false;
    int passed = 0;
};
Gate& TheGate() {
    static Gate* s_gate = new Gate;  // a hung lookup thread may outlive the test
    return *s_gate;
}

int FakeLookup(const char* aName, rtos::HostInfo& aOut) {
    if (std::strcmp(aName, "hang.test") == 0) {
        for (;;) {
            rtos::SleepMs(3600 * 1000);
        }
    }
    if (std::strcmp(aName, "gate.test") == 0) {
        Gate& gate = TheGate();
        std::unique_lock<std::mutex> lock(gate.lock);
        gate.cond.wait(lock, [&] { return gate.open; });
        ++gate.passed;
        gate.cond.notify_all();
    }
    aOut.name = aName;
    aOut.addrs.push_back(htonl(0x0A000001));  // 10.0.0.1
    return 0;
}

uint32_t FirstAddress(const void* aBuf) {
    const hostent* host = static_cast<const hostent*>(aBuf);
    return *reinterpret_cast<const uint32_t*>(host->h_addr_list[0]);
}

class AsyncLookup : public ::testing::Test {
protected:
    void TearDown() override { rtos::SetHostLookup(nullptr); }
};

}  // namespace

TEST_F(AsyncLookup, AnswersEachRequestOnTheWindowThreadAndRefusesMissingArguments) {
    struct Case {
        const char* name;
        size_t len;
        bool ok;
        int error;  // when not ok; 0 means "any non-zero"
    };
    const Case cases[] = {
        {"localhost", kBufLen, true, 0},
        {"127.0.0.1", kBufLen, true, 0},
        {"no-such-host.invalid", kBufLen, false, 0},
        {"localhost", 8, false, rtos::kNoBufferSpace},
    };
    WindowThread win;
    std::vector<std::vector<char>> bufs;
    std::vector<rtos::AsyncRequest> ids;
    for (const Case& c : cases) {
        bufs.emplace_back(c.len, '\0');
        ids.push_back(
            rtos::AsyncGetHostByName(win.m_wnd, kMsgDone, c.name, bufs.back().data(), c.len));
        ASSERT_NE(ids.back(), 0u) << c.name;
    }
    ASSERT_TRUE(win.WaitLookups(std::size(cases)));
    const std::vector<Completion> done = win.Lookups();
    EXPECT_EQ(done.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].name);
        auto it = std::find_if(done.begin(), done.end(),
                               [&](const Completion& c) { return c.request == ids[i]; });
        ASSERT_NE(it, done.end());
        EXPECT_EQ(it->tid, win.m_tid);
        if (cases[i].ok) {
            EXPECT_EQ(it->error, 0);
            EXPECT_EQ(FirstAddress(bufs[i].data()), htonl(INADDR_LOOPBACK));
        } else {
            EXPECT_EQ(it->error != 0 && (!cases[i].error || it->error == cases[i].error), true)
                << it->error;
        }
        rtos::SetLastError(0);
        EXPECT_FALSE(rtos::AsyncCancel(ids[i])) << "once completed, the request is gone";
        EXPECT_EQ(rtos::LastError(), rtos::kBadArgument);
    }

    char buf[kBufLen];
    EXPECT_EQ(rtos::AsyncGetHostByName(nullptr, kMsgDone, "localhost", buf, sizeof buf), 0u);
    EXPECT_EQ(rtos::LastError(), rtos::kBadArgument);
    EXPECT_EQ(rtos::AsyncGetHostByName(win.m_wnd, kMsgDone, nullptr, buf, sizeof buf), 0u);
    EXPECT_EQ(rtos::AsyncGetHostByName(win.m_wnd, kMsgDone, "localhost", nullptr, 0), 0u);
    EXPECT_FALSE(rtos::AsyncCancel(0));
}

// Requests running (the gate holds them) and waiting behind them; cancelled
// buffers are freed at once, so ASan reports a late write into one.
TEST_F(AsyncLookup, ACancelledRequestOrAGoneWindowGetsNoAnswerAndNoWrite) {
    rtos::SetHostLookup(&FakeLookup);
    WindowThread win, gone;
    constexpr int kRequests = 8;
    std::vector<std::unique_ptr<char[]>> bufs;
    std::vector<rtos::AsyncRequest> ids;
    for (int i = 0; i <= kRequests; ++i) {
        bufs.emplace_back(new char[kBufLen]());
        ids.push_back(rtos::AsyncGetHostByName(i < kRequests ? win.m_wnd : gone.m_wnd, kMsgDone,
                                               "gate.test", bufs.back().get(), kBufLen));
        ASSERT_NE(ids.back(), 0u);
    }
    for (int i = 0; i < kRequests; i += 2) {
        ASSERT_TRUE(rtos::AsyncCancel(ids[i]));
        EXPECT_FALSE(rtos::AsyncCancel(ids[i]));
        bufs[i].reset();
    }
    gone.Run([&] { rtos::WindowDestroy(gone.m_wnd); });
    {
        Gate& gate = TheGate();
        std::unique_lock<std::mutex> lock(gate.lock);
        gate.open = true;
        gate.cond.notify_all();
        ASSERT_TRUE(gate.cond.wait_for(lock, std::chrono::seconds(20),
                                       [&] { return gate.passed > kRequests / 2; }));
    }
    ASSERT_TRUE(win.WaitLookups(kRequests / 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    win.Run([] {});
    gone.Run([] {});
    EXPECT_TRUE(gone.Lookups().empty());
    std::vector<uintptr_t> answered;
    for (const Completion& c : win.Lookups()) {
        answered.push_back(c.request);
    }
    std::sort(answered.begin(), answered.end());
    EXPECT_EQ(std::adjacent_find(answered.begin(), answered.end()), answered.end())
        << "answered twice";
    for (int i = 0; i < kRequests; ++i) {
        EXPECT_EQ(std::count(answered.begin(), answered.end(), ids[i]), i % 2) << i;
    }
    // Whichever way the gone window's request went, its lookup is done with the buffer after this.
    rtos::AsyncCancel(ids[kRequests]);
}

TEST_F(AsyncLookup, ALookupThatNeverEndsBlocksNeitherCallersNorOtherLookupsNorExit) {
    rtos::SetHostLookup(&FakeLookup);
    WindowThread win;
    std::vector<char> hung(kBufLen);
    rtos::AsyncRequest id =
        rtos::AsyncGetHostByName(win.m_wnd, kMsgDone, "hang.test", hung.data(), kBufLen);
    ASSERT_NE(id, 0u);
    std::vector<char> buf(kBufLen);
    rtos::AsyncRequest next =
        rtos::AsyncGetHostByName(win.m_wnd, kMsgDone, "other.test", buf.data(), kBufLen);
    ASSERT_TRUE(win.WaitLookups(1));
    EXPECT_EQ(win.Lookups()[0].request, next);
    EXPECT_EQ(FirstAddress(buf.data()), htonl(0x0A000001));
    EXPECT_TRUE(rtos::AsyncCancel(id));
    // The test process then ends with that lookup thread still stuck.
}

TEST(OsVersion, IsNeverTakenForWindows95Or98) {
    rtos::OsVersion version{};
    ASSERT_TRUE(rtos::GetOsVersion(version));
    EXPECT_EQ(version.platformId, rtos::kPlatformNt);
    EXPECT_GT(version.major, 0u);
}
