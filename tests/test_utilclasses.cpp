#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "rtos.h"
#include "rtoscom.h"
#include "rtosnet.h"
#include "rtutilclasses.h"
#include "trace_capture.h"

namespace {

const char kNotFound[] = "::RtCoUninitialize, COM initialization record not found! threadID=";

std::string NotFoundHere() {
    return kNotFound + std::to_string(rtos::CurrentThreadId());
}

uint32_t Ipv4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    const unsigned char bytes[4] = {a, b, c, d};
    uint32_t v;
    std::memcpy(&v, bytes, 4);
    return v;
}

uint32_t AddressAt(const hostent* aHost, size_t aIndex) {
    uint32_t a;
    std::memcpy(&a, aHost->h_addr_list[aIndex], 4);
    return a;
}

}  // namespace

TEST(StrCaseRStr, FindsTheLastOccurrenceFoldingOnlyAsciiLetters) {
    const struct {
        const char* haystack;
        const char* needle;
        int at;  // -1: not found
    } cases[] = {
        {"abcABC", "bc", 4},
        {"abcABC", "BC", 4},
        {"abcABC", "aBc", 3},
        {"abcABC", "ABCABC", 0},
        {"abcABC", "a", 3},
        {"abcABC", "c", 5},
        {"aaaa", "AA", 2},
        {"Mail.Example.COM.example.com", ".EXAMPLE.", 16},
        {"Mail.Example.COM.example.com", "mail.", 0},
        {"x\xc4y", "\xc4Y", 1},
        {"abc", "abcd", -1},
        {"abc", "x", -1},
        {"abc", "bd", -1},
        {"", "a", -1},
        {"a", "", -1},
        {"\xc4", "\xe4", -1},  // Latin-1 A/a umlaut
        {"[", "{", -1},        // 0x5B and 0x7B differ by 0x20 too
    };
    for (const auto& c : cases) {
        EXPECT_EQ(rt_strcaserstr(c.haystack, c.needle), c.at < 0 ? nullptr : c.haystack + c.at)
            << c.haystack << " / " << c.needle;
    }
    EXPECT_EQ(rt_strcaserstr(nullptr, "a"), nullptr);
    EXPECT_EQ(rt_strcaserstr("a", nullptr), nullptr);
}

TEST(CoInitialize, CountsCallsOnOneThreadAndTracesOneUninitializeTooMany) {
    TraceCapture trace;
    ASSERT_EQ(rtos::CoInitializeCount(), 0u);
    for (int round = 0; round < 2; ++round) {  // the thread starts over after balancing
        EXPECT_EQ(RtCoInitialize(), RT_OK);
        EXPECT_EQ(RtCoInitialize(), RT_OK);
        EXPECT_EQ(rtos::CoInitializeCount(), 1u);  // the platform was asked once
        RtCoUninitialize();
        EXPECT_EQ(rtos::CoInitializeCount(), 1u);
        RtCoUninitialize();
        EXPECT_EQ(rtos::CoInitializeCount(), 0u);
        EXPECT_EQ(TraceCapture::Count(kNotFound), static_cast<size_t>(round));
        RtCoUninitialize();
        EXPECT_EQ(TraceCapture::Count(NotFoundHere()), static_cast<size_t>(round + 1));
    }
    EXPECT_EQ(rtos::CoInitializeCount(), 0u);
}

TEST(CoInitialize, FailsWhereSomeoneElseInitialisedTheThread) {
    TraceCapture trace;
    ASSERT_EQ(rtos::CoInitialize(), 0);
    EXPECT_EQ(RtCoInitialize(), RT_ERROR_FAILURE);
    EXPECT_EQ(TraceCapture::Count("::RtCoInitialize, CoInitialize failed! rv=1 threadID=" +
                                  std::to_string(rtos::CurrentThreadId())),
              1u);
    // The other party's initialisation stays, and no record was made.
    RtCoUninitialize();
    EXPECT_EQ(TraceCapture::Count(NotFoundHere()), 1u);
    EXPECT_EQ(rtos::CoInitializeCount(), 1u);
    rtos::CoUninitialize();
}

TEST(CoInitialize, KeepsOneRecordPerThread) {
    TraceCapture trace;
    const int kThreads = 8;
    const int kRounds = 200;
    std::atomic<int> failures{0};
    std::atomic<int> initialised{0};
    std::vector<uint32_t> tids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            tids[t] = rtos::CurrentThreadId();
            for (int round = 0; round < kRounds; ++round) {
                const int depth = 1 + (t + round) % 5;
                for (int i = 0; i < depth; ++i) {
                    failures += RtCoInitialize() != RT_OK;
                }
                failures += rtos::CoInitializeCount() != 1u;
                for (int i = 0; i < depth; ++i) {
                    RtCoUninitialize();
                }
                failures += rtos::CoInitializeCount() != 0u;
            }
            // Every thread holds a record at once here.
            failures += RtCoInitialize() != RT_OK;
            ++initialised;
            while (initialised.load() < kThreads) {
                std::this_thread::yield();
            }
            RtCoUninitialize();
            RtCoUninitialize();  // one too many: no record left
            failures += rtos::CoInitializeCount() != 0u;
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(TraceCapture::Count(kNotFound), static_cast<size_t>(kThreads));
    for (uint32_t tid : tids) {
        EXPECT_EQ(TraceCapture::Count(kNotFound + std::to_string(tid) + "\n"), 1u) << tid;
    }
}

TEST(CoInitialize, RefusesToWrapTheSixteenBitCount) {
    TraceCapture trace;
    for (int i = 0; i < 65535; ++i) {
        ASSERT_EQ(RtCoInitialize(), RT_OK) << i;
    }
    EXPECT_EQ(RtCoInitialize(), RT_ERROR_FAILURE);
    EXPECT_EQ(TraceCapture::Count("::RtCoInitialize, too many calls!"), 1u);
    for (int i = 0; i < 65534; ++i) {
        RtCoUninitialize();
    }
    EXPECT_EQ(rtos::CoInitializeCount(), 1u);
    RtCoUninitialize();
    EXPECT_EQ(rtos::CoInitializeCount(), 0u);
    EXPECT_EQ(TraceCapture::Count(kNotFound), 0u);
}

TEST(LocalIP, IsTheFirstAddressOfTheHostName) {
    char name[257];
    ASSERT_EQ(rtos::GetHostName(name, sizeof(name)), 0);
    EXPECT_GT(std::strlen(name), 0u);
    rtos::HostInfo info;
    if (rtos::LookupHostIPv4(name, info) != 0) {
        EXPECT_EQ(RtGetLocalIP(), 0u);  // a machine whose name has no address
        return;
    }
    const unsigned long ip = RtGetLocalIP();
    EXPECT_EQ(ip, info.addrs[0]);
    EXPECT_EQ(static_cast<uint64_t>(ip) >> 32, 0u);  // no bits past 32
}

TEST(HostLookup, ResolvesToNetworkOrderAndFailsWithANonZeroError) {
    rtos::HostInfo info;
    ASSERT_EQ(rtos::LookupHostIPv4("10.1.2.3", info), 0);
    EXPECT_EQ(info.addrs, std::vector<uint32_t>{Ipv4(10, 1, 2, 3)});
    EXPECT_EQ(info.name, "10.1.2.3");
    ASSERT_EQ(rtos::LookupHostIPv4("localhost", info), 0);
    EXPECT_NE(std::find(info.addrs.begin(), info.addrs.end(), Ipv4(127, 0, 0, 1)),
              info.addrs.end());
    // One entry per address, not one per socket type.
    std::vector<uint32_t> sorted = info.addrs;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::unique(sorted.begin(), sorted.end()), sorted.end());

    EXPECT_EQ(rtos::LookupHostIPv4(nullptr, info), rtos::kHostNotFound);
    EXPECT_EQ(rtos::LookupHostIPv4("", info), rtos::kHostNotFound);
    EXPECT_NE(rtos::LookupHostIPv4("no-such-host.invalid", info), 0);
    EXPECT_TRUE(info.addrs.empty());
    EXPECT_NE(rtos::GetHostName(nullptr, 10), 0);
    char one[1] = {'x'};
    rtos::GetHostName(one, sizeof(one));
    EXPECT_EQ(one[0], '\0');  // always terminated, even when cut
}

TEST(HostentLayout, PointsEveryFieldIntoTheCallersBuffer) {
    rtos::HostInfo info;
    info.name = "www.example.test";
    info.aliases = {"alias-one", "alias-two"};
    info.addrs = {Ipv4(192, 0, 2, 1), Ipv4(192, 0, 2, 2), Ipv4(192, 0, 2, 3)};

    // An odd start: the caller's buffer need not be aligned.
    alignas(8) char storage[1025];
    char* buf = storage + 1;
    hostent* host = nullptr;
    ASSERT_EQ(rtos::LayoutHostent(info, buf, 1024, &host), 0);
    auto inside = [&](const void* p) {
        return static_cast<const char*>(p) >= buf && static_cast<const char*>(p) < buf + 1024;
    };
    for (const void* p :
         {static_cast<const void*>(host), static_cast<const void*>(host->h_name),
          static_cast<const void*>(host->h_aliases), static_cast<const void*>(host->h_addr_list)}) {
        ASSERT_TRUE(inside(p));
    }
    EXPECT_STREQ(host->h_name, "www.example.test");
    EXPECT_EQ(host->h_addrtype, AF_INET);
    EXPECT_EQ(host->h_length, 4);
    EXPECT_STREQ(host->h_aliases[0], "alias-one");
    EXPECT_STREQ(host->h_aliases[1], "alias-two");
    EXPECT_EQ(host->h_aliases[2], nullptr);
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(inside(host->h_addr_list[i]));
        EXPECT_EQ(AddressAt(host, i), info.addrs[i]);
    }
    EXPECT_EQ(host->h_addr_list[3], nullptr);
}

TEST(HostentLayout, CutsAliasesFirstThenAddressesToFit) {
    rtos::HostInfo info;
    info.name = "many.example.test";
    info.aliases = {"first-alias", "second-alias"};
    for (unsigned i = 0; i < 200; ++i) {
        info.addrs.push_back(Ipv4(10, 0, 0, static_cast<unsigned char>(i)));
    }
    std::vector<char> buf(1024);
    hostent* host = nullptr;
    ASSERT_EQ(rtos::LayoutHostent(info, buf.data(), buf.size(), &host), 0);
    EXPECT_EQ(host->h_aliases[0], nullptr);
    size_t n = 0;
    for (; host->h_addr_list[n]; ++n) {
        EXPECT_EQ(AddressAt(host, n), info.addrs[n]);  // the first ones kept, in order
    }
    EXPECT_GT(n, 50u);
    EXPECT_LT(n, 200u);

    // With room for the addresses, the aliases that fit are kept.
    info.addrs.resize(4);
    info.aliases.push_back(std::string(2000, 'x'));
    info.aliases.push_back("last");
    ASSERT_EQ(rtos::LayoutHostent(info, buf.data(), buf.size(), &host), 0);
    EXPECT_STREQ(host->h_aliases[0], "first-alias");
    EXPECT_STREQ(host->h_aliases[1], "second-alias");
    EXPECT_STREQ(host->h_aliases[2], "last");
    EXPECT_EQ(host->h_aliases[3], nullptr);
    EXPECT_NE(host->h_addr_list[3], nullptr);
    EXPECT_EQ(host->h_addr_list[4], nullptr);
}

TEST(HostentLayout, RefusesBadArgumentsAndABufferTooSmallForTheName) {
    rtos::HostInfo info;
    info.name = std::string(2000, 'n');
    info.addrs = {Ipv4(10, 0, 0, 1)};
    std::vector<char> buf(1024);
    hostent* host = reinterpret_cast<hostent*>(0x1);
    EXPECT_EQ(rtos::LayoutHostent(info, buf.data(), buf.size(), &host), rtos::kNoBufferSpace);
    EXPECT_EQ(host, nullptr);
    info.name = "short";
    EXPECT_EQ(rtos::LayoutHostent(info, buf.data(), 8, &host), rtos::kNoBufferSpace);
    EXPECT_EQ(rtos::LayoutHostent(info, nullptr, 1024, &host), rtos::kBadArgument);
    EXPECT_EQ(rtos::LayoutHostent(info, buf.data(), buf.size(), nullptr), rtos::kBadArgument);

    // GetHostByName looks up, then lays out.
    ASSERT_EQ(rtos::GetHostByName("127.0.0.1", buf.data(), buf.size(), &host), 0);
    EXPECT_EQ(AddressAt(host, 0), Ipv4(127, 0, 0, 1));
    EXPECT_NE(rtos::GetHostByName("", buf.data(), buf.size(), &host), 0);
    EXPECT_EQ(host, nullptr);
}
