// Tiny socket buffers: a connection whose both ends have SO_SNDBUF and
// SO_RCVBUF at their minimum carries several megabytes through the network
// reactor, with partial writes and would-block all the way, and the byte
// stream arrives intact.
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "loopback_helpers.h"
#include "rtutilclasses.h"
#include "stress/stress_common.h"

namespace {

void* HandleOf(int aFd) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(aFd));
}

void SetTinyBuffers(int aFd) {
    int tiny = 1;  // the system rounds it up to its minimum
    ASSERT_EQ(SetSocketOption(aFd, SOL_SOCKET, SO_SNDBUF, &tiny, sizeof(tiny)), 0);
    ASSERT_EQ(SetSocketOption(aFd, SOL_SOCKET, SO_RCVBUF, &tiny, sizeof(tiny)), 0);
}

std::string Hex(const unsigned char (&aDigest)[16]) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char c : aDigest) {
        text += kDigits[c >> 4];
        text += kDigits[c & 15];
    }
    return text;
}

// Writes aData in uneven pieces whenever the reactor says it may, until a
// send would block; shuts its side down at the end. Reactor thread only.
class Writer : public IRtEventHandler {
public:
    Writer(CRtSocketStream* aSocket, const std::vector<unsigned char>& aData)
        : m_socket(aSocket), m_data(aData) {}
    void* GetHandle() const override { return m_socket->GetHandle(); }
    int OnOutput(void*) override {
        while (m_sent < m_data.size()) {
            size_t want = std::min<size_t>(m_data.size() - m_sent, 1 + m_rand() % 65536);
            int n = m_socket->Send(reinterpret_cast<const char*>(&m_data[m_sent]),
                                   static_cast<unsigned long>(want), 0);
            if (n < 0) {
                if (IsWouldBlock(errno)) {
                    ++wouldBlock;
                    return 0;
                }
                failed = errno;
                return -1;
            }
            partial += static_cast<size_t>(n) < want;
            m_sent += static_cast<size_t>(n);
        }
        ::shutdown(static_cast<int>(reinterpret_cast<intptr_t>(GetHandle())), SHUT_WR);
        done = true;
        return -1;  // nothing more to write: off the reactor
    }
    int OnClose(void*, MASK) override { return ++closes, 0; }

    std::atomic<long> wouldBlock{0};
    std::atomic<long> partial{0};
    std::atomic<int> failed{0};
    std::atomic<bool> done{false};
    std::atomic<int> closes{0};

private:
    CRtSocketStream* m_socket;
    const std::vector<unsigned char>& m_data;
    size_t m_sent = 0;
    std::minstd_rand m_rand{7};
};

// Reads whatever has arrived in small pieces into a digest until the peer
// closes. Reactor thread only.
class Reader : public IRtEventHandler {
public:
    explicit Reader(CRtSocketStream* aSocket) : m_socket(aSocket) { RtMD5Init(&md5); }
    void* GetHandle() const override { return m_socket->GetHandle(); }
    int OnInput(void*) override {
        char buf[3000];
        for (;;) {
            int n = m_socket->Recv(buf, sizeof(buf), 0);
            if (n > 0) {
                RtMD5Update(&md5, reinterpret_cast<unsigned char*>(buf),
                            static_cast<unsigned int>(n));
                received += n;
                continue;
            }
            if (n < 0 && (IsWouldBlock(errno))) {
                return 0;
            }
            failed = n < 0 ? errno : 0;
            RtMD5Final(&md5);
            done = true;
            return -1;
        }
    }
    int OnClose(void*, MASK) override { return ++closes, 0; }

    RtMD5Context md5;
    std::atomic<long> received{0};
    std::atomic<int> failed{0};
    std::atomic<bool> done{false};
    std::atomic<int> closes{0};

private:
    CRtSocketStream* m_socket;
};

}  // namespace

TEST(TinySocketBuffers, MegabytesArriveIntactThroughPartialWritesAndWouldBlock) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    OwnerThread owner(Owner::Reactor);
    ASSERT_TRUE(owner.Get());
    IRtReactor* reactor = owner.Get()->GetReactor();
    const size_t kBytes = static_cast<size_t>(StressCount(4L << 20));

    // Buffers are set before connecting, so the window is small from the start.
    int lfd = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_GE(lfd, 0);
    SetTinyBuffers(lfd);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(::bind(lfd, reinterpret_cast<sockaddr*>(&addr), len), 0);
    ASSERT_EQ(::listen(lfd, 1), 0);
    ASSERT_EQ(::getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    int cfd = static_cast<int>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_GE(cfd, 0);
    SetTinyBuffers(cfd);
    ASSERT_EQ(::connect(cfd, reinterpret_cast<sockaddr*>(&addr), len), 0);
    int afd = static_cast<int>(::accept(lfd, nullptr, nullptr));
    ASSERT_GE(afd, 0);
    CloseSocket(lfd);
    int sndbuf = 0;
    socklen_t optlen = sizeof(sndbuf);
    ::getsockopt(cfd, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char*>(&sndbuf), &optlen);
    Figure("effective_sndbuf_bytes", sndbuf);

    CRtSocketStream sending, receiving;
    sending.SetHandle(HandleOf(cfd));
    receiving.SetHandle(HandleOf(afd));
    ASSERT_EQ(sending.Enable(RT_IPC_SAP::NON_BLOCK), 0);
    ASSERT_EQ(receiving.Enable(RT_IPC_SAP::NON_BLOCK), 0);

    std::vector<unsigned char> data(kBytes);
    std::mt19937 rng(11);
    for (auto& b : data) {
        b = static_cast<unsigned char>(rng());
    }
    unsigned char sentDigest[16];
    RtMD5(data.data(), static_cast<unsigned long>(data.size()), sentDigest);

    Writer writer(&sending, data);
    Reader reader(&receiving);
    auto onReactor = [&](std::function<int()> aFn) {
        return reactor->SendEvent(new FnEvent(std::move(aFn)));
    };
    ASSERT_EQ(onReactor([&] {
                  int rv = reactor->RegisterHandler(&reader, IRtEventHandler::READ_MASK);
                  return rv == RT_OK
                             ? reactor->RegisterHandler(&writer, IRtEventHandler::WRITE_MASK)
                             : rv;
              }),
              RT_OK);
    ASSERT_TRUE(WaitUntil([&] { return reader.done.load(); }, std::chrono::minutes(5)))
        << "received " << reader.received.load() << " of " << kBytes;
    // Both off the reactor, and its dispatch over, before the sockets close.
    ASSERT_TRUE(WaitUntil([&] { return reader.closes.load() + writer.closes.load() == 2; }));
    EXPECT_EQ(onReactor([] { return RT_OK; }), RT_OK);

    EXPECT_TRUE(writer.done.load());
    EXPECT_EQ(writer.failed.load(), 0);
    EXPECT_EQ(reader.failed.load(), 0);
    EXPECT_EQ(static_cast<size_t>(reader.received.load()), kBytes);
    EXPECT_EQ(Hex(reader.md5.digest), Hex(sentDigest));
    EXPECT_GT(writer.wouldBlock.load(), 0);
    EXPECT_GT(writer.partial.load(), 0);
    Figure("bytes", static_cast<double>(kBytes));
    Figure("would_block_sends", writer.wouldBlock.load());
    Figure("partial_sends", writer.partial.load());
}
