// Asynchronous lookups answered to a window (rtosnet.h): the answer and its
// buffer, errors, cancellation on either side of the completion, a window that
// goes away first, and a lookup that never ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <vector>

#include "rtos.h"
#include "rtosnet.h"
#include "rtoswindow.h"

namespace {

constexpr uint32_t kMsgDone = rtos::kWmUser + 133;
constexpr size_t kBufLen = 1024;

struct Completion {
    rtos::WindowHandle wnd;
    uintptr_t request;
    int error;
};
std::vector<Completion> g_done;  // the windows live on the test's thread

intptr_t Proc(rtos::WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam, intptr_t aLParam) {
    if (aMsg == kMsgDone) {
        g_done.push_back(Completion{aWnd, aWParam, rtos::AsyncLookupError(aLParam)});
    }
    return 0;
}

// Dispatches this thread's messages until aCount answers came or aMs passed.
void Pump(size_t aCount, int aMs = 20000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(aMs);
    rtos::Message msg;
    while (g_done.size() < aCount && std::chrono::steady_clock::now() < end) {
        while (rtos::MessagePeek(&msg)) {
            rtos::MessageDispatch(&msg);
        }
        rtos::SleepMs(1);
    }
}

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
    void SetUp() override {
        static const bool s_registered = rtos::WindowClassRegister("AsyncLookupTest", &Proc, 0);
        ASSERT_TRUE(s_registered);
        m_wnd = rtos::WindowCreate("AsyncLookupTest");
        g_done.clear();
    }
    void TearDown() override {
        rtos::WindowDestroy(m_wnd);
        rtos::SetHostLookup(nullptr);
    }

    rtos::WindowHandle m_wnd = nullptr;
};

}  // namespace

TEST_F(AsyncLookup, AnswersEachRequestAndRefusesMissingArguments) {
    const struct {
        const char* name;
        size_t len;
        bool ok;
        int error;  // when not ok; 0 means "any non-zero"
    } cases[] = {
        {"localhost", kBufLen, true, 0},
        {"127.0.0.1", kBufLen, true, 0},
        {"no-such-host.invalid", kBufLen, false, 0},
        {"localhost", 8, false, rtos::kNoBufferSpace},
    };
    std::vector<std::vector<char>> bufs;
    std::vector<rtos::AsyncRequest> ids;
    for (const auto& c : cases) {
        bufs.emplace_back(c.len, '\0');
        ids.push_back(rtos::AsyncGetHostByName(m_wnd, kMsgDone, c.name, bufs.back().data(), c.len));
        ASSERT_NE(ids.back(), 0u) << c.name;
    }
    Pump(std::size(cases));
    ASSERT_EQ(g_done.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].name);
        auto it = std::find_if(g_done.begin(), g_done.end(),
                               [&](const Completion& c) { return c.request == ids[i]; });
        ASSERT_NE(it, g_done.end());
        if (cases[i].ok) {
            EXPECT_EQ(it->error, 0);
            EXPECT_EQ(FirstAddress(bufs[i].data()), htonl(INADDR_LOOPBACK));
        } else {
            EXPECT_TRUE(it->error != 0 && (!cases[i].error || it->error == cases[i].error))
                << it->error;
        }
        rtos::SetLastError(0);
        EXPECT_FALSE(rtos::AsyncCancel(ids[i])) << "once completed, the request is gone";
        EXPECT_EQ(rtos::LastError(), rtos::kBadArgument);
    }

    char buf[kBufLen];
    EXPECT_EQ(rtos::AsyncGetHostByName(nullptr, kMsgDone, "localhost", buf, sizeof buf), 0u);
    EXPECT_EQ(rtos::LastError(), rtos::kBadArgument);
    EXPECT_EQ(rtos::AsyncGetHostByName(m_wnd, kMsgDone, nullptr, buf, sizeof buf), 0u);
    EXPECT_EQ(rtos::AsyncGetHostByName(m_wnd, kMsgDone, "localhost", nullptr, 0), 0u);
    EXPECT_FALSE(rtos::AsyncCancel(0));
}

// Requests running (the gate holds them) and waiting behind them. Cancelled
// buffers are freed at once, so ASan reports a late write into one.
TEST_F(AsyncLookup, ACancelledRequestOrAGoneWindowGetsNoAnswerAndNoWrite) {
    rtos::SetHostLookup(&FakeLookup);
    Gate& gate = TheGate();
    {
        std::lock_guard<std::mutex> lock(gate.lock);
        gate.open = false;
        gate.passed = 0;
    }
    rtos::WindowHandle gone = rtos::WindowCreate("AsyncLookupTest");
    constexpr int kRequests = 8;  // and one more, to the window that goes
    std::vector<std::unique_ptr<char[]>> bufs;
    std::vector<rtos::AsyncRequest> ids;
    for (int i = 0; i <= kRequests; ++i) {
        bufs.emplace_back(new char[kBufLen]());
        ids.push_back(rtos::AsyncGetHostByName(i < kRequests ? m_wnd : gone, kMsgDone, "gate.test",
                                               bufs.back().get(), kBufLen));
        ASSERT_NE(ids.back(), 0u);
    }
    for (int i = 0; i < kRequests; i += 2) {
        ASSERT_TRUE(rtos::AsyncCancel(ids[i]));
        EXPECT_FALSE(rtos::AsyncCancel(ids[i]));
        bufs[i].reset();
    }
    ASSERT_TRUE(rtos::WindowDestroy(gone));
    {
        std::unique_lock<std::mutex> lock(gate.lock);
        gate.open = true;
        gate.cond.notify_all();
        ASSERT_TRUE(gate.cond.wait_for(lock, std::chrono::seconds(20),
                                       [&] { return gate.passed > kRequests / 2; }));
    }
    Pump(kRequests / 2);
    Pump(kRequests, 200);  // anything more would come now
    std::vector<uintptr_t> answered, want;
    for (const Completion& c : g_done) {
        EXPECT_EQ(c.wnd, m_wnd);
        answered.push_back(c.request);
    }
    for (int i = 1; i < kRequests; i += 2) {
        want.push_back(ids[i]);
    }
    std::sort(answered.begin(), answered.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(answered, want) << "each request not cancelled is answered, once";
    // Whichever way the gone window's request went, its lookup is done with the buffer after this.
    rtos::AsyncCancel(ids[kRequests]);
}

TEST_F(AsyncLookup, ALookupThatNeverEndsBlocksNeitherCallersNorOtherLookupsNorExit) {
    rtos::SetHostLookup(&FakeLookup);
    std::vector<char> hung(kBufLen), buf(kBufLen);
    rtos::AsyncRequest id =
        rtos::AsyncGetHostByName(m_wnd, kMsgDone, "hang.test", hung.data(), kBufLen);
    ASSERT_NE(id, 0u);
    rtos::AsyncRequest next =
        rtos::AsyncGetHostByName(m_wnd, kMsgDone, "other.test", buf.data(), kBufLen);
    Pump(1);
    ASSERT_EQ(g_done.size(), 1u);
    EXPECT_EQ(g_done[0].request, next);
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
